/*
 * A connection of the apps to a list of brokers: the console's
 * (sfcloud --broker, repeatable) and the gateway simulator's. Its own
 * thread connects to the first broker, serves the connection with
 * mosquitto_loop, and on a failed connect or a lost connection moves to
 * the next with the gateway client's rotation and back-off
 * (port/posix/mqtt/mqtt_brokers.h). Subscriptions are the owner's to make
 * again in its connect callback, which reports an accepted session with
 * accepted(). A persistent session (clean_session false) continues on the
 * next node of a cluster, which holds its queue.
 */
#ifndef APPS_COMMON_BROKER_SESSION_H
#define APPS_COMMON_BROKER_SESSION_H

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "common/description.h"
#include "gateway/sync/annotated_lock.h"
#include "port/posix/mqtt/mqtt_brokers.h"

struct mosquitto;

namespace apps {

/* The description's brokers (connection.mqtt.brokers), else its host and port. */
std::vector<sf_mqtt::Broker> brokers_of(const MqttSettings &mqtt);

class BrokerSession {
public:
    /* A session was accepted by another broker than the previous one ("host:port" each). */
    using Change = std::function<void(const std::string &from, const std::string &to)>;

    BrokerSession() = default;
    ~BrokerSession() { stop(); }
    BrokerSession(const BrokerSession &) = delete;
    BrokerSession &operator=(const BrokerSession &) = delete;

    /*
     * Start the thread on mosq (callbacks set; mosquitto_threaded_set is
     * done here). brokers MUST NOT be empty. on_change runs on the
     * session's thread.
     */
    void start(mosquitto *mosq, std::vector<sf_mqtt::Broker> brokers, Change on_change = {});
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
    Change on_change_;
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

} // namespace apps

#endif /* APPS_COMMON_BROKER_SESSION_H */
