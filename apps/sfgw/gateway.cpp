#define SF_LOG_MODULE SF_LOG_MODULE_SFGW
#include "gateway.h"

#include <chrono>
#include <ctime>

#include "app_callbacks.h"
#include "common/broker_port.h"
#include "gateway/registry/gw_registry.h"
#include "port/posix/lan/lan_config.h"
#include "port/posix/metrics/metrics_reporter.h"
#include "port/posix/mqtt/mqtt_config.h"
#include "port/posix/runtime/posix_runtime.h"
#include "port/posix/state/command_journal.h"
#include "port/posix/state/state_store.h"
#include "gateway/edge/wire_validate.h"
#include "smart_frame/smart_frame.h"
#include "services/log_front.h"

namespace sfgw {

namespace {

/* The client's view of connection.mqtt.brokers; the texts stay mqtt's. */
std::vector<MQC_BROKER_S> broker_list(const apps::MqttSettings &mqtt)
{
    auto text = [](const std::string &t) { return t.empty() ? nullptr : t.c_str(); };
    std::vector<MQC_BROKER_S> out;
    for (const apps::BrokerSettings &b : mqtt.brokers) {
        MQC_BROKER_S in{};
        in.host = b.host.c_str();
        in.port = b.port;
        in.username = text(b.username);
        in.password = text(b.password);
        in.ca_file = text(b.ca_file);
        in.cert_file = text(b.cert_file);
        in.key_file = text(b.key_file);
        out.push_back(in);
    }
    return out;
}

/* "host:port", or "a:1, b:2" for a list. */
std::string broker_names(const apps::MqttSettings &mqtt)
{
    if (mqtt.brokers.empty()) {
        return mqtt.host + ":" + std::to_string(apps::broker_port(mqtt.port, mqtt.ca_file));
    }
    std::string names;
    for (const apps::BrokerSettings &b : mqtt.brokers) {
        names += (names.empty() ? "" : ", ") + b.host + ":" +
                 std::to_string(apps::broker_port(b.port, !b.ca_file.empty() ? b.ca_file : mqtt.ca_file));
    }
    return names;
}

} // namespace

Gateway::Gateway(const Options &options, const apps::Description &description)
    : options_(options), description_(description), mqtt_(description.mqtt)
{
    if (!options.mqtt_host.empty()) {
        mqtt_.host = options.mqtt_host;
    }
    if (options.mqtt_port != 0) {
        mqtt_.port = options.mqtt_port;
    }
    if (!options.mqtt_host.empty() || options.mqtt_port != 0) {
        mqtt_.brokers.clear(); /* the command line names the one broker */
    }
    if (!options.mqtt_brokers.empty()) {
        mqtt_.brokers.clear();
        for (const auto &address : options.mqtt_brokers) {
            apps::BrokerSettings broker;
            broker.host = address.first;
            broker.port = address.second;
            mqtt_.brokers.push_back(broker);
        }
    }
    if (!mqtt_.brokers.empty()) {
        /* what names one broker (the simulator's link, messages) names the first */
        mqtt_.host = mqtt_.brokers[0].host;
        mqtt_.port = mqtt_.brokers[0].port != 0 ? mqtt_.brokers[0].port : mqtt_.port;
    }
    if (options.mqtt_protocol != 0) {
        mqtt_.protocol = options.mqtt_protocol;
    }
    mqtt_.port = apps::broker_port(mqtt_.port, mqtt_.ca_file);
}

Gateway::~Gateway() { stop(); }

int Gateway::lan_port() const { return lan_started_ ? lan_bound_port() : 0; }

bool Gateway::start(const sigset_t &stop_signals, bool *interrupted, std::string *why)
{
    gw_registry::LoadError error;
    if (!gw_registry::load_layout(description_.layout, description_.file, &error)) {
        *why = error.text();
        return false;
    }
    registry_loaded_ = true;
    if (!options_.no_state) {
        /* the stored values before anything reports; a bad store is logged there and the gateway runs on */
        sf_state::start({options_.state_file, std::chrono::milliseconds(options_.state_interval_ms)});
        /* before the MQTT client starts: it hands on what the last run left in the journal first */
        if (sf_state::running() && description_.commands.journal) {
            sf_state::journal::open(options_.state_file);
        }
    }
    if (description_.commands.max_age_s >= 0) {
        wire_set_command_max_age(static_cast<UINT_T>(description_.commands.max_age_s));
    }

    const apps::Topics topics{mqtt_.topic_root, description_.gateway_id};
    sim_ = std::make_unique<Simulator>(description_, [this](const std::string &json) { link_.publish(json); });
    if (!open_command_trace(options_.command_trace, why)) {
        return false;
    }
    install_app_callbacks(sim_.get(), &description_);

    OPERATE_RET rc = smart_frame_init();
    if (rc != RC_OK) {
        *why = "the smart frame did not start: " + std::to_string(rc);
        return false;
    }
    frame_started_ = true;
    rc = sf_sys_mag_hb_init(probe_callback);
    if (rc != RC_OK) {
        *why = "heartbeat supervision did not start: " + std::to_string(rc);
        return false;
    }

    wire_set_command_checks(options_.lenient_commands ? FALSE : TRUE);
    MQC_CONFIG_S cfg{};
    cfg.host = mqtt_.host.c_str();
    cfg.port = mqtt_.port;
    cfg.topic_root = mqtt_.topic_root.c_str();
    cfg.client_id = mqtt_.client_id.empty() ? nullptr : mqtt_.client_id.c_str();
    cfg.username = mqtt_.username.empty() ? nullptr : mqtt_.username.c_str();
    cfg.password = mqtt_.password.empty() ? nullptr : mqtt_.password.c_str();
    cfg.ca_file = mqtt_.ca_file.empty() ? nullptr : mqtt_.ca_file.c_str();
    cfg.cert_file = mqtt_.cert_file.empty() ? nullptr : mqtt_.cert_file.c_str();
    cfg.key_file = mqtt_.key_file.empty() ? nullptr : mqtt_.key_file.c_str();
    cfg.keepalive_s = static_cast<UINT_T>(mqtt_.keepalive_s);
    cfg.reconnect_min_s = static_cast<UINT_T>(mqtt_.reconnect_min_s);
    cfg.reconnect_max_s = static_cast<UINT_T>(mqtt_.reconnect_max_s);
    cfg.protocol = static_cast<UINT_T>(mqtt_.protocol);
    cfg.clean_session = mqtt_.persistent_session ? FALSE : TRUE;
    cfg.session_expiry_s = static_cast<UINT_T>(mqtt_.session_expiry_s);
    cfg.takeover_backoff_s = static_cast<UINT_T>(mqtt_.takeover_backoff_s);
    const std::vector<MQC_BROKER_S> brokers = broker_list(mqtt_);
    cfg.brokers = brokers.empty() ? nullptr : brokers.data();
    cfg.broker_count = static_cast<UINT_T>(brokers.size());
    rc = mqc_start(&cfg);
    if (rc != RC_OK) {
        *why = "the MQTT client did not start: " + std::to_string(rc);
        return false;
    }
    mqtt_started_ = true;
    if (!options_.metrics_file.empty() || options_.metrics_mqtt_s > 0) {
        if (!sf_metrics::start_reporter({options_.metrics_file, options_.metrics_interval_s, options_.metrics_mqtt_s,
                                         description_.gateway_id},
                                        why)) {
            return false;
        }
        metrics_started_ = true;
    }

    const bool lan_wanted = description_.lan.enabled && !options_.no_lan;
    if (lan_wanted && description_.local_key.empty()) {
        SF_LOG_NOTICE("no gateway.local_key in the description: the LAN channel stays closed");
    } else if (lan_wanted) {
        LAN_CONFIG_S lan{};
        lan.bind_addr = description_.lan.bind_addr.c_str();
        lan.port = static_cast<USHORT_T>(options_.lan_port >= 0 ? options_.lan_port : description_.lan.port);
        lan.local_key = description_.local_key.c_str();
        lan.security = description_.lan.plain ? LAN_SECURITY_PLAIN : LAN_SECURITY_TLS;
        lan.allow_plain_on_network = description_.lan.allow_plain_on_network ? TRUE : FALSE;
        rc = lan_start(&lan);
        if (rc != RC_OK) {
            *why = "the LAN channel cannot listen on " + description_.lan.bind_addr + ":" +
                   std::to_string(lan.port) + " (" + std::to_string(rc) + ", see the log above)";
            return false;
        }
        lan_started_ = true;
        lan_key_ = description_.local_key;
    }

    if (!link_.start(mqtt_, topics, [this](const std::string &payload) { sim_->control(payload); }, why)) {
        return false;
    }
    if (options_.connect_timeout_s > 0 && !wait_for_broker(stop_signals, interrupted, why)) {
        return false;
    }
    sim_->start();
    return true;
}

void Gateway::reload_local_key(const std::string &local_key)
{
    if (!lan_started_ || local_key == lan_key_) {
        return;
    }
    if (local_key.empty()) {
        SF_LOG_ERR("SIGHUP: the description has no gateway.local_key now; the LAN channel keeps the old one");
        return;
    }
    if (lan_set_local_key(local_key.c_str()) == RC_OK) {
        lan_key_ = local_key;
    }
}

bool Gateway::wait_for_broker(const sigset_t &stop_signals, bool *interrupted, std::string *why)
{
    /* a steady clock in full resolution: whole seconds of the wall clock gave up as early as 2.0 s of 3 */
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options_.connect_timeout_s);
    while (get_gw_nw_status() != GW_NW_CLOUD) {
        if (std::chrono::steady_clock::now() >= deadline) {
            *why = "cannot reach the MQTT broker at " + broker_names(mqtt_) + " within " +
                   std::to_string(options_.connect_timeout_s) + " s (is it running? see the log above)";
            return false;
        }
        const struct timespec tick = {0, 100 * 1000 * 1000};
        if (sigtimedwait(&stop_signals, nullptr, &tick) > 0) {
            *interrupted = true;
            return false;
        }
    }
    return true;
}

void Gateway::stop()
{
    /*
     * The MQTT client goes first: it completes every pending publication,
     * which releases a simulator job blocked in a synchronous report. Then
     * no thread is left that could call into the channels or the module,
     * and the dispatch thread can finish its queue before the registry
     * frees the devices its handlers use.
     */
    if (metrics_started_) {
        sf_metrics::stop_reporter(); /* its last document still goes out */
        metrics_started_ = false;
    }
    if (mqtt_started_) {
        mqc_stop();
        mqtt_started_ = false;
    }
    if (sim_) {
        sim_->stop();
    }
    link_.stop();
    if (lan_started_) {
        lan_stop();
        lan_started_ = false;
    }
    if (frame_started_) {
        cmmod_stop();
        frame_started_ = false;
    }
    /* the dispatch thread has run its queue: what it applied leaves the journal, the rest stays for the next start */
    sf_state::journal::close();
    if (registry_loaded_) {
        sf_state::stop(); /* nothing reports any more: the last values are written */
        install_app_callbacks(nullptr, nullptr);
        close_command_trace();
        gw_registry::unload();
        registry_loaded_ = false;
    }
}

} // namespace sfgw
