/*
 * A LAN client in a test: a blocking TCP socket with line reads bounded
 * by a time-out, speaking TLS 1.3 with the PSK of the local key (the
 * channel's default) or plain TCP, as lan_peers_speak_plain says.
 */
#ifndef IT_LAN_PEER_H
#define IT_LAN_PEER_H

#include <chrono>
#include <memory>
#include <string>

#include "port/posix/lan/lan_config.h"
#include "port/posix/lan/lan_tls_client.h"

namespace it {

/* The LAN channel's counters and gauges now (lan_stats). */
LAN_STATS_S lan_stats_now();

/*
 * How peers connected from now on speak (each test runs in its own
 * process; TLS until a test says otherwise). A test about the plain mode's
 * framing starts the channel with LAN_SECURITY_PLAIN and calls this.
 */
void lan_peers_speak_plain(bool plain);

class LanPeer {
public:
    ~LanPeer();
    /* Create the socket now (connect does it otherwise): it then needs no new descriptor to connect. */
    bool open_socket();
    /* Connect; under TLS also the handshake with the gateway's identity and key (LOCAL_KEY unless given). */
    bool connect(int port);
    bool connect(int port, const std::string &key);
    /* Why the last connect failed ("" when it did not). */
    const std::string &why() const { return why_; }
    bool send_line(const std::string &line);
    /* Send these bytes as they are (through TLS when the peer speaks it). */
    bool send_bytes(const std::string &bytes);
    /* The next line without "\n"; false on time-out or when the gateway closed the connection. */
    bool read_line(std::string *line, std::chrono::milliseconds timeout);
    /* true when the gateway closes the connection within timeout, having sent nothing. */
    bool closed_without_data(std::chrono::milliseconds timeout, std::string *got);
    /* End the client's sending side (TLS close_notify, then the TCP half-close); reading goes on. */
    void shutdown_write();
    /* The gateway closed the connection (seen by a read). */
    bool closed() const { return eof_; }
    int fd() const { return fd_; }
    bool tls() const { return tls_ != nullptr; }
    void close();

private:
    int fd_ = -1;
    std::unique_ptr<sf_lan::TlsClient> tls_;
    std::string why_;
    std::string buffer_;
    bool eof_ = false;
};

} // namespace it

#endif /* IT_LAN_PEER_H */
