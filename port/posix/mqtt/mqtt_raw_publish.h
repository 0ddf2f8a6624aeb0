/*
 * Publication of a text under one of the gateway's own topics,
 * "<topic_root>/<gateway id>/<leaf>", outside the smart frame's uplink
 * framing (no serial number, no completion). For the health document.
 */
#ifndef SF_POSIX_MQTT_RAW_PUBLISH_H
#define SF_POSIX_MQTT_RAW_PUBLISH_H

#include <string>

#include "cloud_defs/kelo_cloud_types.h"

namespace sf_mqtt {

/*
 * RC_OK when libmosquitto took the message; MQC_RC_NOT_CONNECTED without a
 * connection (or a started client); MQC_RC_PUBLISH_FAIL when it refused it.
 * Any thread except the client's own callbacks.
 */
OPERATE_RET publish_raw(const char *leaf, const std::string &payload, int qos, bool retain);

} // namespace sf_mqtt

#endif /* SF_POSIX_MQTT_RAW_PUBLISH_H */
