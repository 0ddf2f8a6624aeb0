/*
 * Parsing and hand-over of inbound MQTT commands, off the network thread.
 */
#include "mqtt_inbound.h"

#include "channel_log.h"
#include "metrics.h"
#include "wire_json.h"

namespace sf_mqtt {

InboundWorker::InboundWorker(size_t max_bytes, size_t max_depth, size_t max_queued)
    : max_bytes_(max_bytes), max_depth_(max_depth), max_queued_(max_queued)
{
}

InboundWorker::~InboundWorker() { stop(); }

void InboundWorker::start()
{
    stopping_ = false;
    thread_ = std::thread([this] { run(); });
}

void InboundWorker::stop()
{
    {
        std::lock_guard<std::mutex> hold(mutex_);
        stopping_ = true;
        queue_.clear();
    }
    wake_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void InboundWorker::push(sf_wire::CmdKind kind, const void *payload, size_t len)
{
    if (len > max_bytes_) {
        sf_metrics::count(sf_metrics::InboundDroppedOversize);
        CH_LOG_ERR("%s command dropped: %zu bytes, at most %zu accepted", sf_wire::cmd_kind_name(kind), len,
                   max_bytes_);
        return;
    }
    {
        std::lock_guard<std::mutex> hold(mutex_);
        if (stopping_) {
            return;
        }
        if (queue_.size() >= max_queued_) {
            sf_metrics::count(sf_metrics::InboundDroppedQueueFull);
            CH_LOG_ERR("%s command dropped: %zu commands already waiting", sf_wire::cmd_kind_name(kind),
                       queue_.size());
            return;
        }
        queue_.push_back(Item{kind, std::string(static_cast<const char *>(payload), len)});
    }
    wake_.notify_one();
}

void InboundWorker::run()
{
    for (;;) {
        Item item;
        {
            std::unique_lock<std::mutex> hold(mutex_);
            wake_.wait(hold, [this] { return stopping_ || !queue_.empty(); });
            if (stopping_) {
                return;
            }
            item = std::move(queue_.front());
            queue_.pop_front();
        }
        const char *why = "";
        cJSON *doc = sf_wire::parse_bounded(item.payload.data(), item.payload.size(), max_bytes_, max_depth_, &why);
        if (doc == nullptr) {
            sf_metrics::inbound_refused(why);
            CH_LOG_ERR("%s command dropped: %s", sf_wire::cmd_kind_name(item.kind), why);
            continue;
        }
        sf_wire::dispatch_command(item.kind, doc, DP_CMD_MQ);
    }
}

} // namespace sf_mqtt
