#include "lan_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>

#include "gateway.h"

namespace it {

namespace {

bool g_plain = false;

} // namespace

void lan_peers_speak_plain(bool plain) { g_plain = plain; }

LAN_STATS_S lan_stats_now()
{
    LAN_STATS_S out{};
    lan_stats(&out);
    return out;
}

LanPeer::~LanPeer() { close(); }

void LanPeer::close()
{
    tls_.reset();
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

bool LanPeer::open_socket()
{
    if (fd_ < 0) {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    }
    return fd_ >= 0;
}

bool LanPeer::connect(int port) { return connect(port, LOCAL_KEY); }

bool LanPeer::connect(int port, const std::string &key)
{
    why_.clear();
    open_socket();
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (::connect(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        why_ = "connect failed";
        return false;
    }
    if (g_plain) {
        return true;
    }
    std::signal(SIGPIPE, SIG_IGN); // the TLS library writes with write(2)
    // A gateway that never answers the handshake must not hang the test.
    const timeval bound{10, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
    tls_ = std::make_unique<sf_lan::TlsClient>();
    if (!tls_->handshake(fd_, GW_ID, key, &why_)) {
        tls_.reset();
        return false;
    }
    const timeval none{0, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &none, sizeof none);
    return true;
}

bool LanPeer::send_line(const std::string &line) { return send_bytes(line + "\n"); }

bool LanPeer::send_bytes(const std::string &bytes)
{
    if (tls_) {
        return tls_->write_all(bytes);
    }
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

void LanPeer::shutdown_write()
{
    if (tls_) {
        tls_->shutdown_write();
    }
    ::shutdown(fd_, SHUT_WR);
}

bool LanPeer::read_line(std::string *line, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const size_t nl = buffer_.find('\n');
        if (nl != std::string::npos) {
            *line = buffer_.substr(0, nl);
            buffer_.erase(0, nl + 1);
            return true;
        }
        if (eof_) {
            return false;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd pfd{fd_, POLLIN, 0};
        if (!(tls_ && tls_->pending()) && ::poll(&pfd, 1, static_cast<int>(left.count())) <= 0) {
            continue;
        }
        char buf[4096];
        const ssize_t got = tls_ ? tls_->read(buf, sizeof buf) : ::recv(fd_, buf, sizeof buf, 0);
        if (got <= 0) {
            eof_ = true;
        } else {
            buffer_.append(buf, static_cast<size_t>(got));
        }
    }
}

bool LanPeer::closed_without_data(std::chrono::milliseconds timeout, std::string *got)
{
    std::string line;
    while (read_line(&line, timeout)) {
        *got += line + "\n";
    }
    *got += buffer_;
    return eof_ && got->empty();
}

} // namespace it
