/* Command line of the cloud console. */
#ifndef SFCLOUD_OPTIONS_H
#define SFCLOUD_OPTIONS_H

#include <string>
#include <utility>
#include <vector>

#include "common/description.h"
#include "port/posix/mqtt/mqtt_brokers.h"

namespace sfcloud {

/* Exit codes: the gateway answered as expected / answered otherwise / bad command line / no answer in time. */
constexpr int EXIT_OK = 0;
constexpr int EXIT_UNEXPECTED = 1;
constexpr int EXIT_USAGE = 2;
constexpr int EXIT_NO_ANSWER = 3;

struct Options {
    std::string description; /* empty: $SF_DESCRIPTION, else examples/gateway.json when it exists */
    std::string host;        /* empty: from the description, else 127.0.0.1 */
    int port = 0;            /* 0: from the description, else 1883 */
    std::vector<std::pair<std::string, int>> brokers; /* --broker, in order; non-empty: these only */
    std::string gw;          /* empty: from the description */
    std::string root;        /* empty: from the description, else sf */
    std::string username, password, ca_file;
    std::string lan;         /* HOST:PORT: speak to the LAN channel instead of MQTT */
    bool lan_plain = false;  /* the LAN channel in plain TCP, not TLS 1.3 */
    std::string key;         /* LAN key; empty: the description's local_key */
    std::string session;     /* persistent MQTT session name */
    std::string expect = "any"; /* set: report, echo or any */
    int timeout_s = 10;
    int count = 0;           /* watch: stop after this many messages (0: never) */
    int for_s = 0;           /* watch: stop after this many seconds (0: never) */
    std::string http = "127.0.0.1:8080"; /* serve: address of the web console */
    std::string web_root = "web/dist";   /* serve: the built page */
    int max_clients = 16;    /* serve: WebSocket relay clients at once */
    int max_frame = 262144;  /* serve: bytes of one WebSocket message from a browser */
    bool json = false;
    bool table = false;
    bool help = false;
    std::vector<std::string> words; /* the command and its arguments */
};

/* --broker (in order), else --host/--port, else the description's brokers, else its host and port. */
std::vector<sf_mqtt::Broker> broker_list(const Options &options, const apps::MqttSettings &defaults);

/* false with *why ("--port: expected a port number, got x"). */
bool parse_options(const std::vector<std::string> &args, Options *out, std::string *why);

const char *usage_text();

} // namespace sfcloud

#endif /* SFCLOUD_OPTIONS_H */
