#define SF_LOG_MODULE SF_LOG_MODULE_SFGW
#include "simulator.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cstdlib>

#include "apps/sfgw/restored_state.h"
#include "smart_frame/smart_frame.h"
#include "services/log_front.h"

namespace sfgw {

namespace {

/* Time limit of a raw report: the MQTT client answers within it or reports a time-out. */
constexpr UINT_T RAW_REPORT_TIMEOUT_S = 10;
/* A device without heartbeats is never taken offline by the supervision. */
constexpr TIME_S NEVER_TIMES_OUT = 0xFFFFFFFFu;

const char *dev_arg(const SimDevice &device) { return device.is_gateway() ? nullptr : device.id().c_str(); }

} // namespace

Simulator::Simulator(const apps::Description &description, EventSink sink) : sink_(std::move(sink))
{
    devices_.reserve(description.devices.size()); /* no growth slack: one device per described one */
    for (size_t i = 0; i < description.devices.size(); ++i) {
        devices_.emplace_back(description.devices[i], i == 0);
    }
}

Simulator::~Simulator() { stop(); }

void Simulator::start()
{
    const Clock::time_point now = Clock::now();
    for (size_t i = 0; i < devices_.size(); ++i) {
        SimDevice &device = devices_[i];
        const apps::SimSettings &sim = device.settings();
        if (device.supervised()) {
            const TIME_S timeout = sim.heartbeat_s > 0 ? static_cast<TIME_S>(sim.hb_timeout_s) : NEVER_TIMES_OUT;
            const OPERATE_RET rc = sf_set_dev_hb_timeout(device.id().c_str(), timeout, static_cast<UINT_T>(sim.probe_limit));
            if (rc != RC_OK) {
                SF_LOG_ERR("%s: heartbeat time-out not set: %d", device.id().c_str(), rc);
            }
            heartbeat(device);
            if (sim.heartbeat_s > 0) {
                timers_.push_back({now + std::chrono::seconds(sim.heartbeat_s), i, Timer::HEARTBEAT});
            }
        }
        if (sim.has_drift) {
            timers_.push_back({now + std::chrono::seconds(sim.drift.every_s), i, Timer::DRIFT});
        }
        if (sim.has_raw_sample) {
            timers_.push_back({now + std::chrono::seconds(sim.raw_sample.every_s), i, Timer::RAW_SAMPLE});
        }
        device.restore(restored_values(device.schema()));
        std::vector<int> dpids = device.start_values();
        if (!dpids.empty()) {
            start_reports_.emplace_back(i, std::move(dpids));
        }
    }
    thread_ = std::thread([this] { run(); });
}

void Simulator::stop()
{
    {
        sf_sync::Guard hold(mutex_);
        stopping_ = true;
        jobs_.clear();
    }
    wake_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Simulator::post(std::function<void()> job)
{
    {
        sf_sync::Guard hold(mutex_);
        if (stopping_) {
            return;
        }
        jobs_.push_back(std::move(job));
    }
    wake_.notify_one();
}

void Simulator::command(const std::string &cid, DpValues values)
{
    post([this, cid, values] {
        SimDevice *device = find(cid);
        if (device == nullptr || device->silent()) {
            return;
        }
        std::vector<std::string> refused;
        const std::string text = device->apply(values, &refused);
        for (const std::string &dpid : refused) {
            SF_LOG_NOTICE("%s ignores DP %s of the command", device->id().c_str(), dpid.c_str());
        }
        if (!text.empty()) {
            report(*device, text, false);
        }
    });
}

void Simulator::raw_command(const std::string &cid, int dpid, std::vector<unsigned char> bytes)
{
    post([this, cid, dpid, bytes] {
        SimDevice *device = find(cid);
        if (device == nullptr || device->silent()) {
            return;
        }
        device->raw_bytes(dpid) = bytes;
        raw_report(*device, dpid);
    });
}

void Simulator::query(const std::string &cid, std::vector<int> dpids)
{
    post([this, cid, dpids] {
        SimDevice *device = find(cid);
        if (device == nullptr || device->silent()) {
            return;
        }
        answer_query(*device, dpids);
    });
}

void Simulator::probe(const std::string &cid)
{
    post([this, cid] {
        SimDevice *device = find(cid);
        if (device == nullptr) {
            return;
        }
        const bool answered = !device->silent();
        SF_LOG_INFO("probe of %s: %s", cid.c_str(), answered ? "answered" : "no answer, the device is silent");
        event("{\"event\":\"probe\",\"cid\":" + apps::json_quote(cid) + ",\"answered\":" + (answered ? "true" : "false") + "}");
        if (answered) {
            heartbeat(*device);
        }
    });
}

void Simulator::control(const std::string &payload)
{
    post([this, payload] { handle_control(payload); });
}

void Simulator::handle_control(const std::string &payload)
{
    cJSON *doc = cJSON_Parse(payload.c_str());
    const cJSON *cid = cJSON_GetObjectItemCaseSensitive(doc, "cid");
    const cJSON *silent = cJSON_GetObjectItemCaseSensitive(doc, "silent");
    const cJSON *token = cJSON_GetObjectItemCaseSensitive(doc, "token");
    std::string answer;
    if (!cJSON_IsString(cid) || !cJSON_IsBool(silent)) {
        answer = "{\"event\":\"control\",\"ok\":false,\"why\":\"expected {\\\"cid\\\":..., \\\"silent\\\":true|false}\"";
    } else {
        SimDevice *device = find(cid->valuestring);
        const bool ok = device != nullptr && device->supervised();
        answer = "{\"event\":\"control\",\"cid\":" + apps::json_quote(cid->valuestring) +
                 ",\"silent\":" + (cJSON_IsTrue(silent) ? "true" : "false") + ",\"ok\":" + (ok ? "true" : "false");
        if (!ok) {
            answer += ",\"why\":\"no such sub-device\"";
        } else {
            device->set_silent(cJSON_IsTrue(silent));
            SF_LOG_NOTICE("%s is %s", device->id().c_str(), device->silent() ? "silent now" : "awake again");
            if (!device->silent()) {
                /* back in reach: the first thing a device does is say it is there */
                heartbeat(*device);
            }
        }
    }
    if (cJSON_IsString(token)) {
        answer += ",\"token\":" + apps::json_quote(token->valuestring);
    }
    cJSON_Delete(doc);
    event(answer + "}");
}

void Simulator::event(const std::string &json)
{
    if (sink_) {
        sink_(json);
    }
}

SimDevice *Simulator::find(const std::string &cid)
{
    for (SimDevice &device : devices_) {
        if ((cid.empty() && device.is_gateway()) || device.id() == cid) {
            return &device;
        }
    }
    return nullptr;
}

void Simulator::report(SimDevice &device, const std::string &text, bool force)
{
    if (!device.schema().bind || device.silent()) {
        return;
    }
    const OPERATE_RET rc = sf_obj_dp_report_async(dev_arg(device), text.c_str(), force ? 1 : 0);
    SF_LOG_INFO("%s reports %s: %d", device.id().c_str(), text.c_str(), rc);
}

/*
 * A query is the cloud asking for current values, so its answer carries
 * every asked DP. A forced report does not do that: per-DP flow control
 * limits spontaneous reports, force_send does not lift it, and a DP whose
 * window was used up was left out. The answer is composed here as the
 * report document the wire protocol describes ({"dps":..,"cid":..}, pro 4,
 * LAN frame type 4) and published as it stands through the module's
 * multi-DP report, which neither filters nor counts it. The device reports
 * every change of its own, so the values the gateway holds stay current.
 */
void Simulator::answer_query(SimDevice &device, const std::vector<int> &dpids)
{
    if (!device.schema().bind || device.silent()) {
        return;
    }
    const std::vector<int> asked = device.answerable(dpids);
    if (asked.empty()) {
        return;
    }
    std::string text = "{\"dps\":" + device.report_of(asked);
    if (!device.is_gateway()) {
        text += ",\"cid\":" + apps::json_quote(device.id());
    }
    text += "}";
    const OPERATE_RET rc = sf_multi_dp_report_async(text.c_str(), static_cast<INT_T>(text.size()), 0, nullptr);
    SF_LOG_INFO("%s answers the query with %s: %d", device.id().c_str(), text.c_str(), rc);
}

void Simulator::raw_report(SimDevice &device, int dpid)
{
    if (!device.schema().bind || device.silent()) {
        return;
    }
    const std::vector<unsigned char> &bytes = device.raw_bytes(dpid);
    const OPERATE_RET rc = sf_raw_dp_report_sync(dev_arg(device), static_cast<BYTE_T>(dpid), bytes.data(),
                                                 static_cast<UINT_T>(bytes.size()), RAW_REPORT_TIMEOUT_S, 1);
    SF_LOG_INFO("%s reports raw DP %d (%zu bytes): %d", device.id().c_str(), dpid, bytes.size(), rc);
}

void Simulator::heartbeat(SimDevice &device)
{
    if (device.silent() || !device.supervised()) {
        return;
    }
    const OPERATE_RET rc = sf_refresh_dev_hb(device.id().c_str());
    if (rc != RC_OK) {
        SF_LOG_ERR("heartbeat of %s refused: %d", device.id().c_str(), rc);
    }
}

void Simulator::fire(Timer &timer)
{
    SimDevice &device = devices_[timer.device];
    const apps::SimSettings &sim = device.settings();
    switch (timer.kind) {
    case Timer::HEARTBEAT:
        heartbeat(device);
        timer.due += std::chrono::seconds(sim.heartbeat_s);
        break;
    case Timer::DRIFT: {
        const std::string text = device.silent() ? "" : device.drift_step();
        if (!text.empty()) {
            report(device, text, false);
        }
        timer.due += std::chrono::seconds(sim.drift.every_s);
        break;
    }
    case Timer::RAW_SAMPLE: {
        std::vector<unsigned char> &bytes = device.raw_bytes(sim.raw_sample.dp);
        static unsigned counter = 0;
        ++counter;
        bytes = {static_cast<unsigned char>(counter >> 8), static_cast<unsigned char>(counter),
                 static_cast<unsigned char>(std::rand()), static_cast<unsigned char>(std::rand())};
        raw_report(device, sim.raw_sample.dp);
        timer.due += std::chrono::seconds(sim.raw_sample.every_s);
        break;
    }
    }
}

/*
 * A report made before the MQTT session is up fails, and the module logs
 * that at error level: a clean start would log one error per device and
 * teach operators to ignore errors. So the start-up reports wait for the
 * first connection, and carry the values the devices hold by then (a LAN
 * command may have changed one meanwhile). While they wait, the values
 * are the simulator's own: queries and commands are answered from them.
 * Returns whether reports are still waiting.
 */
bool Simulator::report_start_values_when_connected()
{
    if (start_reports_.empty() || get_gw_nw_status() != GW_NW_CLOUD) {
        return !start_reports_.empty();
    }
    for (const auto &start : start_reports_) {
        SimDevice &device = devices_[start.first];
        report(device, device.report_of(start.second), true);
    }
    start_reports_.clear();
    return false;
}

void Simulator::run()
{
    /* how often the start-up reports look at the network state while they wait */
    constexpr std::chrono::milliseconds CONNECTION_POLL{100};
    sf_sync::Guard hold(mutex_);
    while (!stopping_) {
        hold.unlock();
        const bool waiting = report_start_values_when_connected();
        hold.lock();
        if (stopping_) {
            break;
        }
        if (!jobs_.empty()) {
            std::function<void()> job = std::move(jobs_.front());
            jobs_.pop_front();
            hold.unlock();
            job();
            hold.lock();
            continue;
        }
        auto next = std::min_element(timers_.begin(), timers_.end(),
                                     [](const Timer &a, const Timer &b) { return a.due < b.due; });
        if (next != timers_.end() && next->due <= Clock::now()) {
            hold.unlock();
            fire(*next);
            hold.lock();
            continue;
        }
        Clock::time_point until = Clock::time_point::max();
        if (next != timers_.end()) {
            until = next->due;
        }
        if (waiting) {
            until = std::min(until, Clock::now() + CONNECTION_POLL);
        }
        if (until == Clock::time_point::max()) {
            wake_.wait(mutex_);
        } else {
            wake_.wait_until(mutex_, until);
        }
    }
}

} // namespace sfgw
