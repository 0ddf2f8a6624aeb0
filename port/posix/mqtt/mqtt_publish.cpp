/*
 * Publications of the MQTT client: every uplink message is framed as
 * {"serno":N,"pro":P,"data":...} on the gateway's uplink topic
 * (docs/wire-protocol.md); QoS 1 publications with a completion are
 * recorded until it runs.
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include <mqtt_protocol.h>

#include <cstring>

#include "services/mqtt_client.h"
#include "smart_frame/smart_frame.h"
#include "port/posix/metrics/metrics.h"
#include "mqtt_client_state.h"
#include "gateway/edge/wire_json.h"
#include "services/log_front.h"

using namespace sf_mqtt; // this file is part of the client

namespace {

/*
 * Publish text under the uplink topic. With a callback the publication is
 * recorded and completes exactly once; block (may be null) is a reference
 * that the completion releases. Caller holds g_life shared.
 */
OPERATE_RET publish_uplink(Client *client, const std::string &payload, int qos, UINT_T to_lmt_s,
                           MQ_PUB_ASYNC_IFM_CB cb, void *prv_data, RFC_DATA_S *block) SF_REQUIRES_SHARED(g_life)
{
    if (!g_connected) {
        return MQC_RC_NOT_CONNECTED;
    }
    auto publish = [&](int *mid) {
        if (!g_v5) {
            return mosquitto_publish(client->mosq, mid, client->up_topic.c_str(), static_cast<int>(payload.size()),
                                     payload.data(), qos, false);
        }
        // MQTT 5: the session number rides along, so the cloud can order
        // uplinks across restarts by (session, serno); the payload is unchanged.
        mosquitto_property *props = nullptr;
        const std::string session = std::to_string(g_session.load());
        int rc = mosquitto_property_add_string_pair(&props, MQTT_PROP_USER_PROPERTY, "session", session.c_str());
        if (rc == MOSQ_ERR_SUCCESS) {
            rc = mosquitto_publish_v5(client->mosq, mid, client->up_topic.c_str(), static_cast<int>(payload.size()),
                                      payload.data(), qos, false, props);
        }
        mosquitto_property_free_all(&props);
        return rc;
    };
    int rc;
    if (cb == nullptr && block == nullptr) {
        rc = publish(nullptr);
    } else {
        Completion c;
        c.cb = cb;
        c.prv_data = prv_data;
        c.block = block;
        c.deadline = Clock::now() + std::chrono::seconds(to_lmt_s != 0 ? to_lmt_s : client->default_timeout_s);
        rc = client->pending.publish_and_record(publish, c);
    }
    if (rc == MOSQ_ERR_NO_CONN || rc == PendingPublications::CLOSED) {
        return MQC_RC_NOT_CONNECTED;
    }
    if (rc != MOSQ_ERR_SUCCESS) {
        SF_LOG_ERR("mosquitto_publish failed: %s", mosquitto_strerror(rc));
        return MQC_RC_PUBLISH_FAIL;
    }
    sf_metrics::count(sf_metrics::MqttAccepted);
    return RC_OK;
}

std::string block_payload(const MSG_DATA_S *msg, UINT_T pro)
{
    return sf_wire::wrap_frame({{"serno", msg->serno}, {"pro", pro}}, reinterpret_cast<const char *>(msg->data),
                               msg->len);
}

/*
 * Publish a report block at QoS 1. With keep_ref the client holds a
 * reference of its own until the completion, which then runs exactly once.
 */
OPERATE_RET publish_block(RFC_DATA_S *rfc_data, UINT_T pro, UINT_T to_lmt_s, MQ_PUB_ASYNC_IFM_CB cb,
                          void *prv_data, bool keep_ref, const char *caller)
{
    const MSG_DATA_S *msg = sf_wire::message_of(rfc_data);
    if (msg == nullptr) {
        SF_LOG_ERR("%s: no message block", caller);
        return RC_BAD_PARAM;
    }
    sf_sync::ReaderGuard life(g_life);
    if (g_client == nullptr || g_stopping) {
        return MQC_RC_NOT_CONNECTED;
    }
    if (keep_ref) {
        get_rfc_data(rfc_data);
    }
    const OPERATE_RET rc = publish_uplink(g_client, block_payload(msg, pro), 1, to_lmt_s, cb, prv_data,
                                          keep_ref ? rfc_data : nullptr);
    if (rc != RC_OK && keep_ref) {
        put_rfc_data(rfc_data);
    }
    return rc;
}

} // namespace

extern "C" OPERATE_RET mqc_dp_report_async(RFC_DATA_S *rfc_data, UINT_T to_lmt_s, MQ_PUB_ASYNC_IFM_CB cb,
                                           void *prv_data)
{
    return publish_block(rfc_data, MQC_PRO_DP_REPORT, to_lmt_s, cb, prv_data, true, __func__);
}

extern "C" OPERATE_RET mqc_obj_dp_query(RFC_DATA_S *rfc_data)
{
    // The payload is copied into the publication: no reference is kept.
    return publish_block(rfc_data, MQC_PRO_DP_QUERY, 0, nullptr, nullptr, false, __func__);
}

extern "C" OPERATE_RET mqc_prot_data_rept_seq(UINT_T pro, const CHAR_T *data, BYTE_T qos, UINT_T to_lmt_s,
                                              MQ_PUB_ASYNC_IFM_CB cb, void *prv_data)
{
    if (data == nullptr || qos > 2) {
        SF_LOG_ERR("mqc_prot_data_rept_seq: bad parameter (pro %u, qos %u)", pro, qos);
        return RC_BAD_PARAM;
    }
    sf_sync::ReaderGuard life(g_life);
    if (g_client == nullptr || g_stopping) {
        return MQC_RC_NOT_CONNECTED;
    }
    // Every uplink message carries a number of the smart frame's series.
    const std::string payload = sf_wire::wrap_frame({{"serno", sf_get_serial_no()}, {"pro", pro}}, data,
                                                    std::strlen(data));
    return publish_uplink(g_client, payload, qos, to_lmt_s, cb, prv_data, nullptr);
}

