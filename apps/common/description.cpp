#include "description.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include "json_reader.h"

namespace apps {

namespace {

/* Parse, or say where the text stops being JSON. */
Json parse_json(const std::string &text, const std::string &file, std::string *error)
{
    const char *end = nullptr;
    Json root(cJSON_ParseWithOpts(text.c_str(), &end, 1));
    if (root != nullptr) {
        return root;
    }
    size_t offset = end != nullptr && end >= text.c_str() ? static_cast<size_t>(end - text.c_str()) : 0;
    if (offset > text.size()) {
        offset = text.size();
    }
    int line = 1;
    int column = 1;
    for (size_t i = 0; i < offset; ++i) {
        if (text[i] == '\n') {
            ++line;
            column = 1;
        } else {
            ++column;
        }
    }
    *error = file + ": not valid JSON (near line " + std::to_string(line) + ", column " + std::to_string(column) + ")";
    return nullptr;
}

bool read_mqtt(const cJSON *node, MqttSettings *mqtt, std::string *error)
{
    JsonReader r(node, "connection.mqtt", error);
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
    number = mqtt->protocol;
    if (r.integer("protocol", false, 0, 311, &number)) {
        if (number != 0 && number != 5 && number != 311) {
            r.fail("protocol", "expected 5 or 311, got " + std::to_string(number));
        } else {
            mqtt->protocol = static_cast<int>(number);
        }
    }
    if (r.ok() && mqtt->topic_root.empty()) {
        r.fail("topic_root", "empty");
    }
    return r.no_unknown_keys();
}

bool read_lan(const cJSON *node, LanSettings *lan, std::string *error)
{
    JsonReader r(node, "connection.lan", error);
    long long number = lan->port;
    r.boolean("enabled", false, &lan->enabled);
    r.text("bind_addr", false, &lan->bind_addr);
    if (r.integer("port", false, 0, 65535, &number)) {
        lan->port = static_cast<int>(number);
    }
    return r.no_unknown_keys();
}

bool read_connection(const cJSON *node, Description *out, std::string *error)
{
    JsonReader r(node, "connection", error);
    const cJSON *mqtt = r.object("mqtt", false);
    const cJSON *lan = r.object("lan", false);
    if (!r.no_unknown_keys()) {
        return false;
    }
    return (mqtt == nullptr || read_mqtt(mqtt, &out->mqtt, error)) && (lan == nullptr || read_lan(lan, &out->lan, error));
}

/* A DP named by its name or number, which must exist in the device. */
const DpSchema *dp_ref(JsonReader &r, const char *key, bool required, const DeviceSchema &device)
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
        r.fail(key, "expected a DP name or number");
        return nullptr;
    }
    const DpSchema *dp = device.find(ref);
    if (dp == nullptr) {
        r.fail(key, "no DP \"" + ref + "\" in the device");
    }
    return dp;
}

bool read_drift(const cJSON *node, const std::string &path, const DeviceSchema &device, DriftSettings *drift,
                std::string *error)
{
    JsonReader r(node, path, error);
    const DpSchema *dp = dp_ref(r, "dp", true, device);
    const DpSchema *toward = dp_ref(r, "toward", false, device);
    long long number = drift->every_s;
    r.integer("step", false, 1, 1000000, &drift->step);
    if (r.integer("every_s", false, 1, 3600, &number)) {
        drift->every_s = static_cast<int>(number);
    }
    if (dp != nullptr && dp->prop != "value") {
        return r.fail("dp", "a drifting DP must be a value DP");
    }
    if (toward != nullptr && toward->prop != "value") {
        return r.fail("toward", "the set point must be a value DP");
    }
    drift->dp = dp != nullptr ? dp->id : 0;
    drift->toward = toward != nullptr ? toward->id : 0;
    return r.no_unknown_keys();
}

bool read_raw_sample(const cJSON *node, const std::string &path, const DeviceSchema &device,
                     RawSampleSettings *raw, std::string *error)
{
    JsonReader r(node, path, error);
    const DpSchema *dp = dp_ref(r, "dp", true, device);
    long long number = raw->every_s;
    if (r.integer("every_s", false, 1, 3600, &number)) {
        raw->every_s = static_cast<int>(number);
    }
    if (dp != nullptr && dp->type != "raw") {
        return r.fail("dp", "a raw sample needs a raw DP");
    }
    raw->dp = dp != nullptr ? dp->id : 0;
    return r.no_unknown_keys();
}

bool read_initial(const cJSON *node, const std::string &path, const DeviceSchema &device, SimSettings *sim,
                  std::string *error)
{
    for (const cJSON *item = node->child; item != nullptr; item = item->next) {
        const DpSchema *dp = device.find(item->string);
        const std::string at = path + "." + item->string;
        if (dp == nullptr) {
            *error = at + ": no DP \"" + item->string + "\" in the device";
            return false;
        }
        std::string why;
        if (!value_fits(*dp, item, &why)) {
            *error = at + ": " + why;
            return false;
        }
        sim->initial.emplace_back(dp->id, json_text(item));
    }
    return true;
}

bool read_sim(const cJSON *node, const std::string &path, const DeviceSchema &device, bool own,
              SimSettings *sim, std::string *error)
{
    JsonReader r(node, path, error);
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
        return r.fail("heartbeat_s", "not below hb_timeout_s: the device would look silent");
    }
    if (initial != nullptr && !read_initial(initial, r.path_of("initial"), device, sim, error)) {
        return false;
    }
    sim->has_drift = drift != nullptr;
    if (drift != nullptr && !read_drift(drift, r.path_of("drift"), device, &sim->drift, error)) {
        return false;
    }
    sim->has_raw_sample = raw != nullptr;
    return raw == nullptr || read_raw_sample(raw, r.path_of("raw_sample"), device, &sim->raw_sample, error);
}

/* Takes "sim" out of a device object, reads it against the device's schema. */
bool take_sim(cJSON *device_node, const std::string &path, DeviceDescription *device, bool own, std::string *error)
{
    Json sim(cJSON_DetachItemFromObjectCaseSensitive(device_node, "sim"));
    if (sim == nullptr) {
        return true;
    }
    device->has_sim = true;
    return read_sim(sim.get(), path + ".sim", device->schema, own, &device->sim, error);
}

bool strip(cJSON *root, const std::string &file, std::string *error)
{
    if (!cJSON_IsObject(root)) {
        *error = file + ": document: expected an object";
        return false;
    }
    cJSON_Delete(cJSON_DetachItemFromObjectCaseSensitive(root, "connection"));
    cJSON_Delete(cJSON_DetachItemFromObjectCaseSensitive(cJSON_GetObjectItemCaseSensitive(root, "gateway"), "sim"));
    const cJSON *devices = cJSON_GetObjectItemCaseSensitive(root, "devices");
    if (cJSON_IsArray(devices)) {
        for (cJSON *item = devices->child; item != nullptr; item = item->next) {
            if (cJSON_IsObject(item)) {
                cJSON_Delete(cJSON_DetachItemFromObjectCaseSensitive(item, "sim"));
            }
        }
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

bool read_file(const std::string &file, std::string *text, std::string *error)
{
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        *error = file + ": cannot read the file: " + std::strerror(errno);
        return false;
    }
    std::ostringstream content;
    content << in.rdbuf();
    *text = content.str();
    return true;
}

bool registry_text_of(const std::string &text, const std::string &file, std::string *out, std::string *error)
{
    Json root = parse_json(text, file, error);
    if (root == nullptr || !strip(root.get(), file, error)) {
        return false;
    }
    *out = json_text(root.get());
    return true;
}

bool read_description_text(const std::string &text, const std::string &file, Description *out, std::string *error)
{
    Json root = parse_json(text, file, error);
    if (root == nullptr) {
        return false;
    }
    out->file = file;
    std::string why;
    std::vector<DeviceSchema> schemas;
    Json plain(cJSON_Duplicate(root.get(), 1));
    if (plain == nullptr || !strip(plain.get(), file, error)) {
        return false;
    }
    if (!read_schemas(plain.get(), &schemas, &why)) {
        *error = file + ": " + why;
        return false;
    }
    out->registry_text = json_text(plain.get());
    out->gateway_id = schemas[0].id;
    const cJSON *key = cJSON_GetObjectItemCaseSensitive(cJSON_GetObjectItemCaseSensitive(root.get(), "gateway"),
                                                        "local_key");
    out->local_key = cJSON_IsString(key) ? key->valuestring : "";

    const cJSON *connection = cJSON_GetObjectItemCaseSensitive(root.get(), "connection");
    if (connection != nullptr && !read_connection(connection, out, &why)) {
        *error = file + ": " + why;
        return false;
    }
    cJSON *gateway = cJSON_GetObjectItemCaseSensitive(root.get(), "gateway");
    const cJSON *devices = cJSON_GetObjectItemCaseSensitive(root.get(), "devices");
    out->devices.reserve(schemas.size()); /* 10,000 devices: no growth slack, no copies */
    for (size_t i = 0; i < schemas.size(); ++i) {
        DeviceDescription device;
        device.schema = std::move(schemas[i]);
        cJSON *node = i == 0 ? gateway : cJSON_GetArrayItem(devices, static_cast<int>(i - 1));
        const std::string path = i == 0 ? "gateway" : element_path("", "devices", static_cast<int>(i - 1));
        if (!take_sim(node, path, &device, i == 0, &why)) {
            *error = file + ": " + why;
            return false;
        }
        out->devices.push_back(std::move(device));
    }
    return true;
}

bool read_description(const std::string &file, Description *out, std::string *error)
{
    std::string text;
    return read_file(file, &text, error) && read_description_text(text, file, out, error);
}

} // namespace apps
