/* Command line of the gateway daemon. */
#ifndef SFGW_OPTIONS_H
#define SFGW_OPTIONS_H

#include <string>
#include <utility>
#include <vector>

namespace sfgw {

struct Options {
    std::string description;
    std::string mqtt_host; /* empty: from the description */
    int mqtt_port = 0;     /* 0: from the description */
    std::vector<std::pair<std::string, int>> mqtt_brokers; /* --mqtt-broker, in order; non-empty: these only */
    int mqtt_protocol = 0; /* 5 or 311; 0: from the description */
    int lan_port = -1;     /* -1: from the description; 0: any free port */
    bool no_lan = false;
    int log_level = -1;    /* -1: SF_LOG_LEVEL or the runtime's default */
    int connect_timeout_s = 0; /* 0: start without waiting for the broker, keep trying it */
    std::string state_file = "/var/lib/sfgw/state.db";
    bool no_state = false;
    int state_interval_ms = 200; /* SF_STATE_WRITE_INTERVAL_MS */
    std::string log_file;        /* empty: standard error */
    bool syslog = false;
    std::string metrics_file;    /* empty: no Prometheus file */
    int metrics_interval_s = 15; /* between two writes of the file */
    int metrics_mqtt_s = 60;     /* between two health documents; 0: none */
    bool check_only = false;
    bool lenient_commands = false; /* --lenient-commands: no edge check of inbound commands */
    std::string command_trace;     /* empty: none; else every DP command handed to the devices is appended */
    bool help = false;
};

/* Exit codes: 0 clean shutdown or --help, 1 the gateway could not run, 2 bad command line or description. */
constexpr int EXIT_RUNTIME = 1;
constexpr int EXIT_USAGE = 2;

/* false with *why ("--mqtt-port: expected a port number, got x") on a bad command line. */
bool parse_options(const std::vector<std::string> &args, Options *out, std::string *why);

/* 0..5 from a number or a name (error, warn, notice, info, progress, detail); -1 when neither. */
int parse_log_level(const std::string &text);

/* false with *why when SF_LOG_LEVEL is set to something that is no level. */
bool check_environment(std::string *why);

const char *usage_text();

} // namespace sfgw

#endif /* SFGW_OPTIONS_H */
