#include "plan.h"

#include <cjson/cJSON.h>
#include <strings.h>

#include <random>

namespace sfcloud {

namespace {

bool same_json(const std::string &a, const std::string &b)
{
    cJSON *x = cJSON_Parse(a.c_str());
    cJSON *y = cJSON_Parse(b.c_str());
    const bool same = apps::json_equal(x, y);
    cJSON_Delete(x);
    cJSON_Delete(y);
    return same;
}

std::string quoted_list(const std::vector<std::string> &items)
{
    std::string out;
    for (const std::string &item : items) {
        out += (out.empty() ? "" : ",") + apps::json_quote(item);
    }
    return "[" + out + "]";
}

/* Values of devices that must show up in reports (or query answers). */
class ValueMatcher : public Matcher {
public:
    using Wanted = std::map<std::string, std::map<int, std::string>>;
    ValueMatcher(Wanted wanted, const apps::Description *names, std::string expect, bool query_missing,
                 std::string gw_id)
        : wanted_(std::move(wanted)), names_(names), expect_(std::move(expect)), query_missing_(query_missing),
          gw_id_(std::move(gw_id))
    {
    }

    bool relevant(const Message &m) const override
    {
        return (m.kind == Kind::REPORT || m.kind == Kind::ANSWER) && wanted_.count(m.cid) != 0;
    }

    Verdict feed(const Message &m) override
    {
        if (!relevant(m)) {
            return {};
        }
        std::map<int, std::string> &want = wanted_[m.cid];
        bool any = false;
        for (const auto &dp : m.dps) {
            auto found = want.find(dp.first);
            if (found == want.end()) {
                continue;
            }
            any = true;
            const bool match = same_json(found->second, dp.second);
            seen_[m.cid][dp.first] = match ? (m.kind == Kind::ANSWER ? "echo" : "report") : "";
        }
        if (any && !complete()) {
            partial_ = true;
        }
        if (!complete()) {
            return {};
        }
        const bool all_echo = everything_is("echo");
        const bool no_echo = nothing_is("echo");
        if (expect_ == "echo" && !all_echo) {
            return {Verdict::FAILED, "the device reported new values: the command changed something"};
        }
        if (expect_ == "report" && !no_echo) {
            return {Verdict::FAILED, "the gateway echoed the current values: the command changed nothing"};
        }
        return {Verdict::OK, all_echo ? "echo" : "report"};
    }

    bool follow_up(std::string *kind, std::string *document) override
    {
        /* values that did not change are not reported again: ask for them once */
        if (!query_missing_ || !partial_ || asked_) {
            return false;
        }
        asked_ = true;
        const auto &device = *wanted_.begin();
        std::string dpids;
        for (const auto &dp : device.second) {
            if (seen_[device.first][dp.first].empty()) {
                dpids += (dpids.empty() ? "" : ",") + std::to_string(dp.first);
            }
        }
        *kind = "query";
        *document = "{\"cids\":" + (device.first == gw_id_ ? std::string("null") : quoted_list({device.first})) +
                    ",\"dpids\":[" + dpids + "]}";
        return true;
    }

    std::string missing() const override
    {
        std::string out;
        for (const auto &device : wanted_) {
            for (const auto &dp : device.second) {
                const auto seen = seen_.find(device.first);
                if (seen == seen_.end() || seen->second.count(dp.first) == 0 || seen->second.at(dp.first).empty()) {
                    out += (out.empty() ? "" : ", ") + device.first + " " + dp_label(names_, device.first, dp.first) +
                           "=" + dp.second;
                }
            }
        }
        return "no report of " + out;
    }

private:
    bool complete() const { return nothing_is(""); }
    bool nothing_is(const std::string &how) const
    {
        for (const auto &device : wanted_) {
            for (const auto &dp : device.second) {
                const auto seen = seen_.find(device.first);
                const bool present = seen != seen_.end() && seen->second.count(dp.first) != 0;
                if ((!present && how.empty()) || (present && seen->second.at(dp.first) == how)) {
                    return false;
                }
            }
        }
        return true;
    }
    bool everything_is(const std::string &how) const
    {
        for (const auto &device : seen_) {
            for (const auto &dp : device.second) {
                if (dp.second != how) {
                    return false;
                }
            }
        }
        return true;
    }

    Wanted wanted_;
    std::map<std::string, std::map<int, std::string>> seen_; /* "report", "echo", or "" (other value) */
    const apps::Description *names_;
    std::string expect_;
    bool query_missing_;
    std::string gw_id_;
    bool partial_ = false;
    bool asked_ = false;
};

class PresenceMatcher : public Matcher {
public:
    PresenceMatcher(std::vector<std::string> devices, bool online) : devices_(std::move(devices)), online_(online) {}
    bool relevant(const Message &m) const override { return m.kind == Kind::PRESENCE; }
    Verdict feed(const Message &m) override
    {
        if (!relevant(m)) {
            return {};
        }
        for (const std::string &id : m.online) {
            state_[id] = true;
        }
        for (const std::string &id : m.offline) {
            state_[id] = false;
        }
        for (const std::string &id : devices_) {
            if (state_.count(id) == 0 || state_[id] != online_) {
                return {};
            }
        }
        return {Verdict::OK, online_ ? "online" : "offline"};
    }
    std::string missing() const override
    {
        std::string out;
        for (const std::string &id : devices_) {
            const auto found = state_.find(id);
            if (found == state_.end() || found->second != online_) {
                out += (out.empty() ? "" : ", ") + id;
            }
        }
        return "no presence batch listed " + out + (online_ ? " online" : " offline");
    }

private:
    std::vector<std::string> devices_;
    bool online_;
    std::map<std::string, bool> state_;
};

class EventMatcher : public Matcher {
public:
    EventMatcher(Kind kind, std::string cid, std::string token) : kind_(kind), cid_(std::move(cid)), token_(std::move(token)) {}
    bool relevant(const Message &m) const override
    {
        return m.kind == kind_ && m.cid == cid_ && (token_.empty() || m.token == token_);
    }
    Verdict feed(const Message &m) override
    {
        if (!relevant(m)) {
            return {};
        }
        if (kind_ == Kind::CONTROL && !m.flag) {
            return {Verdict::FAILED, "the simulator has no sub-device " + cid_};
        }
        return {Verdict::OK, kind_name(kind_)};
    }
    std::string missing() const override
    {
        return kind_ == Kind::PROBE ? "no heartbeat probe of " + cid_
                                    : "no answer from the simulator (is sfgw running with this description?)";
    }

private:
    Kind kind_;
    std::string cid_;
    std::string token_;
};

class ResultMatcher : public Matcher {
public:
    ResultMatcher(Kind kind, int action, std::string gid, std::string sid, std::vector<std::string> cids)
        : kind_(kind), action_(action), gid_(std::move(gid)), sid_(std::move(sid)), cids_(std::move(cids))
    {
    }
    bool relevant(const Message &m) const override
    {
        return m.kind == kind_ && m.gid == gid_ && m.action == action_ && (kind_ != Kind::SCENE || m.sid == sid_);
    }
    Verdict feed(const Message &m) override
    {
        if (!relevant(m)) {
            return {};
        }
        std::string failed;
        for (size_t i = 0; i < m.rets.size(); ++i) {
            if (m.rets[i] != 0) {
                failed += (failed.empty() ? "" : ", ") + (i < cids_.size() ? cids_[i] : "#" + std::to_string(i + 1)) +
                          " answered " + std::to_string(m.rets[i]);
            }
        }
        if (m.rets.size() != cids_.size()) {
            return {Verdict::FAILED, std::to_string(m.rets.size()) + " results for " + std::to_string(cids_.size()) + " devices"};
        }
        if (!failed.empty()) {
            return {Verdict::FAILED, failed};
        }
        std::string each;
        for (const std::string &cid : cids_) {
            each += (each.empty() ? "" : " ") + cid + "=0";
        }
        return {Verdict::OK, "every device answered 0: " + each};
    }
    std::string missing() const override
    {
        return std::string("no ") + (kind_ == Kind::GROUP ? "group" : "scene") + " answer for group " + gid_;
    }

private:
    Kind kind_;
    int action_;
    std::string gid_, sid_;
    std::vector<std::string> cids_;
};

class Planner {
public:
    Planner(const Options &options, const apps::Description *names, const std::string &gw_id, std::string *why)
        : opt_(options), names_(names), gw_id_(gw_id), why_(why)
    {
    }

    bool device(const std::string &word, std::string *id)
    {
        if (word == "gateway" || strcasecmp(word.c_str(), gw_id_.c_str()) == 0) {
            *id = gw_id_;
            return true;
        }
        if (names_ != nullptr && names_->find(word) == nullptr) {
            std::string known;
            for (const apps::DeviceDescription &d : names_->devices) {
                known += (known.empty() ? "" : ", ") + d.schema.id;
            }
            return fail("unknown device " + word + " (the description has " + known + ")");
        }
        *id = word;
        return true;
    }

    const apps::DpSchema *dp(const std::string &dev, const std::string &word, int *dpid)
    {
        const apps::DeviceDescription *device = names_ != nullptr ? names_->find(dev) : nullptr;
        const apps::DpSchema *schema = device != nullptr ? device->schema.find(word) : nullptr;
        if (schema != nullptr) {
            *dpid = schema->id;
            return schema;
        }
        char *end = nullptr;
        const long number = std::strtol(word.c_str(), &end, 10);
        if (device == nullptr && !word.empty() && *end == '\0' && number >= 1 && number <= 255) {
            *dpid = static_cast<int>(number);
            return nullptr;
        }
        fail(device != nullptr ? "device " + dev + " has no DP " + word
                               : "DP " + word + ": give a number 1..255 (no description to look names up)");
        return nullptr;
    }

    /* DP=VALUE into the DP's number and JSON value */
    bool assignment(const std::string &dev, const std::string &word, int *dpid, std::string *json)
    {
        const size_t eq = word.find('=');
        if (eq == std::string::npos || eq == 0) {
            return fail("expected DP=VALUE, got " + word);
        }
        const std::string value = word.substr(eq + 1);
        const apps::DpSchema *schema = dp(dev, word.substr(0, eq), dpid);
        if (!ok()) {
            return false;
        }
        if (schema == nullptr) {
            cJSON *parsed = cJSON_Parse(value.c_str());
            *json = parsed != nullptr ? apps::json_text(parsed) : apps::json_quote(value);
            cJSON_Delete(parsed);
            return true;
        }
        std::string why;
        if (!apps::value_json_from_text(*schema, value, json, &why)) {
            return fail(dev + " " + schema->label() + ": " + why);
        }
        return true;
    }

    bool fail(const std::string &why)
    {
        if (why_->empty()) {
            *why_ = why;
        }
        return false;
    }
    bool ok() const { return why_->empty(); }

    const Options &opt_;
    const apps::Description *names_;
    const std::string &gw_id_;
    std::string *why_;
};

std::string new_token()
{
    std::random_device seed;
    return std::to_string(seed());
}

bool plan_set(Planner &p, const std::vector<std::string> &args, Plan *out)
{
    std::string dev;
    if (args.size() < 2) {
        return p.fail("set: expected DEV DP=VALUE...");
    }
    if (!p.device(args[0], &dev)) {
        return false;
    }
    std::map<int, std::string> values;
    std::string dps;
    for (size_t i = 1; i < args.size(); ++i) {
        int dpid = 0;
        std::string json;
        if (!p.assignment(dev, args[i], &dpid, &json)) {
            return false;
        }
        const apps::DeviceDescription *device = p.names_ != nullptr ? p.names_->find(dev) : nullptr;
        const apps::DpSchema *schema = device != nullptr ? device->schema.find(dpid) : nullptr;
        if (schema != nullptr && schema->mode == "ro") {
            return p.fail(dev + " " + schema->label() + " is read-only");
        }
        if (schema != nullptr && schema->mode == "wr" && p.opt_.expect != "any") {
            return p.fail(dev + " " + schema->label() + " is never reported: use --expect any");
        }
        dps += (dps.empty() ? "" : ",") + std::string("\"") + std::to_string(dpid) + "\":" + json;
        /* a device reports raw DPs back as it got them, base64 text like the command's */
        if (schema == nullptr || (schema->mode != "wr" && schema->type != "file")) {
            values[dpid] = json;
        }
    }
    out->send_kind = "dp";
    out->document = (dev == p.gw_id_ ? std::string("{") : "{\"devId\":" + apps::json_quote(dev) + ",") + "\"dps\":{" + dps + "}}";
    out->matcher = std::make_unique<ValueMatcher>(ValueMatcher::Wanted{{dev, values}}, p.names_, p.opt_.expect, true,
                                                  p.gw_id_);
    if (values.empty()) {
        out->matcher.reset(); /* nothing the device reports back: sending is all */
    }
    return true;
}

bool plan_query(Planner &p, const std::vector<std::string> &args, Plan *out)
{
    std::string dev;
    if (args.empty()) {
        return p.fail("query: expected DEV [DP...]");
    }
    if (!p.device(args[0], &dev)) {
        return false;
    }
    std::vector<int> dpids;
    for (size_t i = 1; i < args.size(); ++i) {
        int dpid = 0;
        p.dp(dev, args[i], &dpid);
        if (!p.ok()) {
            return false;
        }
        dpids.push_back(dpid);
    }
    const apps::DeviceDescription *device = p.names_ != nullptr ? p.names_->find(dev) : nullptr;
    if (dpids.empty()) {
        if (device == nullptr) {
            return p.fail("query: name the DPs (no description to list them)");
        }
        for (const apps::DpSchema &dp : device->schema.dps) {
            /* a passive DP of a preprocessing device stays held back until a command releases it */
            const bool held = dp.passive && device->schema.preprocess;
            if (dp.type == "obj" && dp.mode != "wr" && !held) {
                dpids.push_back(dp.id);
            }
        }
    }
    std::string list;
    std::map<int, std::string> wanted;
    for (int dpid : dpids) {
        list += (list.empty() ? "" : ",") + std::to_string(dpid);
        wanted[dpid] = "";
    }
    out->send_kind = "query";
    out->document = "{\"cids\":" + (dev == p.gw_id_ ? std::string("null") : quoted_list({dev})) + ",\"dpids\":[" + list + "]}";
    /* any value will do: a matcher that accepts every value of the wanted DPs */
    class AnyValue : public Matcher {
    public:
        AnyValue(std::string dev, std::map<int, std::string> wanted, const apps::Description *names)
            : dev_(std::move(dev)), wanted_(std::move(wanted)), names_(names) {}
        bool relevant(const Message &m) const override { return m.kind == Kind::REPORT && m.cid == dev_; }
        Verdict feed(const Message &m) override
        {
            if (relevant(m)) {
                for (const auto &dp : m.dps) {
                    wanted_.erase(dp.first);
                }
            }
            return wanted_.empty() ? Verdict{Verdict::OK, "report"} : Verdict{};
        }
        std::string missing() const override
        {
            std::string out;
            for (const auto &dp : wanted_) {
                out += (out.empty() ? "" : ", ") + dp_label(names_, dev_, dp.first);
            }
            const apps::DeviceDescription *device = names_ != nullptr ? names_->find(dev_) : nullptr;
            const bool may_hold = device != nullptr && device->schema.preprocess;
            return "no report of " + dev_ + " " + out +
                   (may_hold ? " (passive DPs of this device report only after a command released them)" : "");
        }

    private:
        std::string dev_;
        std::map<int, std::string> wanted_;
        const apps::Description *names_;
    };
    out->matcher = std::make_unique<AnyValue>(dev, wanted, p.names_);
    return true;
}

bool plan_membership(Planner &p, bool scene, const std::vector<std::string> &args, Plan *out)
{
    const size_t fixed = scene ? 3 : 2;
    const char *shape = scene ? "scene add|del GID SID DEV..." : "group add|del GID DEV...";
    if (args.size() < fixed + 1 || (args[0] != "add" && args[0] != "del")) {
        return p.fail(std::string("expected ") + shape);
    }
    const int action = args[0] == "add" ? 0 : 1;
    const std::string gid = args[1];
    const std::string sid = scene ? args[2] : "";
    std::vector<std::string> cids;
    for (size_t i = fixed; i < args.size(); ++i) {
        std::string dev;
        if (!p.device(args[i], &dev)) {
            return false;
        }
        cids.push_back(dev);
    }
    out->send_kind = scene ? "scene" : "group";
    out->document = "{\"action\":" + std::to_string(action) + ",\"cids\":" + quoted_list(cids) +
                    (scene ? ",\"sid\":" + apps::json_quote(sid) : std::string()) + ",\"gid\":" + apps::json_quote(gid) + "}";
    out->matcher = std::make_unique<ResultMatcher>(scene ? Kind::SCENE : Kind::GROUP, action, gid, sid, cids);
    return true;
}

bool plan_wait(Planner &p, const std::vector<std::string> &args, Plan *out)
{
    if (args.size() < 2) {
        return p.fail("wait: expected online|offline DEV..., report DEV DP=VALUE... or probe DEV");
    }
    std::vector<std::string> devices;
    if (args[0] == "online" || args[0] == "offline" || args[0] == "probe") {
        for (size_t i = 1; i < args.size(); ++i) {
            std::string dev;
            if (!p.device(args[i], &dev)) {
                return false;
            }
            devices.push_back(dev);
        }
        out->needs_mqtt = true;
        if (args[0] == "probe") {
            if (devices.size() != 1) {
                return p.fail("wait probe: expected one DEV");
            }
            out->matcher = std::make_unique<EventMatcher>(Kind::PROBE, devices[0], "");
        } else {
            out->matcher = std::make_unique<PresenceMatcher>(devices, args[0] == "online");
        }
        return true;
    }
    if (args[0] != "report") {
        return p.fail("wait: unknown kind " + args[0] + " (online, offline, report, probe)");
    }
    ValueMatcher::Wanted wanted;
    std::string dev;
    for (size_t i = 1; i < args.size(); ++i) {
        if (args[i].find('=') == std::string::npos) {
            if (!p.device(args[i], &dev)) {
                return false;
            }
            continue;
        }
        if (dev.empty()) {
            return p.fail("wait report: name the device before " + args[i]);
        }
        int dpid = 0;
        std::string json;
        if (!p.assignment(dev, args[i], &dpid, &json)) {
            return false;
        }
        wanted[dev][dpid] = json;
    }
    if (wanted.empty()) {
        return p.fail("wait report: expected DEV DP=VALUE...");
    }
    out->matcher = std::make_unique<ValueMatcher>(wanted, p.names_, "any", false, p.gw_id_);
    return true;
}

} // namespace

bool make_plan(const Options &options, const apps::Description *names, const std::string &gw_id, Plan *out,
               std::string *why)
{
    why->clear();
    Planner p(options, names, gw_id, why);
    out->command = options.words[0];
    const std::vector<std::string> args(options.words.begin() + 1, options.words.end());
    const std::string &command = out->command;
    if (command == "watch" || command == "subscribe") {
        if (!args.empty()) {
            return p.fail(command + ": takes no arguments");
        }
        if (command == "subscribe" && options.session.empty()) {
            return p.fail("subscribe: needs --session NAME");
        }
        return true;
    }
    if (command == "set") {
        return plan_set(p, args, out);
    }
    if (command == "query") {
        return plan_query(p, args, out);
    }
    if (command == "group" || command == "scene") {
        return plan_membership(p, command == "scene", args, out);
    }
    if (command == "wait") {
        return plan_wait(p, args, out);
    }
    if (command == "silence" || command == "wake") {
        std::string dev;
        if (args.size() != 1) {
            return p.fail(command + ": expected one DEV");
        }
        if (!p.device(args[0], &dev)) {
            return false;
        }
        if (dev == gw_id) {
            return p.fail(command + ": the gateway itself is no simulated sub-device");
        }
        const std::string token = new_token();
        out->needs_mqtt = true;
        out->send_kind = "sim";
        out->document = "{\"cid\":" + apps::json_quote(dev) + ",\"silent\":" + (command == "silence" ? "true" : "false") +
                        ",\"token\":" + apps::json_quote(token) + "}";
        out->matcher = std::make_unique<EventMatcher>(Kind::CONTROL, dev, token);
        return true;
    }
    return p.fail("unknown command " + command + " (see sfcloud --help)");
}

} // namespace sfcloud
