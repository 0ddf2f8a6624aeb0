/*
 * A broker named on a command line: HOST:PORT, or [IPv6]:PORT
 * (sfgw --mqtt-broker, sfcloud --broker).
 */
#ifndef APPS_COMMON_BROKER_ADDRESS_H
#define APPS_COMMON_BROKER_ADDRESS_H

#include <string>

namespace apps {

/* false (nothing set) unless text is HOST:PORT with a host and a port 1..65535. */
bool parse_broker_address(const std::string &text, std::string *host, int *port);

} // namespace apps

#endif /* APPS_COMMON_BROKER_ADDRESS_H */
