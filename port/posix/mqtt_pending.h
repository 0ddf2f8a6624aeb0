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
 */
#ifndef SF_POSIX_MQTT_PENDING_H
#define SF_POSIX_MQTT_PENDING_H

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <vector>

#include "../../services/mqtt_client.h"

namespace sf_mqtt {

using Clock = std::chrono::steady_clock;

struct Completion {
    MQ_PUB_ASYNC_IFM_CB cb = nullptr;
    void *prv_data = nullptr;
    RFC_DATA_S *block = nullptr; /* a reference of the client's own, or null */
    Clock::time_point deadline;
};

class PendingPublications {
public:
    /* publish_and_record's result while the table is closed (no connection). */
    static constexpr int CLOSED = -100000;

    /*
     * Runs publish(&mid) with the table locked and records c under mid when
     * it returns 0. The lock spans the call because libmosquitto's network
     * thread can acknowledge the message before publish returns its id:
     * the acknowledgement then waits here and finds the entry. publish must
     * not call back into this table. Returns publish's result, or CLOSED
     * without calling publish while the table is closed.
     */
    int publish_and_record(const std::function<int(int *mid)> &publish, const Completion &c);

    /* Accept publications from now on (the connection is up). */
    void open();

    /*
     * Refuse publications from now on and take every entry, in one step:
     * a publication is either recorded before the connection was lost (and
     * completed by its loss) or refused, never left waiting for its time limit.
     */
    std::vector<Completion> close_and_take_all();

    /* The entry of an acknowledged message id, if there is one. */
    bool take(int mid, Completion *out);

    /* Entries whose deadline is not after now. */
    std::vector<Completion> take_expired(Clock::time_point now);

    /* Every entry (connection lost, stop). */
    std::vector<Completion> take_all();

    size_t size();

    /*
     * Call each callback with op_ret, then drop the client's reference.
     * Callers hold no lock of the client: callbacks enter the smart frame.
     */
    static void complete(const std::vector<Completion> &done, OPERATE_RET op_ret);
    static void complete(const Completion &done, OPERATE_RET op_ret);

private:
    std::mutex mutex_;
    bool open_ = false;
    std::map<int, Completion> by_mid_;
};

} // namespace sf_mqtt

#endif /* SF_POSIX_MQTT_PENDING_H */
