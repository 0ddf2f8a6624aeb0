/*
 * sfcloud watch: every message decoded as it arrives, and with --table a
 * live table of each device's last known values and presence above the
 * latest messages.
 */
#ifndef SFCLOUD_WATCH_H
#define SFCLOUD_WATCH_H

#include <cstdio>
#include <deque>
#include <map>
#include <string>

#include "link.h"
#include "options.h"

namespace sfcloud {

/* What the cloud knows of every device, folded from the messages. */
class DeviceTable {
public:
    explicit DeviceTable(const apps::Description *names);
    void fold(const Message &m);
    /* The table as text, one line per device. */
    std::string render() const;

private:
    struct Row {
        std::string presence = "?";
        std::map<int, std::string> values;
    };
    const apps::Description *names_;
    std::map<std::string, Row> rows_;
    std::vector<std::string> order_;
    std::map<std::string, long long> newest_session_; /* per gateway: older statuses are ignored */
    Row &row(const std::string &id);
};

/* Runs until --count messages, --for seconds, or the link ends. Returns the exit code. */
int watch(const Options &options, const apps::Description *names, Link &link, FILE *out);

} // namespace sfcloud

#endif /* SFCLOUD_WATCH_H */
