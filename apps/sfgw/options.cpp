#include "options.h"

#include "common/broker_address.h"
#include "common/json_reader.h"

#include <cstdlib>

#include "port/posix/log/log_output.h"

namespace sfgw {

int parse_log_level(const std::string &text) { return sf_log::parse_level(text); }

bool check_environment(std::string *why)
{
    const char *level = std::getenv("SF_LOG_LEVEL");
    if (level != nullptr && parse_log_level(level) < 0) {
        *why = std::string("SF_LOG_LEVEL: expected 0..5 or error, warn, notice, info, progress, detail, got \"") + level +
               "\"";
        return false;
    }
    return true;
}

const char *usage_text()
{
    return "Usage: sfgw [options] DESCRIPTION.json\n"
           "\n"
           "Runs a smart frame gateway against an MQTT broker, with the simulated\n"
           "sub-devices of the description behind it (see README.md, \"Writing a\n"
           "gateway description\"). Stops cleanly on SIGINT or SIGTERM; SIGHUP\n"
           "re-opens the log file and takes the description's gateway.local_key\n"
           "anew for the LAN channel (connections of the old key are closed).\n"
           "\n"
           "Options:\n"
           "  --mqtt-host HOST        broker host (default: connection.mqtt.host, else 127.0.0.1)\n"
           "  --mqtt-port PORT        broker port (default: connection.mqtt.port, else 1883, or 8883 with ca_file)\n"
           "  --mqtt-broker HOST:PORT a broker of a list, repeatable: the first given is tried first, the\n"
           "                          next when a connect fails or the connection is lost (default:\n"
           "                          connection.mqtt.brokers; see docs/brokers.md, \"Clusters\")\n"
           "  --mqtt-protocol 5|311   MQTT version (default: connection.mqtt.protocol, else 5 with a\n"
           "                          fall-back to 3.1.1 when the broker refuses 5)\n"
           "  --lan-port PORT         LAN channel port, 0 for any free one (default: connection.lan.port)\n"
           "  --no-lan                do not open the LAN channel\n"
           "  --log-level LEVEL       0..5 or error, warn, notice, info, progress, detail\n"
           "                          (default: $SF_LOG_LEVEL, else notice)\n"
           "  --connect-timeout SEC   exit 1 when the broker is not reached in SEC seconds at start\n"
           "                          (default: start without it and keep trying, with back-off)\n"
           "  --state FILE            DP values and publish states kept across restarts\n"
           "                          (default /var/lib/sfgw/state.db; see docs/state.md)\n"
           "  --no-state              keep no state: start from the description every time\n"
           "  --state-interval MS     milliseconds between two writes of the state file (default 200)\n"
           "  --log-file PATH         append the log to PATH; re-opened on SIGHUP (logrotate)\n"
           "  --syslog                send the log to syslog (facility daemon)\n"
           "  --metrics-file PATH     write the metrics in Prometheus text format to PATH\n"
           "  --metrics-interval SEC  seconds between two writes of that file (default 15)\n"
           "  --metrics-mqtt SEC      seconds between two health documents on <root>/<gateway>/metrics\n"
           "                          (default 60, 0 for none); see docs/metrics.md\n"
           "  --command-trace FILE    append each DP command handed to the devices to FILE, one line\n"
           "                          \"<device> <dp>=<value>\", written at once (tests, delivery checks)\n"
           "  --check                 check the description and exit\n"
           "  --lenient-commands      hand commands to the smart frame unchecked (no refusal answers,\n"
           "                          see docs/wire-protocol.md, \"Refused commands\")\n"
           "  -h, --help              this text\n"
           "\n"
           "Exit status: 0 after a clean shutdown, 1 when the gateway could not run\n"
           "(broker unreachable within --connect-timeout, port taken), 2 for a bad command line or description.\n";
}

bool parse_options(const std::vector<std::string> &args, Options *out, std::string *why)
{
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &arg = args[i];
        const bool has_value = i + 1 < args.size();
        const std::string value = has_value ? args[i + 1] : "";
        auto need_value = [&](const char *what) {
            if (!has_value) {
                *why = arg + ": expected " + what;
                return false;
            }
            ++i;
            return true;
        };
        if (arg == "-h" || arg == "--help") {
            out->help = true;
        } else if (arg == "--no-state") {
            out->no_state = true;
        } else if (arg == "--state") {
            if (!need_value("a file name")) {
                return false;
            }
            out->state_file = value;
        } else if (arg == "--state-interval") {
            if (!need_value("milliseconds")) {
                return false;
            }
            if (!apps::parse_int(value, 20, 60000, &out->state_interval_ms)) {
                *why = arg + ": expected milliseconds (20..60000), got " + value;
                return false;
            }
        } else if (arg == "--command-trace") {
            if (!need_value("a file name")) {
                return false;
            }
            out->command_trace = value;
        } else if (arg == "--check") {
            out->check_only = true;
        } else if (arg == "--lenient-commands") {
            out->lenient_commands = true;
        } else if (arg == "--no-lan") {
            out->no_lan = true;
        } else if (arg == "--mqtt-host") {
            if (!need_value("a host name")) {
                return false;
            }
            out->mqtt_host = value;
        } else if (arg == "--mqtt-port" || arg == "--lan-port") {
            if (!need_value("a port number")) {
                return false;
            }
            int port = 0;
            if (!apps::parse_int(value, arg == "--lan-port" ? 0 : 1, 65535, &port)) {
                *why = arg + ": expected a port number, got " + value;
                return false;
            }
            (arg == "--mqtt-port" ? out->mqtt_port : out->lan_port) = port;
        } else if (arg == "--mqtt-broker") {
            if (!need_value("HOST:PORT")) {
                return false;
            }
            std::pair<std::string, int> broker;
            if (!apps::parse_broker_address(value, &broker.first, &broker.second)) {
                *why = arg + ": expected HOST:PORT ([ADDRESS]:PORT for IPv6), got " + value;
                return false;
            }
            out->mqtt_brokers.push_back(broker);
        } else if (arg == "--mqtt-protocol") {
            if (!need_value("5 or 311")) {
                return false;
            }
            if (value != "5" && value != "311") {
                *why = arg + ": expected 5 or 311, got " + value;
                return false;
            }
            out->mqtt_protocol = value == "5" ? 5 : 311;
        } else if (arg == "--log-level") {
            if (!need_value("a level")) {
                return false;
            }
            out->log_level = parse_log_level(value);
            if (out->log_level < 0) {
                *why = arg + ": expected 0..5 or error, warn, notice, info, progress, detail, got " + value;
                return false;
            }
        } else if (arg == "--syslog") {
            out->syslog = true;
        } else if (arg == "--log-file" || arg == "--metrics-file") {
            if (!need_value("a file name")) {
                return false;
            }
            (arg == "--log-file" ? out->log_file : out->metrics_file) = value;
        } else if (arg == "--metrics-interval" || arg == "--metrics-mqtt") {
            if (!need_value("seconds")) {
                return false;
            }
            const bool file = arg == "--metrics-interval";
            if (!apps::parse_int(value, file ? 1 : 0, 86400, file ? &out->metrics_interval_s : &out->metrics_mqtt_s)) {
                *why = arg + ": expected seconds (" + (file ? "1" : "0") + "..86400), got " + value;
                return false;
            }
        } else if (arg == "--connect-timeout") {
            if (!need_value("seconds")) {
                return false;
            }
            if (!apps::parse_int(value, 1, 3600, &out->connect_timeout_s)) {
                *why = arg + ": expected seconds (1..3600), got " + value;
                return false;
            }
        } else if (!arg.empty() && arg[0] == '-') {
            *why = "unknown option " + arg;
            return false;
        } else if (out->description.empty()) {
            out->description = arg;
        } else {
            *why = "one description only (got " + out->description + " and " + arg + ")";
            return false;
        }
    }
    if (!out->mqtt_brokers.empty() && (!out->mqtt_host.empty() || out->mqtt_port != 0)) {
        *why = "--mqtt-broker: not with --mqtt-host or --mqtt-port (name every broker with --mqtt-broker)";
        return false;
    }
    if (!out->help && out->description.empty()) {
        *why = "missing the gateway description (a .json file)";
        return false;
    }
    return true;
}

} // namespace sfgw
