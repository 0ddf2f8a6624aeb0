#include "page_description.h"
#include "serve.h"

#include <unistd.h>

#include "common/json_reader.h"

namespace sfcloud {

int serve_command(const Options &options, const apps::Description *names, std::string *detail)
{
    ServeSettings s;
    const size_t colon = options.http.rfind(':');
    if (colon == std::string::npos || colon == 0 ||
        !apps::parse_int(options.http.substr(colon + 1), 0, 65535, &s.http_port)) {
        *detail = "--http: expected HOST:PORT, got " + options.http;
        return EXIT_USAGE;
    }
    s.http_host = options.http.substr(0, colon);
    s.web_root = options.web_root;
    if (::access((s.web_root + "/index.html").c_str(), R_OK) != 0) {
        *detail = "--web-root: no index.html in " + s.web_root + " (build the page: make web)";
        return EXIT_USAGE;
    }
    const apps::MqttSettings defaults = names != nullptr ? names->mqtt : apps::MqttSettings();
    s.broker_host = !options.host.empty() ? options.host : defaults.host;
    s.broker_port = options.port != 0 ? options.port : defaults.port;
    s.description_json = page_description(names);
    s.max_clients = options.max_clients;
    s.max_frame = static_cast<std::size_t>(options.max_frame);
    return serve(s, detail);
}

} // namespace sfcloud
