/*
 * The dispatch thread: start, the loop, and the clean stop.
 *
 * Order of jobs: a timed message that fell due at time T runs before a
 * message posted after T and after one posted before T. So everything runs
 * in the order it was posted or fell due, and a busy queue cannot starve
 * the timers (nor the other way round).
 */
#define SF_LOG_MODULE SF_LOG_MODULE_RUNTIME
#include <pthread.h>

#include "services/log_front.h"
#include "services/uni_memory.h"
#include "dispatch_core.h"
#include "port/posix/metrics/metrics.h"
#include "posix_runtime.h"
#include "gateway/registry/registry_hooks.h"

namespace posix_rt {

Dispatch &dispatch()
{
    static Dispatch &d = *new Dispatch();
    return d;
}

namespace {

/* The armed timed message due first, or nullptr. */
TimedMessage *earliest_timer(Dispatch &d) SF_REQUIRES(d.lock)
{
    TimedMessage *first = nullptr;
    for (TimedMessage *timer : d.timers) {
        if (timer->armed && (first == nullptr || timer->due < first->due)) {
            first = timer;
        }
    }
    return first;
}

/* Runs the callback without the lock; returns holding it again. */
void run_timer(Dispatch &d, TimedMessage *timer, Clock::time_point now) SF_REQUIRES(d.lock)
{
    if (timer->type == TIMER_CYCLE) {
        timer->due += std::chrono::milliseconds(timer->period_ms);
        if (timer->due <= now) {
            /* the thread was held up for more than a period: skip the lost
             * beats instead of firing them back to back */
            timer->due = now + std::chrono::milliseconds(timer->period_ms);
        }
    } else {
        timer->armed = false;
    }
    d.running_timer = timer;
    const TM_MSG_CB cb = timer->pub.cb;
    d.lock.unlock();
    if (cb != nullptr) {
        cb(&timer->pub);
    }
    d.lock.lock();
    d.running_timer = nullptr;
    if (timer->released) {
        delete timer;
    }
    d.settled.notify_all();
}

/* Runs the handler without the lock; returns holding it again. */
void run_message(Dispatch &d) SF_REQUIRES(d.lock)
{
    MESSAGE msg = d.queue.front().msg;
    d.queue.pop_front();
    sf_metrics::dispatch_handled(d.queue.size());
    if (d.waiting != 0) {
        d.room.notify_one();
    }
    auto handler = d.handlers.find(msg.msgID);
    const MSG_CALLBACK cb = handler != d.handlers.end() ? handler->second : nullptr;
    d.lock.unlock();
    if (cb != nullptr) {
        cb(&msg);
    } else {
        Free(msg.pMsgData); /* unregistered meanwhile: nobody else will release the copy */
    }
    d.lock.lock();
}

void dispatch_main(Dispatch *d)
{
    pthread_setname_np(pthread_self(), "sf-dispatch");
    sf_sync::Guard held(d->lock);
    for (;;) {
        if (d->state == RunState::Stopping) {
            /* drain what was posted before the stop; timers no longer fire */
            if (d->queue.empty()) {
                break;
            }
            run_message(*d);
            continue;
        }
        const Clock::time_point now = Clock::now();
        TimedMessage *timer = earliest_timer(*d);
        const bool timer_due = timer != nullptr && timer->due <= now;
        if (timer_due && (d->queue.empty() || timer->due <= d->queue.front().posted)) {
            run_timer(*d, timer, now);
        } else if (!d->queue.empty()) {
            run_message(*d);
        } else if (timer != nullptr) {
            /* a copy: the timer may be released while the lock is dropped */
            const Clock::time_point due = timer->due;
            d->wake.wait_until(d->lock, due);
        } else {
            d->wake.wait(d->lock);
        }
    }
}

} // namespace
} // namespace posix_rt

using posix_rt::Dispatch;
using posix_rt::RunState;

extern "C" OPERATE_RET cmmod_init(void)
{
    Dispatch &d = posix_rt::dispatch();
    sf_sync::Guard guard(d.lock);
    if (d.state == RunState::Running) {
        return RC_OK;
    }
    if (d.state == RunState::Stopping) {
        return RC_FAIL; /* a stop is under way on another thread */
    }
    d.state = RunState::Running;
    d.thread = std::thread(posix_rt::dispatch_main, &d);
    d.thread_id = d.thread.get_id();
    return RC_OK;
}

extern "C" void cmmod_stop(void)
{
    Dispatch &d = posix_rt::dispatch();
    sf_sync::Guard held(d.lock);
    if (posix_rt::on_dispatch_thread(d)) {
        held.unlock();
        SF_LOG_ERR("called on the dispatch thread, which cannot join itself");
        return;
    }
    if (d.state == RunState::Stopping) {
        d.settled.wait(d.lock, [&d]() SF_REQUIRES(d.lock) { return d.state == RunState::Stopped; });
        return;
    }
    if (d.state != RunState::Running) {
        return;
    }
    d.state = RunState::Stopping;
    d.wake.notify_all();
    d.room.notify_all(); /* waiting posters give up */
    std::thread thread = std::move(d.thread);
    held.unlock();
    thread.join();
    held.lock();
    d.state = RunState::Stopped;
    d.thread_id = std::thread::id();
    d.settled.notify_all();
}

extern "C" BOOL_T cmmod_on_dispatch_thread(void)
{
    Dispatch &d = posix_rt::dispatch();
    sf_sync::Guard guard(d.lock);
    return posix_rt::on_dispatch_thread(d) ? TRUE : FALSE;
}

/* The registry's reclaim asks this: a stopped dispatch thread can hold no removed node. */
extern "C" BOOL_T sf_dispatch_stopped(void)
{
    Dispatch &d = posix_rt::dispatch();
    sf_sync::Guard guard(d.lock);
    return d.state == RunState::Stopped ? TRUE : FALSE;
}
