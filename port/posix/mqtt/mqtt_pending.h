/*
 * Publications of the MQTT client that wait for their completion.
 *
 * Every accepted publication with a completion callback has exactly one
 * entry, keyed by libmosquitto's message id, and the entry is taken out by
 * exactly one of: the broker's acknowledgement, its time limit, the loss
 * of the connection, or the client's stop. Whoever takes it calls the
 * callback, so each callback runs exactly once. libmosquitto re-sends
 * unacknowledged QoS 1 messages after a reconnect; their late
 * acknowledgements find no entry and are ignored.
 *
 * The table's lock is never held across a libmosquitto call: libmosquitto
 * runs our callbacks with its own mutexes held, and those callbacks take
 * this lock, so holding it across mosquitto_publish would make the pair a
 * lock-order deadlock waiting for libmosquitto's locking to change. A
 * publication is therefore recorded only after mosquitto_publish has
 * returned its id, and two things can happen in between: the
 * acknowledgement arrives first (it is parked as an "early ack" and the
 * recorder finds it), or the connection is lost (the recorder sees that a
 * close came after it began). Either way the publication is settled with
 * its result and completed by the client's expiry thread, woken at once
 * (a late "done" would mark values reported after it as confirmed: the
 * smart frame matches completions to DPs by id, not by value), never on
 * the publisher's thread.
 */
#ifndef SF_POSIX_MQTT_PENDING_H
#define SF_POSIX_MQTT_PENDING_H

#include <chrono>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "services/mqtt_client.h"
#include "gateway/sync/annotated_lock.h"

namespace sf_mqtt {

using Clock = std::chrono::steady_clock;

struct Completion {
    MQ_PUB_ASYNC_IFM_CB cb = nullptr;
    void *prv_data = nullptr;
    RFC_DATA_S *block = nullptr; /* a reference of the client's own, or null */
    Clock::time_point deadline;
    Clock::time_point accepted = Clock::now(); /* for the completion latency (metrics.h) */
};

/* A publication whose result is known but whose callback has not run yet. */
struct Settled {
    Completion done;
    OPERATE_RET op_ret;
};

class PendingPublications {
public:
    /* publish_and_record's result while the table is closed (no connection). */
    static constexpr int CLOSED = -100000;

    /*
     * Runs publish(&mid), without the table's lock, and records c under mid
     * when it returns 0; if the acknowledgement or the loss of the
     * connection came first, c is settled instead (take_settled). Returns
     * publish's result, or CLOSED without calling publish while the table
     * is closed.
     */
    int publish_and_record(const std::function<int(int *mid)> &publish, const Completion &c) SF_EXCLUDES(mutex_);

    /*
     * Called, without the table's lock, whenever a publication is settled:
     * the client wakes its expiry thread so that the callback runs at once
     * (a late "done" would confirm values reported after it). Set before use.
     */
    void on_settled(std::function<void()> wake) { on_settled_ = std::move(wake); }

    /* Accept publications from now on (the connection is up). */
    void open() SF_EXCLUDES(mutex_);

    /*
     * Refuse publications from now on and take every entry, in one step:
     * a publication is either recorded before the connection was lost (and
     * completed by its loss) or refused, never left waiting for its time limit.
     */
    std::vector<Completion> close_and_take_all() SF_EXCLUDES(mutex_);

    /*
     * The entry of an acknowledged message id, if there is one. Without
     * one while a publication is being recorded, the id is parked for that
     * recorder (it may be its own acknowledgement, come early).
     */
    bool take(int mid, Completion *out) SF_EXCLUDES(mutex_);

    /*
     * Settle the entry of an acknowledged message id with RC_OK, for the
     * expiry thread to complete (libmosquitto calls us with its callback
     * lock held: the smart frame is never entered from there). Without an
     * entry the id is parked as take() does. True when one was settled.
     */
    bool settle_acked(int mid) SF_EXCLUDES(mutex_);

    /* Settle done with op_ret, for the expiry thread to complete. */
    void settle(const std::vector<Completion> &done, OPERATE_RET op_ret) SF_EXCLUDES(mutex_);

    /* Publications settled and not completed yet; the expiry thread and the stop complete them. */
    std::vector<Settled> take_settled() SF_EXCLUDES(mutex_);

    /*
     * Complete every publication settled so far, in the order settled. One
     * thread at a time: the expiry thread, or the stop once it has ended.
     */
    void complete_settled() SF_EXCLUDES(mutex_);

    /*
     * Wait, at most limit, until every publication settled before the call
     * has been completed. A refused publication must not overtake them: the
     * smart frame marks a refused value "to re-send", and an older
     * publication's "done" completed after that would mark the newer value
     * confirmed although no broker has it. true when none is left; false
     * on time-out, and at once on a thread inside a completion (it would
     * wait for itself).
     */
    bool wait_settled_completed(std::chrono::milliseconds limit) SF_EXCLUDES(mutex_);

    /* Entries whose deadline is not after now. */
    std::vector<Completion> take_expired(Clock::time_point now) SF_EXCLUDES(mutex_);

    /* Every entry (connection lost, stop). */
    std::vector<Completion> take_all() SF_EXCLUDES(mutex_);

    size_t size() SF_EXCLUDES(mutex_);

    /*
     * Call each callback with op_ret, then drop the client's reference.
     * Callers hold no lock of the client: callbacks enter the smart frame.
     */
    static void complete(const std::vector<Completion> &done, OPERATE_RET op_ret);
    static void complete(const Completion &done, OPERATE_RET op_ret);
    static void complete(const std::vector<Settled> &settled);

private:
    /*
     * Early acks are parked only while someone records, and dropped when
     * nobody does; acknowledgements of messages nobody waits for (status,
     * query answers, re-sent ones) are parked too, so past this many the
     * oldest go. A recorder whose early ack was dropped keeps its entry and
     * is completed by its time limit: still exactly once.
     */
    static constexpr size_t EARLY_ACK_LIMIT = 256;

    void park_early_ack(int mid) SF_REQUIRES(mutex_);
    /* take(), lock held. */
    bool take_locked(int mid, Completion *out) SF_REQUIRES(mutex_);
    /* The second half of publish_and_record, lock held; true when c was settled. */
    bool record_locked(int rc, int mid, const Completion &c, unsigned long closes_before, unsigned long parked_before)
        SF_REQUIRES(mutex_);

    sf_sync::Mutex mutex_;
    bool open_ SF_GUARDED_BY(mutex_) = false;
    unsigned long closes_ SF_GUARDED_BY(mutex_) = 0; // a recorder that began before a close missed it
    int recording_ SF_GUARDED_BY(mutex_) = 0;        // publications between publish and record
    unsigned long parked_ SF_GUARDED_BY(mutex_) = 0; // early acks parked so far: their order
    std::map<int, unsigned long> early_acks_ SF_GUARDED_BY(mutex_); // message id -> order parked
    std::map<int, Completion> by_mid_ SF_GUARDED_BY(mutex_);
    std::vector<Settled> settled_ SF_GUARDED_BY(mutex_);
    unsigned long long settled_total_ SF_GUARDED_BY(mutex_) = 0;   // ever pushed to settled_
    unsigned long long completed_total_ SF_GUARDED_BY(mutex_) = 0; // of those, completed
    sf_sync::CondVar completed_cv_;
    // Set once before the client's threads start, read-only afterwards: called without the lock.
    std::function<void()> on_settled_;
};

} // namespace sf_mqtt

#endif /* SF_POSIX_MQTT_PENDING_H */
