/*
 * A private mosquitto broker for one test: its own config and files in a
 * temporary directory, a free loopback port, started with `mosquitto -c`,
 * killed and cleaned up by the destructor.
 */
#ifndef IT_BROKER_H
#define IT_BROKER_H

#include <sys/types.h>

#include <string>

namespace it {

struct BrokerOptions {
    bool tls = false;              // server certificate from a throw-away CA made with openssl
    bool require_client_cert = false; // with tls: client.crt/client.key are made in dir()
    bool persistence = false;         // sessions survive a graceful stop (SIGTERM)
    std::string user;              // non-empty: anonymous clients are refused
    std::string password;
    bool deny_subscriptions = false; // every SUBSCRIBE is refused (dynamic-security plugin's default access)
    int max_queued_messages = 0;  // > 0: messages the broker queues per client beyond those in flight
};

class Broker {
public:
    explicit Broker(BrokerOptions options = {});
    ~Broker();
    Broker(const Broker &) = delete;
    Broker &operator=(const Broker &) = delete;

    /* Start (again, on the same port); false with a message on failure. */
    bool start(std::string *why);
    /*
     * Kill it and reap it: SIGKILL by default (nothing saved), SIGTERM when
     * graceful (a broker with persistence saves its sessions). Neither says
     * goodbye to the clients: their connections just drop.
     */
    void stop(bool graceful = false);

    /* Freeze it (SIGSTOP): connections stay open, nothing is answered. */
    void pause();
    void resume();

    int port() const { return port_; }
    const std::string &dir() const { return dir_; }
    std::string ca_file() const { return dir_ + "/ca.crt"; }

private:
    bool write_config(std::string *why);
    bool launch(std::string *why);

    BrokerOptions options_;
    std::string dir_;
    int port_ = 0;
    pid_t pid_ = -1;
    bool configured_ = false;
};

/* Run a shell command; true when it exits 0. Output goes to the log file given. */
bool run_command(const std::string &command);

/* A free TCP port on 127.0.0.1. */
int free_port();

/* Whether something accepts TCP connections on 127.0.0.1:port. */
bool port_open(int port);

} // namespace it

#endif /* IT_BROKER_H */
