/*
 * Connections to the LAN channel that never prove the key: each opened,
 * given its first bytes (none: silent), and reopened as soon as the
 * gateway closes it, on a thread of their own until destroyed.
 */
#ifndef IT_LAN_INTRUDERS_H
#define IT_LAN_INTRUDERS_H

#include <atomic>
#include <string>
#include <thread>

namespace it {

/* A blocking TCP connection to 127.0.0.1:port, or -1. */
int connect_raw(int port);

class Intruders {
public:
    Intruders(int port, int count, std::string first_bytes = std::string());
    ~Intruders();
    Intruders(const Intruders &) = delete;
    Intruders &operator=(const Intruders &) = delete;
    /* Connections opened so far. */
    int opened() const { return opened_.load(); }

private:
    void run(int port, int count);

    std::string first_bytes_;
    std::atomic<bool> stop_{false};
    std::atomic<int> opened_{0};
    std::thread thread_;
};

} // namespace it

#endif /* IT_LAN_INTRUDERS_H */
