/*
 * The MQTT client's inbound thread: documents received on the command
 * topics are queued by libmosquitto's network thread and parsed and handed
 * to the smart frame here, so that neither parsing nor the application's
 * query callback ever holds up acknowledgements (a synchronous report made
 * from the query callback waits for an acknowledgement that only the
 * network thread can deliver).
 */
#ifndef SF_POSIX_MQTT_INBOUND_H
#define SF_POSIX_MQTT_INBOUND_H

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "wire_commands.h"

namespace sf_mqtt {

class InboundWorker {
public:
    /* Limits of one document (bytes, nesting depth) and of the queue. */
    InboundWorker(size_t max_bytes, size_t max_depth, size_t max_queued);
    ~InboundWorker();

    void start();
    /* Drops what is still queued and joins the thread. Idempotent. */
    void stop();

    /*
     * Queue a copy of payload for kind; called on the network thread.
     * Oversized payloads and a full queue are logged and dropped at once.
     */
    void push(sf_wire::CmdKind kind, const void *payload, size_t len);

private:
    struct Item {
        sf_wire::CmdKind kind;
        std::string payload;
    };
    void run();

    const size_t max_bytes_;
    const size_t max_depth_;
    const size_t max_queued_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Item> queue_;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace sf_mqtt

#endif /* SF_POSIX_MQTT_INBOUND_H */
