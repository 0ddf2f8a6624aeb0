/*
 * The MQTT client's table of publications awaiting completion.
 */
#include "mqtt_pending.h"

#include "../../services/uni_rfc.h"

namespace sf_mqtt {

int PendingPublications::publish_and_record(const std::function<int(int *mid)> &publish, const Completion &c)
{
    std::lock_guard<std::mutex> hold(mutex_);
    if (!open_) {
        return CLOSED;
    }
    int mid = 0;
    const int rc = publish(&mid);
    if (rc == 0) {
        by_mid_[mid] = c;
    }
    return rc;
}

bool PendingPublications::take(int mid, Completion *out)
{
    std::lock_guard<std::mutex> hold(mutex_);
    auto found = by_mid_.find(mid);
    if (found == by_mid_.end()) {
        return false;
    }
    *out = found->second;
    by_mid_.erase(found);
    return true;
}

std::vector<Completion> PendingPublications::take_expired(Clock::time_point now)
{
    std::vector<Completion> out;
    std::lock_guard<std::mutex> hold(mutex_);
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
    std::lock_guard<std::mutex> hold(mutex_);
    open_ = true;
}

std::vector<Completion> PendingPublications::close_and_take_all()
{
    {
        std::lock_guard<std::mutex> hold(mutex_);
        open_ = false;
    }
    return take_all();
}

std::vector<Completion> PendingPublications::take_all()
{
    std::vector<Completion> out;
    std::lock_guard<std::mutex> hold(mutex_);
    for (auto &entry : by_mid_) {
        out.push_back(entry.second);
    }
    by_mid_.clear();
    return out;
}

size_t PendingPublications::size()
{
    std::lock_guard<std::mutex> hold(mutex_);
    return by_mid_.size();
}

void PendingPublications::complete(const Completion &done, OPERATE_RET op_ret)
{
    if (done.cb != nullptr) {
        done.cb(op_ret, done.prv_data);
    }
    if (done.block != nullptr) {
        put_rfc_data(done.block);
    }
}

void PendingPublications::complete(const std::vector<Completion> &done, OPERATE_RET op_ret)
{
    for (const Completion &one : done) {
        complete(one, op_ret);
    }
}

} // namespace sf_mqtt
