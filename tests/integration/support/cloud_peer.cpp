#include "cloud_peer.h"

#include <mosquitto.h>

namespace it {

CloudPeer::CloudPeer(const std::string &persistent_id)
{
    mosquitto_lib_init();
    mosq_ = persistent_id.empty() ? mosquitto_new(nullptr, true, this)
                                  : mosquitto_new(persistent_id.c_str(), false, this);
    mosquitto_message_callback_set(mosq_, on_message);
    mosquitto_subscribe_callback_set(mosq_, on_subscribe);
    mosquitto_publish_callback_set(mosq_, on_publish);
}

void CloudPeer::on_publish(mosquitto *, void *obj, int)
{
    auto *self = static_cast<CloudPeer *>(obj);
    std::lock_guard<std::mutex> hold(self->mutex_);
    ++self->acknowledged_;
    self->changed_.notify_all();
}

size_t CloudPeer::acknowledged()
{
    std::lock_guard<std::mutex> hold(mutex_);
    return acknowledged_;
}

CloudPeer::~CloudPeer()
{
    disconnect();
    mosquitto_destroy(mosq_);
}

void CloudPeer::on_message(mosquitto *, void *obj, const mosquitto_message *msg)
{
    auto *self = static_cast<CloudPeer *>(obj);
    std::lock_guard<std::mutex> hold(self->mutex_);
    const auto *payload = static_cast<const char *>(msg->payload);
    self->received_.push_back(Received{msg->topic, std::string(payload, static_cast<size_t>(msg->payloadlen))});
    self->changed_.notify_all();
}

void CloudPeer::on_subscribe(mosquitto *, void *obj, int, int, const int *)
{
    auto *self = static_cast<CloudPeer *>(obj);
    std::lock_guard<std::mutex> hold(self->mutex_);
    self->subscribed_ = true;
    self->changed_.notify_all();
}

bool CloudPeer::connect(int port, const std::string &filter, std::string *why)
{
    int rc = mosquitto_connect(mosq_, "127.0.0.1", port, 30);
    if (rc == MOSQ_ERR_SUCCESS) {
        rc = mosquitto_loop_start(mosq_);
    }
    if (rc == MOSQ_ERR_SUCCESS) {
        rc = mosquitto_subscribe(mosq_, nullptr, filter.c_str(), 1);
    }
    if (rc != MOSQ_ERR_SUCCESS) {
        *why = mosquitto_strerror(rc);
        return false;
    }
    std::unique_lock<std::mutex> hold(mutex_);
    if (!changed_.wait_for(hold, std::chrono::seconds(10), [this] { return subscribed_; })) {
        *why = "no SUBACK";
        return false;
    }
    return true;
}

void CloudPeer::disconnect()
{
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, false);
}

bool CloudPeer::publish(const std::string &topic, const std::string &payload, int qos)
{
    return mosquitto_publish(mosq_, nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(), qos,
                             false) == MOSQ_ERR_SUCCESS;
}

std::vector<Received> CloudPeer::received()
{
    std::lock_guard<std::mutex> hold(mutex_);
    return received_;
}

bool CloudPeer::wait_until(const std::function<bool(const std::vector<Received> &)> &pred,
                           std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> hold(mutex_);
    return changed_.wait_for(hold, timeout, [&] { return pred(received_); });
}

Received CloudPeer::wait_for_payload(const std::string &text, std::chrono::milliseconds timeout)
{
    Received found;
    wait_until(
        [&](const std::vector<Received> &all) {
            for (const Received &one : all) {
                if (one.payload.find(text) != std::string::npos) {
                    found = one;
                    return true;
                }
            }
            return false;
        },
        timeout);
    return found;
}

} // namespace it
