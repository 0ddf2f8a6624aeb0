/*
 * The gateway description of the apps: the registry's document
 * (docs/gateway-description.md) plus two sections only the apps read,
 *   - "connection" at the top: broker and LAN settings of the daemon;
 *   - "sim" in any device object: how the simulated device behaves.
 * read_description parses the file once (gateway/description): the
 * devices and DPs become the gateway's model, which the registry loads as
 * it is (gw_registry::load_layout), and the apps' sections are read from
 * the same tree, so nothing is parsed twice and every key path stays.
 */
#ifndef APPS_COMMON_DESCRIPTION_H
#define APPS_COMMON_DESCRIPTION_H

#include <string>
#include <utility>
#include <vector>

#include "gateway/description/desc_model.h"
#include "schema.h"

namespace apps {

/* One broker of connection.mqtt.brokers; empty texts take the shared settings, port 0 the default (broker_port.h). */
struct BrokerSettings {
    std::string host;
    int port = 0;
    std::string username, password, ca_file, cert_file, key_file;
};

struct MqttSettings {
    std::string host = "127.0.0.1";
    int port = 0; /* 0: not set, broker_port.h gives the default (1883, or 8883 with ca_file) */
    std::string topic_root = "sf";
    std::string client_id; /* empty: the gateway id */
    std::string username;
    std::string password;
    std::string ca_file;
    std::string cert_file;
    std::string key_file;
    int keepalive_s = 0;      /* 0: the client's default */
    int reconnect_min_s = 0;
    int reconnect_max_s = 0;
    int protocol = 0;         /* 5 or 311; 0: MQTT 5, falling back to 3.1.1 when the broker refuses it */
    bool persistent_session = true; /* false: a clean session at every connect */
    long long session_expiry_s = 0; /* MQTT 5 session expiry; 0: the client's default (one day) */
    int takeover_backoff_s = 0;     /* 0: the client's default (300) */
    std::vector<BrokerSettings> brokers; /* non-empty: tried in this order instead of host and port */
};

/* What happens to commands on their way in (docs/wire-protocol.md "Delivery of commands"). */
struct CommandSettings {
    long long max_age_s = -1; /* -1: the default (SF_COMMAND_MAX_AGE_S); 0: no limit */
    bool journal = true;      /* keep commands in the state file until applied */
};

struct LanSettings {
    bool enabled = true;
    std::string bind_addr = "127.0.0.1";
    int port = 6668; /* 0: any free port */
    bool plain = false; /* security "plain": plain TCP instead of TLS 1.3 (security "tls", the default) */
    bool allow_plain_on_network = false; /* plain on an address other than 127.x.x.x is refused without it */
};

/* A DP that moves by itself: a measured temperature, a current. */
struct DriftSettings {
    int dp = 0;
    int toward = 0; /* DP whose value it moves to (a set point); 0: swings between min and max */
    long long step = 1;
    int every_s = 5;
};

/* A raw DP that the device sends by itself, a sample of bytes every every_s seconds. */
struct RawSampleSettings {
    int dp = 0;
    int every_s = 30;
};

struct SimSettings {
    std::string kind;     /* for people: switch, light, thermostat, sensor ... */
    int heartbeat_s = 10; /* 0: no heartbeats; the device is then never supervised */
    int hb_timeout_s = 60;
    int probe_limit = 2;
    std::vector<std::pair<int, std::string>> initial; /* DP and its JSON value, reported at start */
    bool has_drift = false;
    DriftSettings drift;
    bool has_raw_sample = false;
    RawSampleSettings raw_sample;
};

struct DeviceDescription {
    DeviceSchema schema;
    bool has_sim = false;
    SimSettings sim;
};

struct Description {
    std::string file;
    std::string gateway_id;
    std::string local_key;
    std::vector<DeviceDescription> devices; /* the gateway's own device first */
    MqttSettings mqtt;
    LanSettings lan;
    CommandSettings commands;
    gw_desc::GatewayLayout layout; /* the devices and DPs as the registry loads them */

    const DeviceDescription *find(const std::string &id) const;
};

/* The sections the apps read and the registry leaves to them: "connection", and "sim" in a device. */
const gw_desc::OtherSections &apps_sections();

/*
 * Read and check a whole description. false with *error = "file: key
 * path: why" (e.g. "gw.json: devices[2].sim.drift.dp: no DP \"temp\" in
 * the device"). The devices and DPs are checked first, in the words of
 * the registry (the same reader), then "connection", then each "sim".
 */
bool read_description_text(const std::string &text, const std::string &file, Description *out, std::string *error);
bool read_description(const std::string &file, Description *out, std::string *error);

} // namespace apps

#endif /* APPS_COMMON_DESCRIPTION_H */
