#include "options.h"

#include "common/broker_address.h"
#include "common/broker_session.h"
#include "common/json_reader.h"

#include <cstdlib>
#include <map>

namespace sfcloud {

const char *usage_text()
{
    return "Usage: sfcloud [options] COMMAND [ARGS]\n"
           "\n"
           "The cloud's side of a smart frame gateway, over MQTT (docs/wire-protocol.md).\n"
           "DEV is a device id (the gateway's own id or \"gateway\" for the gateway), DP a\n"
           "DP name or number from the description.\n"
           "\n"
           "Commands:\n"
           "  health                       every gateway's health from its metrics document: link,\n"
           "                               pending values, drops, latency (--json: one object each)\n"
           "  watch                        show every uplink message decoded (--table: a live table,\n"
           "                               filled at start by a query to every device)\n"
           "  set DEV DP=VALUE...          command DPs; waits for the device's report or the echo\n"
           "  query DEV [DP...]            ask the device for DP values (all when none given)\n"
           "  group add|del GID DEV...     group operation; waits for the per-device results\n"
           "  scene add|del GID SID DEV... scene operation; waits for the per-device results\n"
           "  silence DEV | wake DEV       make a simulated sub-device silent, or wake it\n"
           "  wait online|offline DEV...   wait for presence batches that list the devices so\n"
           "  wait report DEV DP=VALUE... [DEV DP=VALUE...]   wait until these values are reported\n"
           "  wait probe DEV               wait for a heartbeat probe of the device\n"
           "  subscribe                    only open the --session (messages then wait for it)\n"
           "  serve                        the web console (docs/web-console.md) on --http, with an\n"
           "                               MQTT relay at /mqtt to the broker\n"
           "\n"
           "Options:\n"
           "  --description FILE  gateway description for names and defaults\n"
           "                      (default: $SF_DESCRIPTION, else examples/gateway.json)\n"
           "  --host HOST --port PORT   MQTT broker (default: the description's connection)\n"
           "  --broker HOST:PORT  a broker of a list, repeatable: the first given is tried first, the\n"
           "                      next when a connect fails or the connection is lost\n"
           "  --gw ID --root ROOT       gateway id and topic root (default: from the description)\n"
           "  --username U --password P --ca-file FILE   broker credentials and TLS\n"
           "  --lan HOST:PORT     speak to the gateway's LAN channel instead (set, query, group)\n"
           "  --lan-plain         the LAN channel speaks plain TCP (its security \"plain\"), not TLS 1.3\n"
           "  --key KEY           LAN key (default: the description's local_key)\n"
           "  --session NAME      persistent MQTT session: what arrives while away is kept\n"
           "  --expect report|echo|any   what set must see (default any)\n"
           "  --timeout SEC       how long to wait for the answer (default 10)\n"
           "  --count N --for SEC watch: stop after N messages or SEC seconds\n"
           "  --table             watch: a live table of every device's values and presence\n"
           "  --json              one JSON object per line, the last one the outcome\n"
           "  --http HOST:PORT    serve: address of the console (default 127.0.0.1:8080; port 0: any)\n"
           "  --web-root DIR      serve: the built page (default web/dist)\n"
           "  --max-clients N --max-frame BYTES   serve: relay bounds (default 16, 262144)\n"
           "  -h, --help          this text\n"
           "\n"
           "Exit status: 0 the gateway answered as expected, 1 it answered otherwise,\n"
           "2 bad command line, 3 no answer in time or no connection.\n";
}

std::vector<sf_mqtt::Broker> broker_list(const Options &options, const apps::MqttSettings &defaults)
{
    apps::MqttSettings named = defaults;
    named.ca_file = options.ca_file; // the console's own TLS setting picks the default port
    if (!options.brokers.empty() || !options.host.empty() || options.port != 0) {
        named.host = !options.host.empty() ? options.host : defaults.host;
        named.port = options.port != 0 ? options.port : defaults.port;
        named.brokers.clear();
        for (const auto &address : options.brokers) {
            named.brokers.push_back({address.first, address.second, "", "", "", "", ""});
        }
    }
    return apps::brokers_of(named);
}

bool parse_options(const std::vector<std::string> &args, Options *out, std::string *why)
{
    const std::map<std::string, std::string *> texts = {
        {"--description", &out->description}, {"--host", &out->host},         {"--gw", &out->gw},
        {"--root", &out->root},               {"--username", &out->username}, {"--password", &out->password},
        {"--ca-file", &out->ca_file},         {"--lan", &out->lan},           {"--key", &out->key},
        {"--session", &out->session},         {"--expect", &out->expect},     {"--http", &out->http},
        {"--web-root", &out->web_root}};
    const std::map<std::string, std::pair<int *, std::pair<long, long>>> numbers = {
        {"--port", {&out->port, {1, 65535}}},
        {"--timeout", {&out->timeout_s, {1, 3600}}},
        {"--count", {&out->count, {1, 1000000}}},
        {"--for", {&out->for_s, {1, 86400}}},
        {"--max-clients", {&out->max_clients, {1, 1024}}},
        {"--max-frame", {&out->max_frame, {1024, 16777216}}}};
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &arg = args[i];
        if (arg == "-h" || arg == "--help") {
            out->help = true;
        } else if (arg == "--json") {
            out->json = true;
        } else if (arg == "--table") {
            out->table = true;
        } else if (arg == "--lan-plain") {
            out->lan_plain = true;
        } else if (arg == "--broker") {
            std::pair<std::string, int> broker;
            if (i + 1 >= args.size() || !apps::parse_broker_address(args[i + 1], &broker.first, &broker.second)) {
                *why = arg + ": expected HOST:PORT ([ADDRESS]:PORT for IPv6)" +
                       (i + 1 < args.size() ? ", got " + args[i + 1] : std::string());
                return false;
            }
            ++i;
            out->brokers.push_back(broker);
        } else if (texts.count(arg) != 0 || numbers.count(arg) != 0) {
            if (i + 1 >= args.size()) {
                *why = arg + ": expected a value";
                return false;
            }
            const std::string &value = args[++i];
            if (texts.count(arg) != 0) {
                *texts.at(arg) = value;
            } else {
                const auto &number = numbers.at(arg);
                if (!apps::parse_int(value, number.second.first, number.second.second, number.first)) {
                    *why = arg + ": expected a number from " + std::to_string(number.second.first) + " to " +
                           std::to_string(number.second.second) + ", got " + value;
                    return false;
                }
            }
        } else if (arg.size() > 1 && arg[0] == '-' && arg[1] == '-') {
            *why = "unknown option " + arg;
            return false;
        } else {
            out->words.push_back(arg);
        }
    }
    if (out->expect != "report" && out->expect != "echo" && out->expect != "any") {
        *why = "--expect: expected report, echo or any, got " + out->expect;
        return false;
    }
    if (!out->brokers.empty() && (!out->host.empty() || out->port != 0)) {
        *why = "--broker: not with --host or --port (name every broker with --broker)";
        return false;
    }
    if (!out->help && out->words.empty()) {
        *why = "missing the command";
        return false;
    }
    return true;
}

} // namespace sfcloud
