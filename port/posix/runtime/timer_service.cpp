/*
 * Timed messages. Their callbacks run on the dispatch thread (see
 * dispatch_loop.cpp); this file creates, arms and destroys them.
 *
 * After cmmod_release_tm_msg returns, the callback is not running and
 * will never run again: a release from another thread waits for a
 * callback in progress to return; a release from inside the callback
 * itself only marks the record, which the dispatcher frees afterwards.
 */
#include <new>

#include "dispatch_core.h"

using posix_rt::Dispatch;
using posix_rt::TimedMessage;

/* Nothing to start: the timers live on the dispatch thread. Idempotent. */
extern "C" OPERATE_RET system_timer_init(void)
{
    Dispatch &d = posix_rt::dispatch();
    sf_sync::Guard guard(d.lock);
    d.timer_service_up = true;
    return RC_OK;
}

/* RC_BAD_PARAM for a NULL cb or tm_msg; RC_NO_MEMORY. The record is not armed. */
extern "C" OPERATE_RET cmmod_cr_tm_msg_hand(TM_MSG_CB cb, void *data, TM_MSG_S **tm_msg)
{
    if (cb == nullptr || tm_msg == nullptr) {
        return RC_BAD_PARAM;
    }
    TimedMessage *timer = new (std::nothrow) TimedMessage();
    if (timer == nullptr) {
        return RC_NO_MEMORY;
    }
    Dispatch &d = posix_rt::dispatch();
    sf_sync::Guard guard(d.lock);
    timer->pub.timer = d.next_timer_id++;
    timer->pub.msgQueHandle = &d;
    timer->pub.cb = cb;
    timer->pub.msgID = NO_MSG_ID;
    timer->pub.data = data;
    d.timers.insert(timer);
    *tm_msg = &timer->pub;
    return RC_OK;
}

/*
 * RC_BAD_PARAM for an unknown or released tm_msg, an unknown timer_type,
 * or a TIMER_CYCLE period of 0 (it would never let the thread rest).
 * A TIMER_ONCE period of 0 fires as soon as the dispatch thread is free.
 * Timers armed while the dispatch thread is not running fire once it runs.
 */
extern "C" OPERATE_RET cmmod_start_tm_msg(TM_MSG_S *tm_msg, TIME_MS period_ms, TIMER_TYPE timer_type)
{
    if (tm_msg == nullptr || (timer_type != TIMER_ONCE && timer_type != TIMER_CYCLE) ||
        (timer_type == TIMER_CYCLE && period_ms == 0)) {
        return RC_BAD_PARAM;
    }
    TimedMessage *timer = reinterpret_cast<TimedMessage *>(tm_msg);
    Dispatch &d = posix_rt::dispatch();
    sf_sync::Guard guard(d.lock);
    if (d.timers.count(timer) == 0) {
        return RC_BAD_PARAM;
    }
    timer->armed = true;
    timer->type = timer_type;
    timer->period_ms = period_ms;
    timer->due = posix_rt::Clock::now() + std::chrono::milliseconds(period_ms);
    d.wake.notify_one();
    return RC_OK;
}

extern "C" void cmmod_release_tm_msg(TM_MSG_S *tm_msg)
{
    if (tm_msg == nullptr) {
        return;
    }
    TimedMessage *timer = reinterpret_cast<TimedMessage *>(tm_msg);
    Dispatch &d = posix_rt::dispatch();
    sf_sync::Guard held(d.lock);
    if (d.timers.erase(timer) == 0) {
        return; /* unknown or already released */
    }
    timer->armed = false;
    if (d.running_timer != timer) {
        delete timer;
        return;
    }
    timer->released = true; /* the dispatcher frees it once the callback returns */
    if (!posix_rt::on_dispatch_thread(d)) {
        d.settled.wait(d.lock, [&d, timer]() SF_REQUIRES(d.lock) { return d.running_timer != timer; });
    }
}
