#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include "mqtt_raw_publish.h"

#include "mqtt_client_state.h"
#include "services/log_front.h"

namespace sf_mqtt {

OPERATE_RET publish_raw(const char *leaf, const std::string &payload, int qos, bool retain)
{
    sf_sync::ReaderGuard life(g_life);
    if (g_client == nullptr || g_stopping || !g_connected) {
        return MQC_RC_NOT_CONNECTED;
    }
    /* up_topic is "<root>/<gw>/up": the gateway's topics share its prefix */
    const std::string &up = g_client->up_topic;
    const std::string topic = up.substr(0, up.size() - 2) + leaf;
    const int rc = mosquitto_publish(g_client->mosq, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                                     payload.data(), qos, retain);
    if (rc == MOSQ_ERR_NO_CONN) {
        return MQC_RC_NOT_CONNECTED;
    }
    if (rc != MOSQ_ERR_SUCCESS) {
        SF_LOG_ERR("publish on %s failed: %s", topic.c_str(), mosquitto_strerror(rc));
        return MQC_RC_PUBLISH_FAIL;
    }
    return RC_OK;
}

} // namespace sf_mqtt
