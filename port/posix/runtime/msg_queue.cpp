/*
 * Queued messages: message ids, handler bindings and posting.
 *
 * The queue holds at most SF_DISPATCH_QUEUE_LIMIT messages: a post from
 * any thread but the dispatch thread waits for room (the channels feeding
 * it are held back, not the messages dropped), and a handler's own post is
 * taken at once, since the dispatch thread cannot wait for itself.
 *
 * Ids are handed out round-robin over 0..0xFFFE (0xFFFF means "none"), so
 * an id that was just freed is not reused at once, and a late message for
 * it cannot reach a new owner. Unregistering also drops the id's queued
 * messages, releasing their copies.
 */
#include <cstring>

#include "services/uni_memory.h"
#include "dispatch_core.h"
#include "port/posix/metrics/metrics.h"
#include "posix_runtime.h"

using posix_rt::Dispatch;
using posix_rt::RunState;

extern "C" OPERATE_RET cmmod_get_free_msgid(MSG_ID *mid)
{
    if (mid == nullptr) {
        return RC_BAD_PARAM;
    }
    Dispatch &d = posix_rt::dispatch();
    sf_sync::Guard guard(d.lock);
    for (unsigned tries = 0; tries < NO_MSG_ID; ++tries) {
        const MSG_ID candidate = d.next_id;
        d.next_id = static_cast<MSG_ID>(candidate + 1 == NO_MSG_ID ? 0 : candidate + 1);
        if (d.allocated_ids.insert(candidate).second) {
            *mid = candidate;
            return RC_OK;
        }
    }
    return RC_FAIL; /* every id is in use */
}

/* RC_BAD_PARAM for an id that was not handed out by cmmod_get_free_msgid, or a NULL cb. Re-binding replaces. */
extern "C" OPERATE_RET cmmod_reg_msgcb(MSG_ID mid, MSG_CALLBACK cb)
{
    if (cb == nullptr) {
        return RC_BAD_PARAM;
    }
    Dispatch &d = posix_rt::dispatch();
    sf_sync::Guard guard(d.lock);
    if (d.allocated_ids.count(mid) == 0) {
        return RC_BAD_PARAM;
    }
    d.handlers[mid] = cb;
    return RC_OK;
}

extern "C" void cmmod_unreg_msgcb(MSG_ID mid)
{
    Dispatch &d = posix_rt::dispatch();
    std::deque<posix_rt::QueuedMessage> dropped;
    {
        sf_sync::Guard guard(d.lock);
        d.handlers.erase(mid);
        d.allocated_ids.erase(mid);
        for (auto it = d.queue.begin(); it != d.queue.end();) {
            if (it->msg.msgID == mid) {
                dropped.push_back(*it);
                it = d.queue.erase(it);
            } else {
                ++it;
            }
        }
    }
    d.room.notify_all();
    for (const posix_rt::QueuedMessage &queued : dropped) {
        Free(queued.msg.pMsgData);
    }
}

namespace posix_rt {

namespace {

thread_local const std::atomic<bool> *t_post_abort = nullptr;

/*
 * Wait until the queue has room, the dispatch stops or the caller's abort
 * flag is set; false when it did not get room. The dispatch thread never
 * waits (it would wait for itself).
 */
bool wait_for_room(Dispatch &d) SF_REQUIRES(d.lock)
{
    if (d.queue.size() < d.limit || on_dispatch_thread(d)) {
        return true;
    }
    const std::atomic<bool> *abort = t_post_abort;
    ++d.waiting;
    d.room.wait(d.lock, [&d, abort]() SF_REQUIRES(d.lock) {
        return d.queue.size() < d.limit || d.state != RunState::Running || (abort != nullptr && abort->load());
    });
    --d.waiting;
    return d.queue.size() < d.limit && d.state == RunState::Running;
}

} // namespace

void set_post_abort(const std::atomic<bool> *abort) { t_post_abort = abort; }

void wake_room_waiters()
{
    Dispatch &d = dispatch();
    sf_sync::Guard guard(d.lock);
    d.room.notify_all();
}

} // namespace posix_rt

/*
 * Results: RC_OK; RC_BAD_PARAM for an id without a handler, or NULL data
 * with a non-zero len; RC_FAIL when the dispatch thread is not running (not
 * started, or stopping); RC_NO_MEMORY. A len of 0 queues a message whose
 * pMsgData is a valid block of no bytes (Free it all the same). While the
 * queue is full a caller other than the dispatch thread waits for room;
 * RC_FAIL when the dispatch stops meanwhile, or the caller's abort flag
 * (posix_rt::set_post_abort) is set.
 */
extern "C" OPERATE_RET cmmod_post_msg_malloc(MSG_ID mid, void *data, MSG_DATA_LEN len)
{
    if (data == nullptr && len != 0) {
        return RC_BAD_PARAM;
    }
    void *copy = Malloc(len);
    if (copy == nullptr) {
        return RC_NO_MEMORY;
    }
    if (len != 0) {
        std::memcpy(copy, data, len);
    }
    Dispatch &d = posix_rt::dispatch();
    OPERATE_RET result = RC_OK;
    {
        sf_sync::Guard held(d.lock);
        if (d.handlers.count(mid) == 0) {
            result = RC_BAD_PARAM;
        } else if (d.state != RunState::Running || !posix_rt::wait_for_room(d)) {
            result = RC_FAIL;
        } else if (d.handlers.count(mid) == 0) {
            result = RC_BAD_PARAM; /* unregistered while waiting */
        } else {
            d.queue.push_back({MESSAGE{mid, copy, len}, posix_rt::Clock::now()});
            sf_metrics::dispatch_depth(d.queue.size());
            d.peak = d.queue.size() > d.peak ? d.queue.size() : d.peak;
            d.wake.notify_one();
        }
    }
    if (result != RC_OK) {
        Free(copy);
    }
    return result;
}

extern "C" void cmmod_get_queue_stat(CMMOD_QUEUE_STAT_S *stat)
{
    if (stat == nullptr) {
        return;
    }
    Dispatch &d = posix_rt::dispatch();
    sf_sync::Guard guard(d.lock);
    stat->depth = static_cast<UINT_T>(d.queue.size());
    stat->peak = static_cast<UINT_T>(d.peak);
    stat->limit = static_cast<UINT_T>(d.limit);
    stat->waiting = static_cast<UINT_T>(d.waiting);
}
