#include "lan_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace it {

LAN_STATS_S lan_stats_now()
{
    LAN_STATS_S out{};
    lan_stats(&out);
    return out;
}

LanPeer::~LanPeer() { close(); }

void LanPeer::close()
{
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

bool LanPeer::connect(int port)
{
    open_socket();
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    return ::connect(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
}

bool LanPeer::send_line(const std::string &line)
{
    const std::string framed = line + "\n";
    return ::send(fd_, framed.data(), framed.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(framed.size());
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
        if (::poll(&pfd, 1, static_cast<int>(left.count())) <= 0) {
            continue;
        }
        char buf[4096];
        const ssize_t got = ::recv(fd_, buf, sizeof buf, 0);
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
