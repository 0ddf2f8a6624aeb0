/*
 * sfcloud serve: the gateway description as the web console reads it at
 * /description.json: names, types, ranges and units of every device's DPs
 * and the topic root. Nothing secret: the page is public to whoever reaches
 * the address, so the LAN key and the whole "connection" section (broker
 * credentials, TLS files) are left out.
 */
#ifndef SFCLOUD_PAGE_DESCRIPTION_H
#define SFCLOUD_PAGE_DESCRIPTION_H

#include <string>

#include "common/description.h"

namespace sfcloud {

/* {"topic_root":"sf","gateway":{...},"devices":[...]} without "local_key"; "" when names is null. */
std::string page_description(const apps::Description *names);

} // namespace sfcloud

#endif /* SFCLOUD_PAGE_DESCRIPTION_H */
