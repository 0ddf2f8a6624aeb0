#include "description.h"

#include <arpa/inet.h>

#include "json_reader.h"

namespace apps {

namespace {

using gw_desc::LoadError;
using gw_desc::Reader;

/*
 * connection.mqtt.brokers: [{"host": ..., "port": ..., and optionally the
 * credentials and TLS files of that broker}], instead of host and port.
 */
bool read_brokers(Reader &parent, const cJSON *list, std::vector<BrokerSettings> *out, LoadError *error)
{
    if (!cJSON_IsArray(list) || cJSON_GetArraySize(list) == 0) {
        return parent.refuse("brokers", "expected a non-empty array of brokers");
    }
    int index = 0;
    for (const cJSON *item = list->child; item != nullptr; item = item->next, ++index) {
        BrokerSettings b;
        Reader r(item, gw_desc::element_path("connection.mqtt", "brokers", index), error);
        long long number = 0;
        r.text("host", true, &b.host);
        if (r.integer("port", false, 1, 65535, &number)) {
            b.port = static_cast<int>(number);
        }
        r.text("username", false, &b.username);
        r.text("password", false, &b.password);
        r.text("ca_file", false, &b.ca_file);
        r.text("cert_file", false, &b.cert_file);
        r.text("key_file", false, &b.key_file);
        if (r.ok() && b.host.empty()) {
            r.refuse("host", "empty");
        }
        if (!r.no_unknown_keys()) {
            return false;
        }
        out->push_back(b);
    }
    return true;
}

bool read_mqtt(const cJSON *node, MqttSettings *mqtt, LoadError *error)
{
    Reader r(node, "connection.mqtt", error);
    long long number = mqtt->port;
    r.text("host", false, &mqtt->host);
    if (r.integer("port", false, 1, 65535, &number)) {
        mqtt->port = static_cast<int>(number);
    }
    r.text("topic_root", false, &mqtt->topic_root);
    r.text("client_id", false, &mqtt->client_id);
    r.text("username", false, &mqtt->username);
    r.text("password", false, &mqtt->password);
    r.text("ca_file", false, &mqtt->ca_file);
    r.text("cert_file", false, &mqtt->cert_file);
    r.text("key_file", false, &mqtt->key_file);
    const struct {
        const char *key;
        int *field;
    } seconds[] = {{"keepalive_s", &mqtt->keepalive_s},
                   {"reconnect_min_s", &mqtt->reconnect_min_s},
                   {"reconnect_max_s", &mqtt->reconnect_max_s}};
    for (const auto &s : seconds) {
        number = *s.field;
        if (r.integer(s.key, false, 0, 3600, &number)) {
            *s.field = static_cast<int>(number);
        }
    }
    r.boolean("persistent_session", false, &mqtt->persistent_session);
    r.integer("session_expiry_s", false, 1, 4294967294LL, &mqtt->session_expiry_s);
    number = mqtt->takeover_backoff_s;
    if (r.integer("takeover_backoff_s", false, 1, 86400, &number)) {
        mqtt->takeover_backoff_s = static_cast<int>(number);
    }
    number = mqtt->protocol;
    if (r.integer("protocol", false, 0, 311, &number)) {
        if (number != 0 && number != 5 && number != 311) {
            r.refuse("protocol", "expected 5 or 311, got " + std::to_string(number));
        } else {
            mqtt->protocol = static_cast<int>(number);
        }
    }
    if (r.ok() && mqtt->topic_root.empty()) {
        r.refuse("topic_root", "empty");
    }
    const cJSON *brokers = r.member("brokers", false);
    if (brokers != nullptr && r.ok() && (r.member("host", false) != nullptr || r.member("port", false) != nullptr)) {
        return r.refuse("brokers", "not with host or port (name every broker in the list)");
    }
    if (brokers != nullptr && r.ok() && !read_brokers(r, brokers, &mqtt->brokers, error)) {
        return false;
    }
    return r.no_unknown_keys();
}

bool read_lan(const cJSON *node, LanSettings *lan, LoadError *error)
{
    Reader r(node, "connection.lan", error);
    long long number = lan->port;
    r.boolean("enabled", false, &lan->enabled);
    r.text("bind_addr", false, &lan->bind_addr);
    if (r.integer("port", false, 0, 65535, &number)) {
        lan->port = static_cast<int>(number);
    }
    std::string security = lan->plain ? "plain" : "tls";
    r.text("security", false, &security);
    r.boolean("allow_plain_on_network", false, &lan->allow_plain_on_network);
    if (r.ok() && security != "tls" && security != "plain") {
        r.refuse("security", "expected \"tls\" or \"plain\", got \"" + security + "\"");
    }
    lan->plain = security == "plain";
    in_addr ip{};
    const bool loopback = ::inet_pton(AF_INET, lan->bind_addr.c_str(), &ip) == 1 && (ntohl(ip.s_addr) >> 24) == 127;
    if (r.ok() && lan->plain && !loopback && !lan->allow_plain_on_network) {
        r.refuse("security", "\"plain\" on " + lan->bind_addr +
                               " would send the local key and every frame readable on the network: use \"tls\", or "
                               "set connection.lan.allow_plain_on_network to true to accept it");
    }
    return r.no_unknown_keys();
}

bool read_commands(const cJSON *node, CommandSettings *commands, LoadError *error)
{
    Reader r(node, "connection.commands", error);
    r.integer("max_age_s", false, 0, 31536000, &commands->max_age_s);
    r.boolean("journal", false, &commands->journal);
    return r.no_unknown_keys();
}

bool read_connection(const cJSON *node, Description *out, LoadError *error)
{
    Reader r(node, "connection", error);
    const cJSON *mqtt = r.object("mqtt", false);
    const cJSON *lan = r.object("lan", false);
    const cJSON *commands = r.object("commands", false);
    if (!r.no_unknown_keys()) {
        return false;
    }
    return (mqtt == nullptr || read_mqtt(mqtt, &out->mqtt, error)) && (lan == nullptr || read_lan(lan, &out->lan, error)) &&
           (commands == nullptr || read_commands(commands, &out->commands, error));
}

/* A DP named by its name or number, which must exist in the device. */
const DpSchema *dp_ref(Reader &r, const char *key, bool required, const DeviceSchema &device)
{
    const cJSON *item = r.member(key, required);
    if (item == nullptr) {
        return nullptr;
    }
    std::string ref;
    if (cJSON_IsString(item)) {
        ref = item->valuestring;
    } else if (is_integer(item)) {
        ref = std::to_string(static_cast<long long>(item->valuedouble));
    } else {
        r.refuse(key, "expected a DP name or number");
        return nullptr;
    }
    const DpSchema *dp = device.find(ref);
    if (dp == nullptr) {
        r.refuse(key, "no DP \"" + ref + "\" in the device");
    }
    return dp;
}

bool read_drift(const cJSON *node, const std::string &path, const DeviceSchema &device, DriftSettings *drift,
                LoadError *error)
{
    Reader r(node, path, error);
    const DpSchema *dp = dp_ref(r, "dp", true, device);
    const DpSchema *toward = dp_ref(r, "toward", false, device);
    long long number = drift->every_s;
    r.integer("step", false, 1, 1000000, &drift->step);
    if (r.integer("every_s", false, 1, 3600, &number)) {
        drift->every_s = static_cast<int>(number);
    }
    if (dp != nullptr && dp->prop != "value") {
        return r.refuse("dp", "a drifting DP must be a value DP");
    }
    if (toward != nullptr && toward->prop != "value") {
        return r.refuse("toward", "the set point must be a value DP");
    }
    drift->dp = dp != nullptr ? dp->id : 0;
    drift->toward = toward != nullptr ? toward->id : 0;
    return r.no_unknown_keys();
}

bool read_raw_sample(const cJSON *node, const std::string &path, const DeviceSchema &device,
                     RawSampleSettings *raw, LoadError *error)
{
    Reader r(node, path, error);
    const DpSchema *dp = dp_ref(r, "dp", true, device);
    long long number = raw->every_s;
    if (r.integer("every_s", false, 1, 3600, &number)) {
        raw->every_s = static_cast<int>(number);
    }
    if (dp != nullptr && dp->type != "raw") {
        return r.refuse("dp", "a raw sample needs a raw DP");
    }
    raw->dp = dp != nullptr ? dp->id : 0;
    return r.no_unknown_keys();
}

bool read_initial(const cJSON *node, const std::string &path, const DeviceSchema &device, SimSettings *sim,
                  LoadError *error)
{
    for (const cJSON *item = node->child; item != nullptr; item = item->next) {
        const DpSchema *dp = device.find(item->string);
        const std::string at = path + "." + item->string;
        if (dp == nullptr) {
            return gw_desc::fail(error, error->file, at, "no DP \"" + std::string(item->string) + "\" in the device");
        }
        std::string why;
        if (!value_fits(*dp, item, &why)) {
            return gw_desc::fail(error, error->file, at, why);
        }
        sim->initial.emplace_back(dp->id, json_text(item));
    }
    return true;
}

bool read_sim(const cJSON *node, const std::string &path, const DeviceSchema &device, bool own,
              SimSettings *sim, LoadError *error)
{
    Reader r(node, path, error);
    long long number = 0;
    r.text("kind", false, &sim->kind);
    if (!own) {
        number = sim->heartbeat_s;
        if (r.integer("heartbeat_s", false, 0, 3600, &number)) {
            sim->heartbeat_s = static_cast<int>(number);
        }
        number = sim->hb_timeout_s;
        /* the smart frame refuses heartbeat time-outs below 60 s */
        if (r.integer("hb_timeout_s", false, 60, 86400, &number)) {
            sim->hb_timeout_s = static_cast<int>(number);
        }
        number = sim->probe_limit;
        if (r.integer("probe_limit", false, 0, 255, &number)) {
            sim->probe_limit = static_cast<int>(number);
        }
    }
    const cJSON *initial = r.object("initial", false);
    const cJSON *drift = r.object("drift", false);
    const cJSON *raw = r.object("raw_sample", false);
    if (!r.no_unknown_keys()) {
        return false;
    }
    if (r.ok() && !own && sim->heartbeat_s >= sim->hb_timeout_s && sim->heartbeat_s != 0) {
        return r.refuse("heartbeat_s", "not below hb_timeout_s: the device would look silent");
    }
    if (initial != nullptr && !read_initial(initial, r.at("initial"), device, sim, error)) {
        return false;
    }
    sim->has_drift = drift != nullptr;
    if (drift != nullptr && !read_drift(drift, r.at("drift"), device, &sim->drift, error)) {
        return false;
    }
    sim->has_raw_sample = raw != nullptr;
    return raw == nullptr || read_raw_sample(raw, r.at("raw_sample"), device, &sim->raw_sample, error);
}

/* The "sim" of a device object, read against the device's schema. */
bool read_device_sim(const cJSON *device_node, const std::string &path, DeviceDescription *device, bool own,
                     LoadError *error)
{
    const cJSON *sim = cJSON_GetObjectItemCaseSensitive(device_node, "sim");
    if (sim == nullptr) {
        return true;
    }
    device->has_sim = true;
    return read_sim(sim, path + ".sim", device->schema, own, &device->sim, error);
}

/* Everything of a parsed description; error->file is the file. */
bool read_document(const cJSON *root, Description *out, LoadError *error)
{
    if (!cJSON_IsObject(root)) {
        return gw_desc::fail(error, out->file, "document", "expected an object");
    }
    if (!gw_desc::parse_gateway(root, out->file, apps_sections(), &out->layout, error)) {
        return false;
    }
    out->gateway_id = out->layout.id;
    out->local_key = out->layout.local_key;
    const cJSON *connection = cJSON_GetObjectItemCaseSensitive(root, "connection");
    if (connection != nullptr && !read_connection(connection, out, error)) {
        return false;
    }
    const cJSON *devices = cJSON_GetObjectItemCaseSensitive(root, "devices");
    const size_t count = out->layout.devices.size() + 1;
    out->devices.reserve(count); /* 10,000 devices: no growth slack, no copies */
    for (size_t i = 0; i < count; ++i) {
        DeviceDescription device;
        device.schema = schema_of(i == 0 ? out->layout.own : out->layout.devices[i - 1]);
        const cJSON *node = i == 0 ? cJSON_GetObjectItemCaseSensitive(root, "gateway")
                                   : cJSON_GetArrayItem(devices, static_cast<int>(i - 1));
        const std::string path = i == 0 ? "gateway" : gw_desc::element_path("", "devices", static_cast<int>(i - 1));
        if (!read_device_sim(node, path, &device, i == 0, error)) {
            return false;
        }
        out->devices.push_back(std::move(device));
    }
    return true;
}

} // namespace

const DeviceDescription *Description::find(const std::string &id) const
{
    for (const DeviceDescription &device : devices) {
        if (device.schema.id == id) {
            return &device;
        }
    }
    return nullptr;
}

const gw_desc::OtherSections &apps_sections()
{
    static const gw_desc::OtherSections sections{{"connection"}, {"sim"}};
    return sections;
}

bool read_description_text(const std::string &text, const std::string &file, Description *out, std::string *error)
{
    LoadError why;
    why.file = file;
    out->file = file;
    const gw_desc::Json root = gw_desc::parse_text(text, file, &why);
    if (root == nullptr || !read_document(root.get(), out, &why)) {
        *error = why.text();
        return false;
    }
    return true;
}

bool read_description(const std::string &file, Description *out, std::string *error)
{
    std::string text;
    LoadError why;
    if (!gw_desc::read_file(file, &text, &why)) {
        *error = why.text();
        return false;
    }
    return read_description_text(text, file, out, error);
}

} // namespace apps
