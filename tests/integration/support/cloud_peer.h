/*
 * The cloud's side of the broker in a test: a libmosquitto client that
 * records every message on the gateway's topics and publishes commands.
 */
#ifndef IT_CLOUD_PEER_H
#define IT_CLOUD_PEER_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

struct mosquitto;
struct mosquitto_message;

namespace it {

struct Received {
    std::string topic;
    std::string payload;
};

class CloudPeer {
public:
    /*
     * With a client id the peer keeps a persistent session (QoS 1
     * subscription kept and messages queued by the broker while the peer
     * is away, also across a broker restart with persistence).
     */
    explicit CloudPeer(const std::string &persistent_id = "");
    ~CloudPeer();

    /* Connect to 127.0.0.1:port and subscribe to filter; waits for the subscription. */
    bool connect(int port, const std::string &filter, std::string *why);
    void disconnect();

    bool publish(const std::string &topic, const std::string &payload, int qos = 1);

    /* QoS 1 publications of this peer the broker has acknowledged so far. */
    size_t acknowledged();

    /* Copy of everything received so far. */
    std::vector<Received> received();

    /*
     * Wait until pred holds over everything received, at most timeout.
     * Returns the last pred result.
     */
    bool wait_until(const std::function<bool(const std::vector<Received> &)> &pred,
                    std::chrono::milliseconds timeout);

    /* Wait for a message whose payload contains text; returns it or an empty Received. */
    Received wait_for_payload(const std::string &text, std::chrono::milliseconds timeout);

private:
    static void on_message(mosquitto *, void *obj, const mosquitto_message *msg);
    static void on_subscribe(mosquitto *, void *obj, int, int, const int *);
    static void on_publish(mosquitto *, void *obj, int);

    mosquitto *mosq_ = nullptr;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Received> received_;
    bool subscribed_ = false;
    size_t acknowledged_ = 0;
};

} // namespace it

#endif /* IT_CLOUD_PEER_H */
