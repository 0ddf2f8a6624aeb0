/*
 * One LAN client connection: its inbound line buffer, its authentication
 * state and its bounded queue of outbound frames.
 *
 * Not thread-safe by itself: the LAN channel's lock guards every session.
 * Only the channel's thread reads and writes the socket.
 */
#ifndef SF_POSIX_LAN_SESSION_H
#define SF_POSIX_LAN_SESSION_H

#include <chrono>
#include <deque>
#include <string>
#include <vector>

#include "../../services/uni_rfc.h"

namespace sf_lan {

using Clock = std::chrono::steady_clock;

/* An outbound frame: a DP report block (formatted when it is written) or a ready text. */
struct OutFrame {
    RFC_DATA_S *block = nullptr; /* one reference of this session's, released once written or dropped */
    unsigned frame_type = 0;
    std::string text;            /* the line with its "\n", once formatted */
};

class Session {
public:
    Session(int fd, std::string peer, Clock::time_point opened);
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    int fd() const { return fd_; }
    const std::string &peer() const { return peer_; }
    bool authed() const { return authed_; }
    void set_authed() { authed_ = true; }
    bool closing() const { return closing_; }
    Clock::time_point opened() const { return opened_; }

    /* Close at the next turn of the channel's loop; queued frames are released now. */
    void close_soon(const char *why);
    const std::string &close_reason() const { return close_reason_; }

    /*
     * Append received bytes; complete lines (without "\n" or "\r") go to
     * *lines. false when a line grew past max_line (the framing is lost).
     */
    bool take_bytes(const char *data, size_t len, size_t max_line, std::vector<std::string> *lines);

    /*
     * Queue a frame; false (nothing queued, block not referenced) when
     * max_frames wait already. A block must carry a message
     * (sf_wire::message_of not null): the channel checks it on entry.
     */
    bool queue_block(RFC_DATA_S *block, unsigned frame_type, size_t max_frames);
    bool queue_text(std::string line, size_t max_frames);
    bool has_output() const { return !out_.empty(); }

    /*
     * Write what the socket takes without blocking. false when the peer is
     * gone (the caller closes the session).
     */
    bool flush();

private:
    void release_queue();

    int fd_;
    std::string peer_;
    Clock::time_point opened_;
    bool authed_ = false;
    bool closing_ = false;
    std::string close_reason_;
    std::string in_;
    std::deque<OutFrame> out_;
    size_t head_written_ = 0;
};

} // namespace sf_lan

#endif /* SF_POSIX_LAN_SESSION_H */
