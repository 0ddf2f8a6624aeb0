#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "link.h"

namespace sfcloud {

namespace {

constexpr int KEEPALIVE_MS = 60000;

int millis_until(Deadline deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

bool write_all(int fd, const std::string &text)
{
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

} // namespace

bool LanLink::write_text(const std::string &text) { return tls_ ? tls_->write_all(text) : write_all(fd_, text); }

ssize_t LanLink::read_some(char *buf, size_t len) { return tls_ ? tls_->read(buf, len) : ::recv(fd_, buf, len, 0); }

LanLink::~LanLink()
{
    tls_.reset();
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

bool LanLink::open(const std::string &host, int port, const std::string &key, Deadline deadline, std::string *why)
{
    const std::string where = host + ":" + std::to_string(port);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0 || found == nullptr) {
        *why = "cannot resolve the LAN address " + where;
        return false;
    }
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    const int rc = ::connect(fd_, found->ai_addr, found->ai_addrlen);
    ::freeaddrinfo(found);
    if (rc != 0) {
        *why = "cannot connect to the gateway's LAN channel at " + where + ": " + std::strerror(errno);
        return false;
    }
    if (!plain_) {
        // The handshake must not outlast the deadline: a gateway that never answers bounds it.
        const int left_ms = millis_until(deadline);
        const timeval bound{left_ms / 1000, (left_ms % 1000) * 1000};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
        tls_ = std::make_unique<sf_lan::TlsClient>();
        std::string tls_why;
        if (!tls_->handshake(fd_, gateway_id_, key, &tls_why)) {
            *why = "the LAN channel at " + where + " did not accept the local key of " + gateway_id_ + " (" +
                   tls_why + "; is its connection.lan.security \"plain\"? then use --lan-plain)";
            return false;
        }
        const timeval none{0, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &none, sizeof none);
    } else if (!write_text("{\"cmd\":\"auth\",\"key\":" + apps::json_quote(key) + "}\n")) {
        *why = "the LAN channel at " + where + " closed the connection";
        return false;
    }
    std::string line;
    if (!read_line(&line, deadline) || line.find("\"type\":1") == std::string::npos) {
        *why = "the LAN channel at " + where + " did not accept the local key";
        return false;
    }
    return true;
}

bool LanLink::send(const std::string &kind, const std::string &document, std::string *why)
{
    if (kind == "sim") {
        *why = "the simulator is not reachable over the LAN channel; use MQTT";
        return false;
    }
    if (!write_text("{\"cmd\":\"" + kind + "\",\"data\":" + document + "}\n")) {
        *why = "the LAN channel closed the connection";
        return false;
    }
    return true;
}

bool LanLink::read_line(std::string *line, Deadline deadline)
{
    for (;;) {
        const size_t end = buffer_.find('\n');
        if (end != std::string::npos) {
            *line = buffer_.substr(0, end);
            buffer_.erase(0, end + 1);
            return true;
        }
        // The gateway closes a client that stays silent for minutes, so a
        // long watch says an empty line (a keep-alive) once a minute.
        const int left = millis_until(deadline);
        const int wait = left < KEEPALIVE_MS ? left : KEEPALIVE_MS;
        pollfd p{fd_, POLLIN, 0};
        // Bytes the TLS library decrypted already are not in the socket any more.
        const int ready = tls_ && tls_->pending() ? 1 : ::poll(&p, 1, wait);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready == 0 && wait < left) {
            if (!write_text("\n")) {
                return false;
            }
            continue;
        }
        if (ready <= 0) {
            return false;
        }
        char chunk[4096];
        const ssize_t n = read_some(chunk, sizeof chunk);
        if (n <= 0) {
            return false;
        }
        buffer_.append(chunk, static_cast<size_t>(n));
    }
}

bool LanLink::next(Message *out, Deadline deadline)
{
    std::string line;
    while (read_line(&line, deadline)) {
        *out = Message();
        if (decode_lan(line, gateway_id_, out)) {
            return true;
        }
    }
    return false;
}

} // namespace sfcloud
