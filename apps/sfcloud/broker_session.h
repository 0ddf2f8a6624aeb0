/*
 * The console's connection to a list of brokers (--broker, repeatable):
 * its own thread connects to the first, serves the connection with
 * mosquitto_loop, and on a failed connect or a lost connection moves to
 * the next with the gateway's rotation and back-off
 * (port/posix/mqtt/mqtt_brokers.h). Subscriptions are the owner's to make
 * again in its connect callback, which reports an accepted session with
 * accepted(). A persistent session (clean_session false) continues on the
 * next node of a cluster, which holds its queue.
 */
#ifndef SFCLOUD_BROKER_SESSION_H
#define SFCLOUD_BROKER_SESSION_H

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "common/description.h"
#include "gateway/sync/annotated_lock.h"
#include "port/posix/mqtt/mqtt_brokers.h"

struct mosquitto;

namespace sfcloud {

struct Options;

/* --broker (in order), else --host/--port, else the description's brokers, else its host and port. */
std::vector<sf_mqtt::Broker> broker_list(const Options &options, const apps::MqttSettings &defaults);

class BrokerSession {
public:
    BrokerSession() = default;
    ~BrokerSession() { stop(); }
    BrokerSession(const BrokerSession &) = delete;
    BrokerSession &operator=(const BrokerSession &) = delete;

    /* Start the thread on mosq (callbacks set, mosquitto_threaded_set done here). brokers MUST NOT be empty. */
    void start(mosquitto *mosq, std::vector<sf_mqtt::Broker> brokers);
    /* Disconnect and join the thread; mosq is then the caller's to destroy. Idempotent. */
    void stop();

    /* From the owner's connect callback (the session's thread) when the broker accepted: rc 0. */
    void accepted();

    /*
     * Wait until a session is accepted (true), or every broker of the list
     * failed once, or deadline: false with *why naming the last failure.
     */
    bool wait_first(std::chrono::steady_clock::time_point deadline, std::string *why);

    /* The broker of the session now, "" while none is up. Any thread. */
    std::string broker();

private:
    void run();

    mosquitto *mosq_ = nullptr;
    std::vector<sf_mqtt::Broker> brokers_;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> accepted_now_{false}; // this connection was accepted (session thread)
    sf_sync::Mutex mutex_;
    sf_sync::CondVar changed_;
    std::string in_use_ SF_GUARDED_BY(mutex_);
    std::string last_error_ SF_GUARDED_BY(mutex_);
    size_t failed_before_first_ SF_GUARDED_BY(mutex_) = 0;
    bool ever_accepted_ SF_GUARDED_BY(mutex_) = false;
};

} // namespace sfcloud

#endif /* SFCLOUD_BROKER_SESSION_H */
