#include "uplink.h"

#include <cjson/cJSON.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "common/json_reader.h"

namespace sfcloud {

using apps::Json;

namespace {

const cJSON *get(const cJSON *object, const char *key) { return cJSON_GetObjectItemCaseSensitive(object, key); }

std::string text_of(const cJSON *node) { return cJSON_IsString(node) ? node->valuestring : ""; }

std::vector<std::string> texts_of(const cJSON *array)
{
    std::vector<std::string> out;
    for (const cJSON *item = cJSON_IsArray(array) ? array->child : nullptr; item != nullptr; item = item->next) {
        out.push_back(text_of(item));
    }
    return out;
}

/* The envelope {"dps":{...},"cid":"..."}: the gateway's own DPs carry no cid. */
void read_envelope(const cJSON *data, const std::string &gateway_id, Message *out)
{
    const cJSON *cid = get(data, "cid");
    out->cid = cJSON_IsString(cid) ? cid->valuestring : gateway_id;
    const cJSON *dps = get(data, "dps");
    for (const cJSON *dp = cJSON_IsObject(dps) ? dps->child : nullptr; dp != nullptr; dp = dp->next) {
        out->dps[std::atoi(dp->string)] = apps::json_text(dp);
    }
}

void read_answer(const cJSON *data, Message *out)
{
    const cJSON *action = get(data, "action");
    out->action = cJSON_IsNumber(action) ? action->valueint : -1;
    out->gid = text_of(get(data, "gid"));
    out->sid = text_of(get(data, "sid"));
    out->cids = texts_of(get(data, "cids"));
    const cJSON *rets = get(data, "rets");
    for (const cJSON *ret = cJSON_IsArray(rets) ? rets->child : nullptr; ret != nullptr; ret = ret->next) {
        out->rets.push_back(static_cast<long long>(ret->valuedouble));
    }
}

bool decode_uplink(const cJSON *root, const std::string &gateway_id, Message *out)
{
    const cJSON *serno = get(root, "serno");
    const cJSON *pro = get(root, "pro");
    const cJSON *data = get(root, "data");
    out->serno = cJSON_IsNumber(serno) ? static_cast<long long>(serno->valuedouble) : -1;
    out->pro = cJSON_IsNumber(pro) ? pro->valueint : 0;
    switch (out->pro) {
    case 4:
        out->kind = get(data, "mbid") != nullptr || get(data, "ctype") != nullptr ? Kind::MULTI : Kind::REPORT;
        read_envelope(data, gateway_id, out);
        break;
    case 16:
        out->kind = Kind::ANSWER;
        read_envelope(data, gateway_id, out);
        break;
    case 25:
        out->kind = Kind::PRESENCE;
        out->online = texts_of(get(data, "online"));
        out->offline = texts_of(get(data, "offline"));
        break;
    case 203:
        out->kind = Kind::GROUP;
        read_answer(data, out);
        break;
    case 205:
        out->kind = Kind::SCENE;
        read_answer(data, out);
        break;
    default: out->kind = Kind::OTHER;
    }
    return true;
}

bool decode_event(const cJSON *root, Message *out)
{
    const std::string event = text_of(get(root, "event"));
    out->cid = text_of(get(root, "cid"));
    out->token = text_of(get(root, "token"));
    if (event == "probe") {
        out->kind = Kind::PROBE;
        out->flag = cJSON_IsTrue(get(root, "answered"));
    } else if (event == "control") {
        out->kind = Kind::CONTROL;
        out->flag = cJSON_IsTrue(get(root, "ok"));
        out->action = cJSON_IsTrue(get(root, "silent")) ? 1 : 0;
    }
    return true;
}

std::string join(const std::vector<std::string> &items)
{
    std::string out;
    for (const std::string &item : items) {
        out += (out.empty() ? "" : ", ") + item;
    }
    return out.empty() ? "-" : out;
}

const apps::DpSchema *schema_of(const apps::Description *names, const std::string &cid, int dpid)
{
    const apps::DeviceDescription *device = names != nullptr ? names->find(cid) : nullptr;
    return device != nullptr ? device->schema.find(dpid) : nullptr;
}

std::string value_for_people(const apps::Description *names, const std::string &cid, int dpid, const std::string &json)
{
    Json value(cJSON_Parse(json.c_str()));
    return apps::display_value(schema_of(names, cid, dpid), value.get());
}

std::string results(const Message &m, const std::vector<std::string> &cids)
{
    if (cids.empty()) {
        /* a group answer names no devices: its codes follow the cids of the command */
        std::string codes;
        for (long long ret : m.rets) {
            codes += (codes.empty() ? "" : " ") + std::to_string(ret);
        }
        return "results " + codes + " (in the order of the command's cids)";
    }
    std::string out;
    for (size_t i = 0; i < m.rets.size(); ++i) {
        const std::string who = i < cids.size() ? cids[i] : "#" + std::to_string(i + 1);
        out += (out.empty() ? "" : " ") + who + "=" + std::to_string(m.rets[i]);
    }
    return out;
}

} // namespace

const char *kind_name(Kind kind)
{
    switch (kind) {
    case Kind::REPORT: return "report";
    case Kind::ANSWER: return "answer";
    case Kind::MULTI: return "multi";
    case Kind::PRESENCE: return "presence";
    case Kind::GROUP: return "group";
    case Kind::SCENE: return "scene";
    case Kind::PROBE: return "probe";
    case Kind::CONTROL: return "control";
    case Kind::STATUS: return "status";
    default: return "other";
    }
}

bool decode_mqtt(const apps::Topics &topics, const std::string &topic, const std::string &payload,
                 const std::string &gateway_id, Message *out)
{
    Json root(cJSON_Parse(payload.c_str()));
    if (!cJSON_IsObject(root.get())) {
        return false;
    }
    out->raw = payload;
    if (topic == topics.up()) {
        return decode_uplink(root.get(), gateway_id, out);
    }
    if (topic == topics.sim_event()) {
        return decode_event(root.get(), out);
    }
    if (topic == topics.status()) {
        out->kind = Kind::STATUS;
        out->cid = gateway_id;
        out->flag = cJSON_IsTrue(get(root.get(), "online"));
        const cJSON *session = get(root.get(), "session");
        out->session = cJSON_IsNumber(session) ? static_cast<long long>(session->valuedouble) : 0;
        return true;
    }
    return false;
}

bool status_is_current(long long session, long long *newest)
{
    if (session < *newest) {
        return false;
    }
    *newest = session;
    return true;
}

bool decode_lan(const std::string &frame, const std::string &gateway_id, Message *out)
{
    Json root(cJSON_Parse(frame.c_str()));
    if (!cJSON_IsObject(root.get())) {
        return false;
    }
    out->raw = frame;
    const cJSON *type = get(root.get(), "type");
    const cJSON *serno = get(root.get(), "serno");
    const cJSON *data = get(root.get(), "data");
    out->serno = cJSON_IsNumber(serno) ? static_cast<long long>(serno->valuedouble) : -1;
    out->pro = cJSON_IsNumber(type) ? type->valueint : 0;
    if (out->pro == 4) {
        out->kind = get(data, "mbid") != nullptr ? Kind::MULTI : Kind::REPORT;
        read_envelope(data, gateway_id, out);
    } else if (out->pro == 208) {
        out->kind = Kind::GROUP;
        read_answer(data, out);
    }
    return true;
}

std::string dp_label(const apps::Description *names, const std::string &cid, int dpid)
{
    const apps::DpSchema *dp = schema_of(names, cid, dpid);
    return dp != nullptr && !dp->name.empty() ? dp->name : std::to_string(dpid);
}

std::string describe(const Message &m, const apps::Description *names)
{
    const std::string head = (m.serno >= 0 ? "#" + std::to_string(m.serno) : std::string("--")) + " ";
    char kind[16];
    std::snprintf(kind, sizeof kind, "%-9s", kind_name(m.kind));
    std::string line = head + kind;
    switch (m.kind) {
    case Kind::REPORT:
    case Kind::ANSWER:
    case Kind::MULTI:
        line += m.cid;
        for (const auto &dp : m.dps) {
            line += " " + dp_label(names, m.cid, dp.first) + "=" + value_for_people(names, m.cid, dp.first, dp.second);
        }
        if (m.kind == Kind::ANSWER) {
            line += "   (current values: a query answer or the echo of a command that changed nothing)";
        }
        break;
    case Kind::PRESENCE: line += "online: " + join(m.online) + "   offline: " + join(m.offline); break;
    case Kind::GROUP:
        line += std::string(m.action == 0 ? "add" : "del") + " group " + m.gid + ": " + results(m, m.cids);
        break;
    case Kind::SCENE:
        line += std::string(m.action == 0 ? "add" : "del") + " scene " + m.sid + " of group " + m.gid + ": " +
                results(m, m.cids);
        break;
    case Kind::PROBE: line += m.cid + (m.flag ? " answered the heartbeat probe" : " did not answer the heartbeat probe (silent)"); break;
    case Kind::CONTROL:
        line += m.cid + (m.flag ? (m.action == 1 ? " is silent now" : " is awake again") : " refused: no such sub-device");
        break;
    case Kind::STATUS: line += "gateway " + m.cid + (m.flag ? " online" : " offline"); break;
    default: line += m.raw;
    }
    return line;
}

std::string to_json(const Message &m, const apps::Description *names)
{
    std::string out = "{\"kind\":\"" + std::string(kind_name(m.kind)) + "\"";
    if (m.serno >= 0) {
        out += ",\"serno\":" + std::to_string(m.serno);
    }
    if (m.pro != 0) {
        out += ",\"pro\":" + std::to_string(m.pro);
    }
    if (!m.cid.empty()) {
        out += ",\"cid\":" + apps::json_quote(m.cid);
    }
    switch (m.kind) {
    case Kind::REPORT:
    case Kind::ANSWER:
    case Kind::MULTI: {
        std::string dps;
        for (const auto &dp : m.dps) {
            dps += (dps.empty() ? "" : ",") + apps::json_quote(dp_label(names, m.cid, dp.first)) + ":" + dp.second;
        }
        out += ",\"dps\":{" + dps + "}";
        break;
    }
    case Kind::PRESENCE: {
        auto list = [](const std::vector<std::string> &ids) {
            std::string text;
            for (const std::string &id : ids) {
                text += (text.empty() ? "" : ",") + apps::json_quote(id);
            }
            return "[" + text + "]";
        };
        out += ",\"online\":" + list(m.online) + ",\"offline\":" + list(m.offline);
        break;
    }
    case Kind::GROUP:
    case Kind::SCENE: {
        std::string rets;
        for (long long ret : m.rets) {
            rets += (rets.empty() ? "" : ",") + std::to_string(ret);
        }
        out += ",\"action\":" + std::to_string(m.action) + ",\"gid\":" + apps::json_quote(m.gid);
        if (m.kind == Kind::SCENE) {
            out += ",\"sid\":" + apps::json_quote(m.sid);
        }
        out += ",\"rets\":[" + rets + "]";
        break;
    }
    case Kind::PROBE: out += std::string(",\"answered\":") + (m.flag ? "true" : "false"); break;
    case Kind::CONTROL:
        out += std::string(",\"silent\":") + (m.action == 1 ? "true" : "false") + ",\"ok\":" + (m.flag ? "true" : "false");
        break;
    case Kind::STATUS: out += std::string(",\"online\":") + (m.flag ? "true" : "false"); break;
    default: out += ",\"raw\":" + apps::json_quote(m.raw);
    }
    return out + "}";
}

} // namespace sfcloud
