#include "lan_intruders.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

namespace it {

int connect_raw(int port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

Intruders::Intruders(int port, int count, std::string first_bytes)
    : first_bytes_(std::move(first_bytes)), thread_([this, port, count] { run(port, count); })
{
}

Intruders::~Intruders()
{
    stop_.store(true);
    thread_.join();
}

void Intruders::run(int port, int count)
{
    std::vector<int> fds(static_cast<size_t>(count), -1);
    while (!stop_.load()) {
        for (int &fd : fds) {
            if (fd >= 0) {
                char byte;
                pollfd pfd{fd, POLLIN, 0};
                if (::poll(&pfd, 1, 0) > 0 && ::recv(fd, &byte, 1, MSG_DONTWAIT) <= 0) {
                    ::close(fd);
                    fd = -1;
                }
            }
            if (fd < 0 && (fd = connect_raw(port)) >= 0) {
                if (!first_bytes_.empty()) {
                    (void)!::send(fd, first_bytes_.data(), first_bytes_.size(), MSG_NOSIGNAL);
                }
                opened_.fetch_add(1);
            }
        }
        ::poll(nullptr, 0, 2); // the intruders' own pace, not a wait for the gateway
    }
    for (int fd : fds) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

} // namespace it
