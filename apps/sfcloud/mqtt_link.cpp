#include <mosquitto.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>

#include "link.h"

namespace sfcloud {

void say_broker_change(const std::string &from, const std::string &to)
{
    std::fprintf(stderr, "sfcloud: MQTT broker changed from %s to %s\n", from.c_str(), to.c_str());
}

MqttLink::~MqttLink()
{
    if (mosq_ != nullptr) {
        session_.stop();
        mosquitto_destroy(mosq_);
    }
}

void MqttLink::on_connect(mosquitto *mosq, void *self, int rc)
{
    auto *link = static_cast<MqttLink *>(self);
    if (rc == 0) {
        const apps::Topics &t = link->target_.topics;
        const std::string up = t.up();
        const std::string event = t.sim_event();
        const std::string status = t.status();
        char *subs[] = {const_cast<char *>(up.c_str()), const_cast<char *>(event.c_str()),
                        const_cast<char *>(status.c_str())};
        mosquitto_subscribe_multiple(mosq, nullptr, 3, subs, 1, 0, nullptr);
        link->session_.accepted();
    }
    sf_sync::Guard hold(link->mutex_);
    link->connect_rc_ = rc;
    link->changed_.notify_all();
}

void MqttLink::on_subscribe(mosquitto *, void *self, int, int, const int *)
{
    auto *link = static_cast<MqttLink *>(self);
    sf_sync::Guard hold(link->mutex_);
    link->subscribed_ = true;
    link->changed_.notify_all();
}

void MqttLink::on_message(mosquitto *, void *self, const mosquitto_message *msg)
{
    auto *link = static_cast<MqttLink *>(self);
    sf_sync::Guard hold(link->mutex_);
    link->inbox_.emplace_back(msg->topic,
                              std::string(static_cast<const char *>(msg->payload), static_cast<size_t>(msg->payloadlen)));
    link->changed_.notify_all();
}

bool MqttLink::open(const MqttTarget &target, Deadline deadline, std::string *why)
{
    mosquitto_lib_init();
    target_ = target;
    std::string client_id;
    if (!target.session.empty()) {
        client_id = "sfcloud-" + target.session;
    } else {
        std::random_device seed;
        client_id = "sfcloud-" + std::to_string(seed() % 1000000000u);
    }
    mosq_ = mosquitto_new(client_id.c_str(), target.session.empty(), this);
    if (mosq_ == nullptr) {
        *why = "cannot create an MQTT client";
        return false;
    }
    mosquitto_connect_callback_set(mosq_, on_connect);
    mosquitto_subscribe_callback_set(mosq_, on_subscribe);
    mosquitto_message_callback_set(mosq_, on_message);
    if (!target.username.empty()) {
        mosquitto_username_pw_set(mosq_, target.username.c_str(), target.password.c_str());
    }
    if (!target.ca_file.empty()) {
        mosquitto_tls_set(mosq_, target.ca_file.c_str(), nullptr, nullptr, nullptr, nullptr);
    }
    const std::string where = target.brokers[0].name();
    session_.start(mosq_, target.brokers, say_broker_change);
    if (!session_.wait_first(deadline, why)) {
        sf_sync::Guard hold(mutex_);
        if (connect_rc_ > 0) {
            *why = "the MQTT broker at " + where + " refused the connection: " + mosquitto_connack_string(connect_rc_);
        }
        return false;
    }
    sf_sync::Guard hold(mutex_);
    if (!changed_.wait_until(mutex_, deadline, [this]() SF_REQUIRES(mutex_) { return connect_rc_ >= 0; })) {
        *why = "the MQTT broker at " + where + " did not answer";
        return false;
    }
    if (connect_rc_ != 0) {
        *why = "the MQTT broker at " + where + " refused the connection: " + mosquitto_connack_string(connect_rc_);
        return false;
    }
    if (!changed_.wait_until(mutex_, deadline, [this]() SF_REQUIRES(mutex_) { return subscribed_; })) {
        *why = "the MQTT broker at " + where + " did not confirm the subscription";
        return false;
    }
    return true;
}

bool MqttLink::send(const std::string &kind, const std::string &document, std::string *why)
{
    const std::string topic = kind == "sim" ? target_.topics.sim_ctl() : target_.topics.cmd(kind);
    const int rc = mosquitto_publish(mosq_, nullptr, topic.c_str(), static_cast<int>(document.size()), document.data(), 1,
                                     false);
    if (rc != MOSQ_ERR_SUCCESS) {
        *why = "cannot publish on " + topic + ": " + mosquitto_strerror(rc);
        return false;
    }
    return true;
}

bool MqttLink::next(Message *out, Deadline deadline)
{
    sf_sync::Guard hold(mutex_);
    for (;;) {
        if (!changed_.wait_until(mutex_, deadline, [this]() SF_REQUIRES(mutex_) { return !inbox_.empty(); })) {
            return false;
        }
        const auto received = inbox_.front();
        inbox_.pop_front();
        *out = Message();
        if (decode_mqtt(target_.topics, received.first, received.second, gateway_id_, out)) {
            return true;
        }
    }
}

} // namespace sfcloud
