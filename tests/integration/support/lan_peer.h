/*
 * A LAN client in a test: a blocking TCP socket with line reads bounded
 * by a time-out.
 */
#ifndef IT_LAN_PEER_H
#define IT_LAN_PEER_H

#include <chrono>
#include <string>

#include "port/posix/lan/lan_config.h"

namespace it {

/* The LAN channel's counters and gauges now (lan_stats). */
LAN_STATS_S lan_stats_now();

class LanPeer {
public:
    ~LanPeer();
    /* Create the socket now (connect does it otherwise): it then needs no new descriptor to connect. */
    bool open_socket();
    bool connect(int port);
    bool send_line(const std::string &line);
    /* The next line without "\n"; false on time-out or when the gateway closed the connection. */
    bool read_line(std::string *line, std::chrono::milliseconds timeout);
    /* true when the gateway closes the connection within timeout, having sent nothing. */
    bool closed_without_data(std::chrono::milliseconds timeout, std::string *got);
    /* Stop reading from now on; the socket stays open (a slow client). */
    int fd() const { return fd_; }
    void close();

private:
    int fd_ = -1;
    std::string buffer_;
    bool eof_ = false;
};

} // namespace it

#endif /* IT_LAN_PEER_H */
