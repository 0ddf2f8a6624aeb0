/*
 * The broker port when none is configured: 8883 (MQTT over TLS) when a CA
 * file turns TLS on, else 1883, as the MQTT client's own default
 * (docs/channel-configuration.md). One rule for the daemon, its simulator
 * link and the console, so a TLS description without "port" reaches the
 * TLS listener.
 */
#ifndef APPS_COMMON_BROKER_PORT_H
#define APPS_COMMON_BROKER_PORT_H

#include <string>

namespace apps {

constexpr int MQTT_PORT = 1883;
constexpr int MQTT_TLS_PORT = 8883;

/* port when set (not 0), else the default for the TLS setting. */
inline int broker_port(int port, const std::string &ca_file)
{
    if (port != 0) {
        return port;
    }
    return ca_file.empty() ? MQTT_PORT : MQTT_TLS_PORT;
}

} // namespace apps

#endif /* APPS_COMMON_BROKER_PORT_H */
