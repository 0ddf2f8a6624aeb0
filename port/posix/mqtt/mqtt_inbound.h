/*
 * The MQTT client's inbound thread: documents received on the command
 * topics are queued by libmosquitto's network thread and parsed and handed
 * to the smart frame here, so that neither parsing nor the application's
 * query callback ever holds up acknowledgements (a synchronous report made
 * from the query callback waits for an acknowledgement that only the
 * network thread can deliver).
 *
 * Bounds: libmosquitto acknowledges a QoS 1 command as it reads it, so a
 * command that reached push() is one the broker considers delivered and is
 * never dropped for want of room. Memory is bounded instead by reading
 * less: the network thread reads its socket only while accepts() says so
 * (the broker holds the rest), and the worker waits for room in the
 * dispatch queue rather than losing a command there. What push() may still
 * shed is counted and logged: a document over the byte limit (MQTT 3.1.1
 * only; under MQTT 5 the broker never sends one) and a QoS 0 command past
 * the reserve.
 */
#ifndef SF_POSIX_MQTT_INBOUND_H
#define SF_POSIX_MQTT_INBOUND_H

#include <atomic>
#include <chrono>
#include <deque>
#include <string>
#include <thread>

#include "gateway/sync/annotated_lock.h"
#include "services/uni_msg_queue.h"
#include "gateway/edge/wire_commands.h"

namespace sf_mqtt {

class InboundWorker {
public:
    /*
     * Limits of one document (bytes, nesting depth); the queue's soft
     * limit (reading stops there) and the reserve read past it only for
     * what the client waits for.
     */
    InboundWorker(size_t max_bytes, size_t max_depth, size_t limit, size_t reserve);
    ~InboundWorker();

    void start() SF_EXCLUDES(mutex_);
    /*
     * Drops what is still queued and joins the thread, also when it waits
     * for room in the dispatch queue. Idempotent.
     */
    void stop() SF_EXCLUDES(mutex_);

    /*
     * Queue a copy of payload for kind; network thread. Never blocks.
     * Oversized payloads, and QoS 0 ones past the reserve, are logged,
     * counted and dropped. seq: its row in the command journal, or 0;
     * expires_ms: POSIX milliseconds after which it is dropped unapplied,
     * or 0.
     */
    void push(sf_wire::CmdKind kind, const void *payload, size_t len, int qos, int64_t seq = 0,
              int64_t expires_ms = 0) SF_EXCLUDES(mutex_);

    /* Whether a payload of len bytes is within the byte limit (else push drops it). */
    bool fits(size_t len) const { return len <= max_bytes_; }

    /*
     * The dispatch message (services/uni_msg_queue.h) posted behind each
     * journaled command, whose handler marks it applied; 0: marked as soon
     * as it is handed to the smart frame. Before start().
     */
    void set_done_message(MSG_ID mid) { done_msg_ = mid; }

    /*
     * Commands are handed on only while *open is true (NULL: always):
     * the MQTT client opens it once its session is up, so the answer a
     * command gets (a report, a refusal) has a connection to go out on.
     * A persistent session delivers queued commands right after CONNACK,
     * before the SUBACK that opens the gate. Before start().
     */
    void set_gate(const std::atomic<bool> *open) { gate_ = open; }

    /* The gate opened: look at the queue again. Any thread. */
    void poke() SF_EXCLUDES(mutex_);

    /*
     * Whether the network thread may read its socket: below the limit, or
     * below limit + reserve when it reads on for something it waits for
     * (an acknowledgement, a ping answer).
     */
    bool accepts(bool waits_for_answer) SF_EXCLUDES(mutex_);

    /* Wait up to span for the queue to go below its limit (network thread, reading held). */
    void wait_for_room(std::chrono::milliseconds span) SF_EXCLUDES(mutex_);

    size_t depth() SF_EXCLUDES(mutex_);
    size_t dropped() const { return dropped_.load(); }
    size_t limit() const { return limit_; }
    size_t reserve() const { return reserve_; }

private:
    struct Item {
        sf_wire::CmdKind kind;
        std::string payload;
        int64_t seq = 0;
        int64_t expires_ms = 0;
    };
    void run() SF_EXCLUDES(mutex_);
    void hand_over(Item &item);
    void applied(int64_t seq);

    const size_t max_bytes_;
    const size_t max_depth_;
    const size_t limit_;
    const size_t reserve_;
    sf_sync::Mutex mutex_;
    sf_sync::CondVar wake_; // work for the worker
    sf_sync::CondVar room_; // the queue shrank, for the held network thread
    std::deque<Item> queue_ SF_GUARDED_BY(mutex_);
    bool stopping_ SF_GUARDED_BY(mutex_) = false;
    std::atomic<bool> abort_{false}; // ends the worker's wait for dispatch room
    std::atomic<size_t> dropped_{0};
    MSG_ID done_msg_ = 0;
    const std::atomic<bool> *gate_ = nullptr;
    std::thread thread_;
};

} // namespace sf_mqtt

#endif /* SF_POSIX_MQTT_INBOUND_H */
