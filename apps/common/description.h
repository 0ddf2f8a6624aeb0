/*
 * The gateway description of the apps: the registry's document
 * (docs/gateway-description.md) plus two things only the apps read,
 *   - "connection" at the top: broker and LAN settings of the daemon;
 *   - "sim" in any device object: how the simulated device behaves.
 * read_description parses the file, takes these out and keeps the rest
 * as the text the registry loads, so every key path stays the same.
 */
#ifndef APPS_COMMON_DESCRIPTION_H
#define APPS_COMMON_DESCRIPTION_H

#include <string>
#include <utility>
#include <vector>

#include "schema.h"

namespace apps {

/* One broker of connection.mqtt.brokers; empty texts and port 0 take the shared settings. */
struct BrokerSettings {
    std::string host;
    int port = 0;
    std::string username, password, ca_file, cert_file, key_file;
};

struct MqttSettings {
    std::string host = "127.0.0.1";
    int port = 1883;
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
    std::vector<BrokerSettings> brokers; /* non-empty: tried in this order instead of host and port */
};

struct LanSettings {
    bool enabled = true;
    std::string bind_addr = "127.0.0.1";
    int port = 6668; /* 0: any free port */
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
    std::string registry_text; /* the document without "connection" and "sim" */

    const DeviceDescription *find(const std::string &id) const;
};

/* The whole file; false with *error = "file: cannot read the file: why". */
bool read_file(const std::string &file, std::string *text, std::string *error);

/*
 * The part of a description the registry loads: the document without
 * "connection" and the devices' "sim". false with *error = "file: not
 * valid JSON (near line L, column C)" or "file: document: expected an object".
 */
bool registry_text_of(const std::string &text, const std::string &file, std::string *out, std::string *error);

/*
 * Read and check a whole description. false with *error = "file: key
 * path: why" (e.g. "gw.json: devices[2].sim.drift.dp: no DP \"temp\" in
 * the device"). The daemon lets the registry check its part first, so a
 * schema error is worded by the registry.
 */
bool read_description_text(const std::string &text, const std::string &file, Description *out, std::string *error);
bool read_description(const std::string &file, Description *out, std::string *error);

} // namespace apps

#endif /* APPS_COMMON_DESCRIPTION_H */
