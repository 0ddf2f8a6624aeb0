#include "watch.h"

#include <cjson/cJSON.h>

#include "plan.h"

namespace sfcloud {

DeviceTable::DeviceTable(const apps::Description *names) : names_(names)
{
    if (names != nullptr) {
        for (const apps::DeviceDescription &device : names->devices) {
            row(device.schema.id);
        }
        rows_[names->gateway_id].presence = "gateway";
    }
}

DeviceTable::Row &DeviceTable::row(const std::string &id)
{
    if (rows_.count(id) == 0) {
        order_.push_back(id);
    }
    return rows_[id];
}

void DeviceTable::fold(const Message &m)
{
    switch (m.kind) {
    case Kind::REPORT:
    case Kind::ANSWER:
        for (const auto &dp : m.dps) {
            row(m.cid).values[dp.first] = dp.second;
        }
        break;
    case Kind::PRESENCE:
        for (const std::string &id : m.online) {
            row(id).presence = "online";
        }
        for (const std::string &id : m.offline) {
            row(id).presence = "offline";
        }
        break;
    case Kind::STATUS:
        if (status_is_current(m.session, &newest_session_[m.cid])) {
            row(m.cid).presence = m.flag ? "gateway" : "gw down";
        }
        break;
    default: break;
    }
}

std::string DeviceTable::render() const
{
    char line[128];
    std::snprintf(line, sizeof line, "%-12s %-8s %s\n", "DEVICE", "PRESENCE", "LAST KNOWN VALUES");
    std::string out = line;
    for (const std::string &id : order_) {
        const Row &r = rows_.at(id);
        std::string values;
        for (const auto &dp : r.values) {
            cJSON *value = cJSON_Parse(dp.second.c_str());
            const apps::DeviceDescription *device = names_ != nullptr ? names_->find(id) : nullptr;
            values += (values.empty() ? "" : "  ") + dp_label(names_, id, dp.first) + "=" +
                      apps::display_value(device != nullptr ? device->schema.find(dp.first) : nullptr, value);
            cJSON_Delete(value);
        }
        std::snprintf(line, sizeof line, "%-12s %-8s ", id.c_str(), r.presence.c_str());
        out += line + values + "\n";
    }
    return out;
}

int watch(const Options &options, const apps::Description *names, Link &link, FILE *out)
{
    using Clock = std::chrono::steady_clock;
    const Deadline end = options.for_s > 0 ? Clock::now() + std::chrono::seconds(options.for_s)
                                           : Clock::now() + std::chrono::hours(24 * 365);
    DeviceTable table(names);
    if (options.table && names != nullptr) {
        /* fill the table at once: every device answers a query with its current values */
        for (const apps::DeviceDescription &device : names->devices) {
            Options ask = options;
            ask.words = {"query", device.schema.id};
            Plan plan;
            std::string why;
            if (device.schema.bind && make_plan(ask, names, names->gateway_id, &plan, &why) &&
                plan.document.find("[]") == std::string::npos) {
                link.send(plan.send_kind, plan.document, &why);
            }
        }
    }
    std::deque<std::string> recent;
    int seen = 0;
    Message m;
    while (link.next(&m, end)) {
        const std::string line = options.json ? to_json(m, names) : describe(m, names);
        table.fold(m);
        if (options.table) {
            recent.push_back(line);
            while (recent.size() > 15) {
                recent.pop_front();
            }
            std::string screen = "\033[H\033[2J" + table.render() + "\n";
            for (const std::string &r : recent) {
                screen += r + "\n";
            }
            std::fputs(screen.c_str(), out);
        } else {
            std::fprintf(out, "%s\n", line.c_str());
        }
        std::fflush(out);
        if (options.count > 0 && ++seen >= options.count) {
            break;
        }
    }
    if (!options.table && !options.json && seen > 0) {
        std::fprintf(out, "\n%s", table.render().c_str());
    }
    return EXIT_OK;
}

} // namespace sfcloud
