/*
 * When a removed device node may be freed.
 *
 * The smart frame gets bare node pointers from the lookups and has no call
 * to give them back, so the registry cannot count users. It frees a node
 * only when both hold:
 *
 *   - the dispatch thread has been between two jobs since the removal.
 *     That is where the module holds a node for an unbounded time: a DP
 *     handler calls the application with the node in hand, and the
 *     application may take as long as it likes, or even remove the very
 *     device (the handler goes on with the node afterwards). The heartbeat
 *     pass, the DP sync and the presence batches also walk the list there.
 *     A timed message of 0 ms armed after the removal runs only once the
 *     job in progress has returned, so when it runs, no dispatch job can
 *     still hold the node (the node was out of the list and the index
 *     before it was armed, so later jobs cannot find it). With the
 *     dispatch thread stopped there is no such job at all.
 *   - the grace period has passed since the removal. It bounds the users
 *     on threads the registry cannot watch: an application thread inside
 *     one report call, a channel thread inside one completion. Each holds a
 *     node for one operation, far shorter than the grace period.
 *
 * Epoch reclamation over every thread would need a "done" call from the
 * module, which the registry's C interface does not have; this pairs the
 * one thread that can hold a node indefinitely with a quiescent point we
 * can observe, and bounds the rest by time.
 */
#include "services/uni_msg_queue.h"
#include "services/uni_time_queue.h"
#include "registry_hooks.h"
#include "registry_internal.h"
#include "registry_node.h"

namespace gw_registry {
namespace detail {

namespace {

/* Dispatch thread, between jobs: every removal numbered so far is behind it. */
void dispatch_passed(TM_MSG_S *)
{
    Store &s = store();
    sf_sync::Guard guard(s.index_lock);
    s.dispatch_passed = s.retire_epoch;
}

/* The probe, created once; nullptr when it cannot be (removed nodes then wait for unload). */
TM_MSG_S *probe()
{
    static TM_MSG_S *const created = [] {
        TM_MSG_S *tm = nullptr;
        return cmmod_cr_tm_msg_hand(dispatch_passed, nullptr, &tm) == RC_OK ? tm : nullptr;
    }();
    return created;
}

} // namespace

void watch_dispatch()
{
    if (TM_MSG_S *tm = probe()) {
        /* a restart of an armed probe is fine: its one run covers every removal before it */
        cmmod_start_tm_msg(tm, 0, TIMER_ONCE);
    }
}

} // namespace detail

size_t reclaim()
{
    detail::Store &s = detail::store();
    const bool no_dispatch_job = sf_dispatch_stopped() == TRUE;
    std::vector<DEV_CNTL_N_S *> expired;
    {
        sf_sync::Guard guard(s.index_lock);
        const auto now = std::chrono::steady_clock::now();
        /* in removal order: the first one that must stay keeps the later ones too */
        while (!s.retired.empty() && now - s.retired.front().since >= s.grace &&
               (no_dispatch_job || s.retired.front().epoch <= s.dispatch_passed)) {
            expired.push_back(s.retired.front().node);
            s.retired.pop_front();
        }
    }
    for (DEV_CNTL_N_S *node : expired) {
        detail::free_node(node);
    }
    return expired.size();
}

} // namespace gw_registry
