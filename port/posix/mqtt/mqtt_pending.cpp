/*
 * The MQTT client's table of publications awaiting completion.
 */
#include "mqtt_pending.h"

#include <iterator>

#include "services/uni_rfc.h"
#include "port/posix/metrics/metrics.h"
#include "mqtt_config.h"

namespace sf_mqtt {

namespace {

/* Whether this thread is running completion callbacks (wait_settled_completed must not wait then). */
thread_local bool t_in_completion = false;

} // namespace

int PendingPublications::publish_and_record(const std::function<int(int *mid)> &publish, const Completion &c)
{
    unsigned long closes_before;
    unsigned long parked_before;
    {
        sf_sync::Guard hold(mutex_);
        if (!open_) {
            return CLOSED;
        }
        closes_before = closes_;
        parked_before = parked_;
        ++recording_;
    }
    int mid = 0;
    const int rc = publish(&mid);
    bool settled = false;
    {
        sf_sync::Guard hold(mutex_);
        settled = record_locked(rc, mid, c, closes_before, parked_before);
    }
    if (settled && on_settled_) {
        on_settled_();
    }
    return rc;
}

bool PendingPublications::record_locked(int rc, int mid, const Completion &c, unsigned long closes_before,
                                        unsigned long parked_before)
{
    bool settled = false;
    --recording_;
    if (rc == 0) {
        // An ack of this id parked after we began is ours; one parked
        // before is a stale message's that happened to share the id.
        auto early = early_acks_.find(mid);
        const bool acked = early != early_acks_.end() && early->second > parked_before;
        if (early != early_acks_.end()) {
            early_acks_.erase(early);
        }
        if (acked || closes_ != closes_before) {
            settled_.push_back({c, acked ? RC_OK : MQC_RC_CONN_LOST});
            ++settled_total_;
            settled = true;
        } else {
            by_mid_[mid] = c;
        }
    }
    if (recording_ == 0) {
        early_acks_.clear();
    }
    return settled;
}

void PendingPublications::park_early_ack(int mid)
{
    early_acks_[mid] = ++parked_;
    if (early_acks_.size() <= EARLY_ACK_LIMIT) {
        return;
    }
    // Keep the newer half.
    const unsigned long keep_after = parked_ - EARLY_ACK_LIMIT / 2;
    for (auto it = early_acks_.begin(); it != early_acks_.end();) {
        it = it->second <= keep_after ? early_acks_.erase(it) : std::next(it);
    }
}

bool PendingPublications::take(int mid, Completion *out)
{
    sf_sync::Guard hold(mutex_);
    return take_locked(mid, out);
}

bool PendingPublications::take_locked(int mid, Completion *out)
{
    auto found = by_mid_.find(mid);
    if (found == by_mid_.end()) {
        if (recording_ > 0) {
            park_early_ack(mid);
        }
        return false;
    }
    *out = found->second;
    by_mid_.erase(found);
    return true;
}

bool PendingPublications::settle_acked(int mid)
{
    {
        sf_sync::Guard hold(mutex_);
        Completion done;
        if (!take_locked(mid, &done)) {
            return false;
        }
        settled_.push_back({done, RC_OK});
        ++settled_total_;
    }
    if (on_settled_) {
        on_settled_();
    }
    return true;
}

void PendingPublications::settle(const std::vector<Completion> &done, OPERATE_RET op_ret)
{
    if (done.empty()) {
        return;
    }
    {
        sf_sync::Guard hold(mutex_);
        for (const Completion &one : done) {
            settled_.push_back({one, op_ret});
            ++settled_total_;
        }
    }
    if (on_settled_) {
        on_settled_();
    }
}

std::vector<Settled> PendingPublications::take_settled()
{
    std::vector<Settled> out;
    sf_sync::Guard hold(mutex_);
    out.swap(settled_);
    return out;
}

void PendingPublications::complete_settled()
{
    std::vector<Settled> out;
    unsigned long long upto = 0;
    {
        sf_sync::Guard hold(mutex_);
        out.swap(settled_);
        upto = settled_total_;
    }
    complete(out);
    {
        sf_sync::Guard hold(mutex_);
        completed_total_ = upto;
    }
    completed_cv_.notify_all();
}

bool PendingPublications::wait_settled_completed(std::chrono::milliseconds limit)
{
    if (t_in_completion) {
        return false;
    }
    sf_sync::Guard hold(mutex_);
    const unsigned long long target = settled_total_;
    return completed_cv_.wait_for(mutex_, limit,
                                  [this, target]() SF_REQUIRES(mutex_) { return completed_total_ >= target; });
}

std::vector<Completion> PendingPublications::take_expired(Clock::time_point now)
{
    std::vector<Completion> out;
    sf_sync::Guard hold(mutex_);
    for (auto it = by_mid_.begin(); it != by_mid_.end();) {
        if (it->second.deadline <= now) {
            out.push_back(it->second);
            it = by_mid_.erase(it);
        } else {
            ++it;
        }
    }
    return out;
}

void PendingPublications::open()
{
    sf_sync::Guard hold(mutex_);
    open_ = true;
}

std::vector<Completion> PendingPublications::close_and_take_all()
{
    {
        sf_sync::Guard hold(mutex_);
        open_ = false;
        ++closes_;
    }
    return take_all();
}

std::vector<Completion> PendingPublications::take_all()
{
    std::vector<Completion> out;
    sf_sync::Guard hold(mutex_);
    for (auto &entry : by_mid_) {
        out.push_back(entry.second);
    }
    by_mid_.clear();
    return out;
}

size_t PendingPublications::size()
{
    sf_sync::Guard hold(mutex_);
    return by_mid_.size();
}

void PendingPublications::complete(const Completion &done, OPERATE_RET op_ret)
{
    sf_metrics::publication_completed(op_ret, done.accepted);
    if (done.cb != nullptr) {
        const bool outer = t_in_completion;
        t_in_completion = true;
        done.cb(op_ret, done.prv_data);
        t_in_completion = outer;
    }
    if (done.block != nullptr) {
        put_rfc_data(done.block);
    }
}

void PendingPublications::complete(const std::vector<Settled> &settled)
{
    for (const Settled &one : settled) {
        complete(one.done, one.op_ret);
    }
}

void PendingPublications::complete(const std::vector<Completion> &done, OPERATE_RET op_ret)
{
    for (const Completion &one : done) {
        complete(one, op_ret);
    }
}

} // namespace sf_mqtt
