/*
 * State shared by the message module and the timer service: one queue of
 * posted messages, the timed messages, and the one dispatch thread that
 * runs both, one job at a time, in posting or firing order.
 *
 * Everything here is guarded by Dispatch::lock. No handler or timed-message
 * callback ever runs with the lock held, so they may post, start and
 * release timed messages freely.
 */
#ifndef PORT_POSIX_DISPATCH_CORE_H
#define PORT_POSIX_DISPATCH_CORE_H

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <set>
#include <thread>

#include "services/uni_msg_queue.h"
#include "gateway/sync/annotated_lock.h"
#include "port/posix/posix_tunables.h"

namespace posix_rt {

using Clock = std::chrono::steady_clock;

struct QueuedMessage {
    MESSAGE msg;
    Clock::time_point posted; /* orders it against timed messages falling due */
};

/*
 * A timed message; the public record comes first so the two convert. The
 * fields after it are guarded by Dispatch::lock like the set that holds the
 * record; the record has no typed link to its Dispatch, so the analysis
 * cannot name that lock here, and every function touching them holds it
 * (SF_REQUIRES on the helpers, a Guard in the entry points).
 */
struct TimedMessage {
    TM_MSG_S pub;
    bool armed = false;
    TIMER_TYPE type = TIMER_ONCE;
    TIME_MS period_ms = 0;
    Clock::time_point due;
    bool released = false; /* released while its callback ran: freed by the dispatcher */
};

enum class RunState { Stopped, Running, Stopping };

struct Dispatch {
    sf_sync::Mutex lock;
    sf_sync::CondVar wake;    /* new work, a timer change, or a stop request */
    sf_sync::CondVar settled; /* a timed-message callback returned, or the thread ended */
    sf_sync::CondVar room;    /* the queue shrank, or a stop: posters waiting for room look again */
    std::deque<QueuedMessage> queue SF_GUARDED_BY(lock);
    const size_t limit = SF_DISPATCH_QUEUE_LIMIT; /* never changes, so read without the lock */
    size_t peak SF_GUARDED_BY(lock) = 0;    /* deepest the queue has been */
    size_t waiting SF_GUARDED_BY(lock) = 0; /* posters waiting for room */
    std::set<MSG_ID> allocated_ids SF_GUARDED_BY(lock);
    std::map<MSG_ID, MSG_CALLBACK> handlers SF_GUARDED_BY(lock);
    MSG_ID next_id SF_GUARDED_BY(lock) = 0;
    std::set<TimedMessage *> timers SF_GUARDED_BY(lock);
    TimedMessage *running_timer SF_GUARDED_BY(lock) = nullptr;
    TIMER_ID next_timer_id SF_GUARDED_BY(lock) = 0;
    bool timer_service_up SF_GUARDED_BY(lock) = false;
    RunState state SF_GUARDED_BY(lock) = RunState::Stopped;
    std::thread thread SF_GUARDED_BY(lock);
    std::thread::id thread_id SF_GUARDED_BY(lock);
};

/*
 * Set for the calling thread: a post that waits for room gives up with
 * RC_FAIL once *abort is true (the owner sets it, then calls
 * wake_room_waiters). NULL: wait until there is room or the dispatch stops.
 */
void set_post_abort(const std::atomic<bool> *abort);

/* Make every poster waiting for room look again (at its abort flag). Any thread. */
void wake_room_waiters();

/* The process-wide instance; never destroyed, so a thread still running at exit finds it intact. */
Dispatch &dispatch();

/* True when the caller runs on the dispatch thread. */
inline bool on_dispatch_thread(const Dispatch &d) SF_REQUIRES(d.lock)
{
    return d.state != RunState::Stopped && d.thread_id == std::this_thread::get_id();
}

} // namespace posix_rt

#endif /* PORT_POSIX_DISPATCH_CORE_H */
