/*
 * sfcloud serve: the web console's server. One address answers three things:
 *   GET /...               the built page (web/dist) as static files;
 *   GET /description.json  the gateway description for the page (page_description.h);
 *   WebSocket /mqtt        a relay to the MQTT broker: each binary frame from the
 *                          browser goes to a TCP connection of its own to the broker,
 *                          the broker's bytes come back as binary frames.
 * The relay copies bytes only: the page's own CONNECT (its user name and password)
 * reaches the broker unchanged, and the relay holds no login or right of its own.
 */
#ifndef SFCLOUD_SERVE_H
#define SFCLOUD_SERVE_H

#include <cstddef>
#include <string>

#include "common/description.h"
#include "options.h"

namespace sfcloud {

struct ServeSettings {
    std::string http_host = "127.0.0.1";
    int http_port = 8080;          /* 0: any free port, printed at start */
    std::string web_root;          /* folder of index.html */
    std::string broker_host = "127.0.0.1";
    int broker_port = 1883;
    std::string description_json;  /* "" : /description.json answers 404 */
    int max_clients = 16;          /* WebSocket clients at once; more are refused with 503 */
    std::size_t max_frame = 262144; /* bytes of one WebSocket message from a browser; more closes it */
};

/*
 * Serve until SIGINT or SIGTERM. Prints one line with the address once it
 * listens. EXIT_OK after a signal; EXIT_NO_ANSWER with *detail when the
 * address cannot be bound.
 */
int serve(const ServeSettings &settings, std::string *detail);

/* The "serve" command: settings from the options and the description, then serve(). */
int serve_command(const Options &options, const apps::Description *names, std::string *detail);

} // namespace sfcloud

#endif /* SFCLOUD_SERVE_H */
