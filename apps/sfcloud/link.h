/*
 * The console's ways to the gateway: MQTT through the broker (as the
 * cloud), or the gateway's LAN channel (as a local app). Both send
 * command documents and hand back what arrives, decoded, one at a time.
 */
#ifndef SFCLOUD_LINK_H
#define SFCLOUD_LINK_H

#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "port/posix/lan/lan_tls_client.h"
#include "common/broker_session.h"
#include "common/topics.h"
#include "gateway/sync/annotated_lock.h"
#include "uplink.h"

struct mosquitto;
struct mosquitto_message;

namespace sfcloud {

using Deadline = std::chrono::steady_clock::time_point;

/* The console's own story, on standard error (the output stays the gateway's): "sfcloud: MQTT broker changed ...". */
void say_broker_change(const std::string &from, const std::string &to);

class Link {
public:
    virtual ~Link() = default;
    /* kind: dp, group, scene, query (the gateway's command topics / LAN "cmd"), or sim (simulator control). */
    virtual bool send(const std::string &kind, const std::string &document, std::string *why) = 0;
    /* The next decoded message, waiting until deadline; false when none came. */
    virtual bool next(Message *out, Deadline deadline) = 0;
};

struct MqttTarget {
    std::vector<sf_mqtt::Broker> brokers; /* tried in order (common/broker_session.h); MUST NOT be empty */
    apps::Topics topics;
    std::string username;
    std::string password;
    std::string ca_file;
    std::string session; /* non-empty: persistent session "sfcloud-<session>" */
};

class MqttLink : public Link {
public:
    explicit MqttLink(std::string gateway_id) : gateway_id_(std::move(gateway_id)) {}
    ~MqttLink() override;
    /* Connect and subscribe to the uplink, status and simulator topics; waits for both answers. */
    bool open(const MqttTarget &target, Deadline deadline, std::string *why);
    bool send(const std::string &kind, const std::string &document, std::string *why) override;
    bool next(Message *out, Deadline deadline) override;

private:
    static void on_connect(mosquitto *, void *self, int rc);
    static void on_subscribe(mosquitto *, void *self, int, int, const int *);
    static void on_message(mosquitto *, void *self, const mosquitto_message *msg);

    std::string gateway_id_;
    MqttTarget target_;
    mosquitto *mosq_ = nullptr;
    apps::BrokerSession session_;
    sf_sync::Mutex mutex_;
    sf_sync::CondVar changed_;
    std::deque<std::pair<std::string, std::string>> inbox_ SF_GUARDED_BY(mutex_);
    int connect_rc_ SF_GUARDED_BY(mutex_) = -1;
    bool subscribed_ SF_GUARDED_BY(mutex_) = false;
};

class LanLink : public Link {
public:
    /* plain: speak plain TCP (the channel's "plain" mode) instead of TLS 1.3 with the key's PSK. */
    LanLink(std::string gateway_id, bool plain) : gateway_id_(std::move(gateway_id)), plain_(plain) {}
    ~LanLink() override;
    /*
     * Connect to host:port and prove key: by the TLS handshake (identity
     * the gateway id), or in plain mode by the auth frame. Waits for the
     * gateway's welcome.
     */
    bool open(const std::string &host, int port, const std::string &key, Deadline deadline, std::string *why);
    bool send(const std::string &kind, const std::string &document, std::string *why) override;
    bool next(Message *out, Deadline deadline) override;

private:
    bool read_line(std::string *line, Deadline deadline);
    bool write_text(const std::string &text);
    ssize_t read_some(char *buf, size_t len);

    std::string gateway_id_;
    bool plain_;
    int fd_ = -1;
    std::unique_ptr<sf_lan::TlsClient> tls_;
    std::string buffer_;
};

} // namespace sfcloud

#endif /* SFCLOUD_LINK_H */
