/*
 * Parsing and hand-over of inbound MQTT commands, off the network thread.
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include "mqtt_inbound.h"

#include <chrono>

#include "port/posix/metrics/metrics.h"
#include "port/posix/posix_tunables.h"
#include "port/posix/runtime/dispatch_core.h"
#include "port/posix/state/command_journal.h"
#include "gateway/edge/wire_json.h"
#include "services/log_front.h"

namespace sf_mqtt {

InboundWorker::InboundWorker(size_t max_bytes, size_t max_depth, size_t limit, size_t reserve)
    : max_bytes_(max_bytes), max_depth_(max_depth), limit_(limit), reserve_(reserve)
{
}

InboundWorker::~InboundWorker() { stop(); }

void InboundWorker::start()
{
    {
        // Before the worker and the network thread exist: nobody waits for the lock here.
        sf_sync::Guard hold(mutex_);
        stopping_ = false;
    }
    abort_ = false;
    thread_ = std::thread([this] { run(); });
}

void InboundWorker::stop()
{
    {
        sf_sync::Guard hold(mutex_);
        stopping_ = true;
        queue_.clear();
    }
    abort_ = true;
    posix_rt::wake_room_waiters();
    wake_.notify_all();
    room_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void InboundWorker::push(sf_wire::CmdKind kind, const void *payload, size_t len, int qos, int64_t seq,
                         int64_t expires_ms)
{
    if (len > max_bytes_) {
        sf_metrics::count(sf_metrics::InboundDroppedOversize);
        const size_t count = ++dropped_;
        SF_LOG_ERR("%s command dropped: %zu bytes, at most %zu accepted (%zu inbound commands dropped)",
                   sf_wire::cmd_kind_name(kind), len, max_bytes_, count);
        return;
    }
    {
        sf_sync::Guard hold(mutex_);
        if (stopping_) {
            return;
        }
        // A QoS 1 command is acknowledged already: it is kept whatever the
        // fill. One of QoS 0 carries no promise and may go.
        if (qos == 0 && queue_.size() >= limit_ + reserve_) {
            sf_metrics::count(sf_metrics::InboundDroppedQueueFull);
            const size_t count = ++dropped_;
            SF_LOG_ERR("%s command dropped: QoS 0 and %zu commands already waiting (%zu inbound commands dropped)",
                       sf_wire::cmd_kind_name(kind), queue_.size(), count);
            return;
        }
        queue_.push_back(Item{kind, std::string(static_cast<const char *>(payload), len), seq, expires_ms});
    }
    wake_.notify_one();
}

bool InboundWorker::accepts(bool waits_for_answer)
{
    sf_sync::Guard hold(mutex_);
    return queue_.size() < limit_ || (waits_for_answer && queue_.size() < limit_ + reserve_);
}

void InboundWorker::wait_for_room(std::chrono::milliseconds span)
{
    sf_sync::Guard hold(mutex_);
    room_.wait_for(mutex_, span, [this]() SF_REQUIRES(mutex_) { return stopping_ || queue_.size() < limit_; });
}

void InboundWorker::poke()
{
    {
        sf_sync::Guard hold(mutex_);
    }
    wake_.notify_all();
}

size_t InboundWorker::depth()
{
    sf_sync::Guard hold(mutex_);
    return queue_.size();
}

void InboundWorker::applied(int64_t seq)
{
    if (seq <= 0) {
        return;
    }
    // Behind the command on the dispatch queue: marked once the smart frame
    // has run it (and with it the application's callback).
    if (done_msg_ == 0 || cmmod_post_msg_malloc(done_msg_, &seq, sizeof seq) != RC_OK) {
        sf_state::journal::done(seq);
    }
}

void InboundWorker::hand_over(Item &item)
{
    if (item.expires_ms != 0) {
        const int64_t now = std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::system_clock::now().time_since_epoch())
                                .count();
        if (now >= item.expires_ms) {
            sf_metrics::count(sf_metrics::CommandsExpired);
            SF_LOG_WARN("%s command dropped: its MQTT message expiry passed %lld ms ago while it waited [expired]",
                        sf_wire::cmd_kind_name(item.kind), static_cast<long long>(now - item.expires_ms));
            sf_state::journal::done(item.seq);
            return;
        }
    }
    const char *why = "";
    cJSON *doc = sf_wire::parse_bounded(item.payload.data(), item.payload.size(), max_bytes_, max_depth_, &why);
    if (doc == nullptr) {
        sf_metrics::inbound_refused(why);
        SF_LOG_ERR("%s command dropped: %s", sf_wire::cmd_kind_name(item.kind), why);
        sf_state::journal::done(item.seq);
        return;
    }
    sf_wire::dispatch_command(item.kind, doc, DP_CMD_MQ);
    applied(item.seq);
}

void InboundWorker::run()
{
    // A post that waits for room in the full dispatch queue gives up when we stop.
    posix_rt::set_post_abort(&abort_);
    const auto flush_every = std::chrono::milliseconds(SF_MQTT_JOURNAL_FLUSH_MS);
    auto last_flush = std::chrono::steady_clock::now();
    for (;;) {
        Item item;
        bool got = false;
        {
            sf_sync::Guard hold(mutex_);
            const auto ready = [this]() SF_REQUIRES(mutex_) {
                return !queue_.empty() && (gate_ == nullptr || gate_->load());
            };
            wake_.wait_for(mutex_, flush_every, [this, &ready]() SF_REQUIRES(mutex_) { return stopping_ || ready(); });
            if (stopping_) {
                return;
            }
            if (ready()) {
                item = std::move(queue_.front());
                queue_.pop_front();
                got = true;
            }
        }
        if (got) {
            room_.notify_all();
            hand_over(item);
        }
        // Deleting applied commands from the journal: when idle, or at
        // least every flush_every under a steady stream.
        const auto now = std::chrono::steady_clock::now();
        if (!got || now - last_flush >= flush_every) {
            sf_state::journal::flush();
            last_flush = now;
        }
    }
}

} // namespace sf_mqtt
