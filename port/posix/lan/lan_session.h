/*
 * One LAN client connection: its transport (plain TCP, or TLS over it),
 * its inbound line buffer and the times that bound it, its authentication
 * state, the count of its commands still waiting in the dispatch queue,
 * and its bounded queue of outbound frames.
 *
 * Not thread-safe by itself: the LAN channel's lock guards every session.
 * Only the channel's thread reads and writes the socket.
 */
#ifndef SF_POSIX_LAN_SESSION_H
#define SF_POSIX_LAN_SESSION_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "services/uni_rfc.h"
#include "lan_line_buffer.h"
#include "lan_psk.h"

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
    /* peer is "address:port"; addr the address alone. id is never reused in a process. */
    Session(int fd, std::string peer, Clock::time_point opened, std::string addr = std::string(), uint64_t id = 0);
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    int fd() const { return fd_; }
    const std::string &peer() const { return peer_; }
    const std::string &addr() const { return addr_; }
    uint64_t id() const { return id_; }
    bool authed() const { return authed_; }
    void set_authed() { authed_ = true; }
    /* The local key the session started with (see lan_set_local_key). */
    uint64_t key_generation() const { return key_generation_; }
    void set_key_generation(uint64_t generation) { key_generation_ = generation; }

    /*
     * Speak TLS with psk from now on (before any byte is read); the
     * session's copy of psk serves its handshake. false when OpenSSL fails.
     */
    bool start_tls(SSL_CTX *ctx, const Psk &psk);
    bool tls() const { return ssl_ != nullptr; }
    /* A TLS session whose handshake is not finished. */
    bool handshaking() const { return ssl_ != nullptr && !handshake_done_; }
    enum class Step { Done, Again, Failed };
    /* Advance the handshake with what the socket has; Failed: *why says why. */
    Step step_handshake(std::string *why);
    /* The handshake waits to write (poll for POLLOUT), not to read. */
    bool handshake_wants_write() const { return handshake_wants_write_; }
    /* Decrypted bytes wait in the TLS library, which poll cannot see. */
    bool tls_pending() const;

    /* true the first time only: the first line of a TLS session may be a leftover auth frame. */
    bool take_first_line() { const bool first = first_line_; first_line_ = false; return first; }

    enum class Read { Data, Again, Eof, Error };
    /* One read of what is there (decrypted under TLS); *got bytes when Data. */
    Read receive(char *buf, size_t len, size_t *got);

    /*
     * The client ended its side (a half-close): nothing more is read, and
     * the session closes once what it sent is answered and written.
     */
    void set_peer_done(Clock::time_point now) { peer_done_ = true; peer_done_at_ = now; }
    bool peer_done() const { return peer_done_; }
    Clock::time_point peer_done_at() const { return peer_done_at_; }
    bool closing() const { return closing_; }
    Clock::time_point opened() const { return opened_; }

    /* Close at the next turn of the channel's loop; queued frames are released now. */
    void close_soon(const char *why);
    const std::string &close_reason() const { return close_reason_; }

    /* Append received bytes; the times of the input follow (see last_input, partial_since). */
    void take_bytes(const char *data, size_t len, Clock::time_point now);
    LineBuffer &input() { return in_; }

    /*
     * The channel does not read this client now (its commands fill their
     * quota): its silence is not its fault, so the idle and half-frame
     * clocks restart.
     */
    void hold(Clock::time_point now);
    /* When the client last sent something (or was last held). */
    Clock::time_point last_input() const { return last_input_; }
    /* Since when an unfinished line waits; meaningful while input().partial(). */
    Clock::time_point partial_since() const { return partial_since_; }

    /* Commands of this client handed to the smart frame and not yet handled. */
    size_t waiting_commands() const { return waiting_commands_; }
    void add_waiting_commands(size_t count) { waiting_commands_ += count; }
    void remove_waiting_commands(size_t count) { waiting_commands_ -= count < waiting_commands_ ? count : waiting_commands_; }

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
    /* send() or SSL_write: bytes written, 0 when the socket is full, < 0 when the peer is gone. */
    ssize_t write_some(const char *data, size_t len);
    /* The frame's text; a block's is made when it is first written. */
    static const std::string &render(OutFrame *frame);
    /* sent bytes of the queue's head went out: finished frames leave the queue. */
    void consume(size_t sent);

    /* At most this much of the queue in one write (one TLS record's payload), unless one frame is longer. */
    static constexpr size_t FLUSH_BATCH_BYTES = 16384;

    int fd_;
    std::string peer_;
    std::string addr_;
    uint64_t id_;
    Clock::time_point opened_;
    Clock::time_point last_input_;
    Clock::time_point partial_since_;
    size_t waiting_commands_ = 0;
    bool authed_ = false;
    bool closing_ = false;
    uint64_t key_generation_ = 0;
    SSL *ssl_ = nullptr;
    Psk psk_;
    bool handshake_done_ = false;
    bool handshake_wants_write_ = false;
    bool peer_done_ = false;
    bool first_line_ = true;
    Clock::time_point peer_done_at_{};
    std::string close_reason_;
    LineBuffer in_;
    std::deque<OutFrame> out_;
    size_t head_written_ = 0;
    std::string batch_; /* the frames of one write when more than one is queued */
};

} // namespace sf_lan

#endif /* SF_POSIX_LAN_SESSION_H */
