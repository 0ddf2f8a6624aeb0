/*
 * Base fixture of the channel tests: a private broker, the gateway on the
 * POSIX runtime, the cloud's peer subscribed to every gateway topic, and
 * the MQTT client started against the broker. TearDown stops the channels
 * and the dispatch thread; the broker dies with the fixture.
 */
#ifndef IT_CHANNEL_FIXTURE_H
#define IT_CHANNEL_FIXTURE_H

#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "broker.h"
#include "cloud_defs/gw_intf.h"
#include "cloud_peer.h"
#include "gateway.h"
#include "lan_peer.h"
#include "port/posix/lan/lan_config.h"
#include "port/posix/mqtt/mqtt_config.h"
#include "services/mqtt_client.h"

namespace it {

using std::chrono::milliseconds;
using std::chrono::seconds;

class ChannelTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        mqc_stop();
        lan_stop();
        stop_gateway();
        cloud_.disconnect();
    }

    /* Broker, gateway, cloud peer; the MQTT client only when start_mqtt. */
    void start(const std::vector<DeviceShape> &subs, BrokerOptions broker_options = {}, bool start_mqtt = true)
    {
        broker_ = std::make_unique<Broker>(broker_options);
        std::string why;
        ASSERT_TRUE(broker_->start(&why)) << why;
        ASSERT_TRUE(start_gateway(subs, &why)) << why;
        if (broker_options.user.empty() && !broker_options.tls) {
            ASSERT_TRUE(cloud_.connect(broker_->port(), std::string("sf/") + GW_ID + "/#", &why)) << why;
        }
        if (start_mqtt) {
            MQC_CONFIG_S cfg = mqtt_config();
            ASSERT_EQ(RC_OK, mqc_start(&cfg));
            ASSERT_TRUE(eventually([] { return get_mqc_conn_stat() == 1; }, seconds(10))) << "no MQTT connection";
            if (broker_options.user.empty() && !broker_options.tls) {
                // The gateway says it is online after subscribing: from then on commands reach it.
                ASSERT_TRUE(cloud_.wait_until(
                    [](const std::vector<Received> &all) {
                        for (const Received &one : all) {
                            if (one.topic == topic("status") && one.payload == status(true)) {
                                return true;
                            }
                        }
                        return false;
                    },
                    seconds(10)))
                    << "no online status";
            }
        }
    }

    MQC_CONFIG_S mqtt_config() const
    {
        MQC_CONFIG_S cfg{};
        cfg.port = broker_->port();
        cfg.reconnect_min_s = 1;
        cfg.reconnect_max_s = 2;
        cfg.keepalive_s = keepalive_s_;
        cfg.protocol = protocol_;
        return cfg;
    }

    /* Start the LAN channel on a free port; the key comes from the registry. TLS unless plain. */
    void start_lan(UINT_T auth_timeout_ms = 0, UINT_T max_queue_frames = 0, bool plain = false)
    {
        LAN_CONFIG_S cfg{};
        cfg.auth_timeout_ms = auth_timeout_ms;
        cfg.max_queue_frames = max_queue_frames;
        start_lan_with(cfg, plain);
    }

    /* Start the LAN channel with cfg, in plain TCP when plain; the peers connected later speak the same. */
    static void start_lan_with(LAN_CONFIG_S cfg, bool plain)
    {
        cfg.security = plain ? LAN_SECURITY_PLAIN : LAN_SECURITY_TLS;
        lan_peers_speak_plain(plain);
        ASSERT_EQ(RC_OK, lan_start(&cfg));
        ASSERT_NE(0, lan_bound_port());
    }

    /*
     * Connect peer and authenticate it: the handshake under TLS, the auth
     * frame in plain TCP. Returns the gateway's greeting ("" when none came).
     */
    static std::string authenticate(LanPeer *peer)
    {
        std::string hello;
        EXPECT_TRUE(peer->connect(lan_bound_port())) << peer->why();
        if (!peer->tls()) {
            EXPECT_TRUE(peer->send_line(std::string("{\"cmd\":\"auth\",\"key\":\"") + LOCAL_KEY + "\"}"));
        }
        EXPECT_TRUE(peer->read_line(&hello, seconds(5)));
        return hello;
    }

    /* start_lan, then authenticate lan_. */
    void start_lan_client()
    {
        start_lan();
        authenticate(&lan_);
    }

    static std::string topic(const char *leaf) { return std::string("sf/") + GW_ID + "/" + leaf; }

    /* The status text of the client's session now (docs/wire-protocol.md, section 2). */
    static std::string status(bool online)
    {
        return std::string("{\"online\":") + (online ? "true" : "false") +
               ",\"session\":" + std::to_string(mqc_session_number()) + "}";
    }

    /* Uplink messages of protocol pro whose "data" printed unformatted equals data. */
    static bool has_uplink(const std::vector<Received> &all, int pro, const std::string &data)
    {
        for (const Received &one : all) {
            if (one.topic == topic("up") && uplink_data(one.payload, pro) == data) {
                return true;
            }
        }
        return false;
    }

    /* The "data" of an uplink payload of protocol pro, printed unformatted; "" otherwise. */
    static std::string uplink_data(const std::string &payload, int pro)
    {
        cJSON *doc = cJSON_Parse(payload.c_str());
        std::string out;
        const cJSON *p = cJSON_GetObjectItemCaseSensitive(doc, "pro");
        const cJSON *serno = cJSON_GetObjectItemCaseSensitive(doc, "serno");
        const cJSON *data = cJSON_GetObjectItemCaseSensitive(doc, "data");
        if (cJSON_IsNumber(p) && p->valueint == pro && cJSON_IsNumber(serno) && data != nullptr) {
            char *text = cJSON_PrintUnformatted(data);
            out = text;
            cJSON_free(text);
        }
        cJSON_Delete(doc);
        return out;
    }

    UINT_T protocol_ = 0;    // MQC_CONFIG_S.protocol of start()
    UINT_T keepalive_s_ = 5; // MQC_CONFIG_S.keepalive_s of start(): short, so lost connections show soon
    std::unique_ptr<Broker> broker_;
    CloudPeer cloud_{"sf-it-cloud"};
    LanPeer lan_;
};

} // namespace it

#endif /* IT_CHANNEL_FIXTURE_H */
