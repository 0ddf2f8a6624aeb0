#include "common/broker_session.h"
#include "common/broker_port.h"

#include <mosquitto.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace apps {

std::vector<sf_mqtt::Broker> brokers_of(const MqttSettings &mqtt)
{
    std::vector<sf_mqtt::Broker> out;
    auto add = [&out](const std::string &host, int port) {
        sf_mqtt::Broker b;
        b.host = host;
        b.port = port;
        out.push_back(b);
    };
    for (const BrokerSettings &b : mqtt.brokers) {
        add(b.host, broker_port(b.port, !b.ca_file.empty() ? b.ca_file : mqtt.ca_file));
    }
    if (out.empty()) {
        add(mqtt.host, broker_port(mqtt.port, mqtt.ca_file));
    }
    return out;
}

namespace {

constexpr unsigned BACK_OFF_MIN_S = 1;
constexpr unsigned BACK_OFF_MAX_S = 4; // a console waits for an answer: it tries again soon
constexpr int KEEPALIVE_S = 10;        // a dead node shows within about 1.5 keep-alives
constexpr int LOOP_WAIT_MS = 100;

std::string why_of(int rc)
{
    return rc == MOSQ_ERR_ERRNO ? std::string(std::strerror(errno)) : std::string(mosquitto_strerror(rc));
}

} // namespace

void BrokerSession::start(mosquitto *mosq, std::vector<sf_mqtt::Broker> brokers, Change on_change)
{
    mosq_ = mosq;
    brokers_ = std::move(brokers);
    on_change_ = std::move(on_change);
    mosquitto_threaded_set(mosq_, true);
    thread_ = std::thread([this] { run(); });
}

void BrokerSession::stop()
{
    if (!thread_.joinable()) {
        return;
    }
    {
        sf_sync::Guard hold(mutex_);
        stop_ = true;
    }
    changed_.notify_all();
    mosquitto_disconnect(mosq_);
    thread_.join();
}

void BrokerSession::accepted()
{
    accepted_now_ = true;
    sf_sync::Guard hold(mutex_);
    ever_accepted_ = true;
    changed_.notify_all();
}

bool BrokerSession::wait_first(std::chrono::steady_clock::time_point deadline, std::string *why)
{
    sf_sync::Guard hold(mutex_);
    changed_.wait_until(mutex_, deadline, [this]() SF_REQUIRES(mutex_) {
        return ever_accepted_ || failed_before_first_ >= brokers_.size();
    });
    if (ever_accepted_) {
        return true;
    }
    *why = !last_error_.empty() ? last_error_ : "the MQTT broker at " + brokers_[0].name() + " did not answer";
    return false;
}

std::string BrokerSession::broker()
{
    sf_sync::Guard hold(mutex_);
    return in_use_;
}

void BrokerSession::run()
{
    sf_mqtt::BrokerList list(brokers_, BACK_OFF_MIN_S, BACK_OFF_MAX_S);
    while (!stop_) {
        const sf_mqtt::Broker &b = list.current();
        accepted_now_ = false;
        int rc = mosquitto_connect(mosq_, b.host.c_str(), b.port, KEEPALIVE_S);
        if (rc != MOSQ_ERR_SUCCESS) {
            sf_sync::Guard hold(mutex_);
            last_error_ = "cannot connect to the MQTT broker at " + b.name() + ": " + why_of(rc);
        } else {
            bool up = false;
            while (!stop_ && rc == MOSQ_ERR_SUCCESS) {
                rc = mosquitto_loop(mosq_, LOOP_WAIT_MS, 1);
                if (!up && accepted_now_) {
                    up = true;
                    const std::string before = list.in_use() != nullptr ? list.in_use()->name() : "";
                    if (list.accepted() && on_change_) {
                        on_change_(before, b.name());
                    }
                    sf_sync::Guard hold(mutex_);
                    in_use_ = b.name();
                }
            }
            if (stop_) {
                return;
            }
            sf_sync::Guard hold(mutex_);
            in_use_.clear();
            last_error_ = up ? "the connection to the MQTT broker at " + b.name() + " was lost: " + why_of(rc)
                             : "the MQTT broker at " + b.name() + " did not accept the connection";
        }
        const bool was_accepted = accepted_now_;
        {
            sf_sync::Guard hold(mutex_);
            if (!ever_accepted_) {
                ++failed_before_first_;
                changed_.notify_all();
            }
        }
        const unsigned wait_s = list.after_attempt(was_accepted);
        sf_sync::Guard hold(mutex_);
        changed_.wait_for(mutex_, std::chrono::seconds(wait_s), [this]() SF_REQUIRES(mutex_) { return stop_.load(); });
    }
}

} // namespace apps
