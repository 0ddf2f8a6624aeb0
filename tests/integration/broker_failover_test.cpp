/*
 * A list of two real brokers (mosquitto, not clustered): the gateway moves
 * to the second when the first dies, and the values changed meanwhile
 * arrive there; it stays on the second while that works, even after the
 * first is back; it moves back when the second dies.
 */
#include <map>
#include <utility>

#include "support/channel_fixture.h"
#include "support/stderr_capture.h"

#include "port/posix/metrics/metrics.h"
#include "smart_frame/smart_frame.h"

namespace it {
namespace {

constexpr int DPS = 5;
const char DEVICE[] = "dev10";

void report_round(int round)
{
    std::string text = "{";
    for (int dp = 1; dp <= DPS; ++dp) {
        text += "\"" + std::to_string(dp) + "\":" + std::to_string(round * 100 + dp) + (dp < DPS ? "," : "}");
    }
    // A refused or failed publication is the smart frame's to re-send.
    sf_obj_dp_report_async(DEVICE, text.c_str(), FALSE);
}

/* Whether every DP's last value the peer received is that of round. */
bool has_round(const std::vector<Received> &all, int round)
{
    std::map<int, int> last;
    for (const Received &one : all) {
        cJSON *doc = cJSON_Parse(one.payload.c_str());
        const cJSON *pro = cJSON_GetObjectItemCaseSensitive(doc, "pro");
        const cJSON *dps = cJSON_GetObjectItemCaseSensitive(cJSON_GetObjectItemCaseSensitive(doc, "data"), "dps");
        if (cJSON_IsNumber(pro) && pro->valueint == MQC_PRO_DP_REPORT && cJSON_IsObject(dps)) {
            for (const cJSON *dp = dps->child; dp != nullptr; dp = dp->next) {
                last[std::atoi(dp->string)] = dp->valueint;
            }
        }
        cJSON_Delete(doc);
    }
    for (int dp = 1; dp <= DPS; ++dp) {
        if (last[dp] != round * 100 + dp) {
            return false;
        }
    }
    return true;
}

bool all_confirmed()
{
    for (int dp = 1; dp <= DPS; ++dp) {
        if (pv_stat(DEVICE, dp) != PV_STAT_CLOUD) {
            return false;
        }
    }
    return true;
}

std::string name_of(int port) { return "127.0.0.1:" + std::to_string(port); }

class BrokerFailover : public ChannelTest {
protected:
    void start_on_two_brokers()
    {
        start({DeviceShape{DEVICE, 0, DPS}}, {}, false);
        second_ = std::make_unique<Broker>();
        std::string why;
        ASSERT_TRUE(second_->start(&why)) << why;
        ASSERT_TRUE(cloud_b_.connect(second_->port(), topic("#"), &why)) << why;
        sf_metrics::reset();
        list_[0] = MQC_BROKER_S{"127.0.0.1", broker_->port(), nullptr, nullptr, nullptr, nullptr, nullptr};
        list_[1] = MQC_BROKER_S{"127.0.0.1", second_->port(), nullptr, nullptr, nullptr, nullptr, nullptr};
        MQC_CONFIG_S cfg = mqtt_config();
        cfg.port = 0;
        cfg.brokers = list_;
        cfg.broker_count = 2;
        ASSERT_EQ(RC_OK, mqc_start(&cfg));
    }

    static bool online(const std::vector<Received> &all)
    {
        for (const Received &one : all) {
            // the session number that follows changes with every session
            if (one.topic == topic("status") && one.payload.rfind("{\"online\":true,", 0) == 0) {
                return true;
            }
        }
        return false;
    }

    std::unique_ptr<Broker> second_;
    CloudPeer cloud_b_;
    MQC_BROKER_S list_[2];
};

TEST_F(BrokerFailover, TheGatewayMovesToTheSecondBrokerAndBackWithEveryValue)
{
    StderrCapture log;
    start_on_two_brokers();
    ASSERT_TRUE(cloud_.wait_until(online, seconds(10))) << "not online on the first broker";
    EXPECT_EQ(name_of(broker_->port()), sf_metrics::mqtt_broker_in_use());
    report_round(1);
    ASSERT_TRUE(cloud_.wait_until([](const std::vector<Received> &all) { return has_round(all, 1); }, seconds(10)));

    // The first broker dies; values change before the gateway is on the second.
    broker_->stop();
    report_round(2);
    ASSERT_TRUE(cloud_b_.wait_until([](const std::vector<Received> &all) { return has_round(all, 2); }, seconds(20)))
        << "the values changed during the move did not reach the second broker";
    EXPECT_TRUE(eventually(all_confirmed, seconds(10)));
    EXPECT_EQ(name_of(second_->port()), sf_metrics::mqtt_broker_in_use());
    EXPECT_EQ(1u, sf_metrics::snapshot().counters[sf_metrics::MqttBrokerChanges]);
    EXPECT_TRUE(log.wait_for("MQTT broker changed from " + name_of(broker_->port()) + " to " +
                                 name_of(second_->port()),
                             seconds(5)));

    // The first is back: the gateway stays on the second, which works.
    std::string why;
    ASSERT_TRUE(broker_->start(&why)) << why;
    CloudPeer cloud_a;
    ASSERT_TRUE(cloud_a.connect(broker_->port(), topic("#"), &why)) << why;
    report_round(3);
    ASSERT_TRUE(cloud_b_.wait_until([](const std::vector<Received> &all) { return has_round(all, 3); }, seconds(10)));
    EXPECT_TRUE(eventually(all_confirmed, seconds(10)));
    EXPECT_FALSE(has_round(cloud_a.received(), 3));
    EXPECT_EQ(name_of(second_->port()), sf_metrics::mqtt_broker_in_use());

    // The second dies: back to the first, with the values changed meanwhile.
    second_->stop();
    report_round(4);
    ASSERT_TRUE(cloud_a.wait_until([](const std::vector<Received> &all) { return has_round(all, 4); }, seconds(20)))
        << "the values changed during the move back did not reach the first broker";
    EXPECT_TRUE(eventually(all_confirmed, seconds(10)));
    EXPECT_EQ(name_of(broker_->port()), sf_metrics::mqtt_broker_in_use());
    EXPECT_EQ(2u, sf_metrics::snapshot().counters[sf_metrics::MqttBrokerChanges]);
    cloud_a.disconnect();
}

TEST_F(BrokerFailover, AGatewayStartedWithTheFirstBrokerDownConnectsToTheSecond)
{
    start_on_two_brokers();
    mqc_stop();
    broker_->stop();
    MQC_CONFIG_S cfg = mqtt_config();
    cfg.port = 0;
    cfg.brokers = list_;
    cfg.broker_count = 2;
    ASSERT_EQ(RC_OK, mqc_start(&cfg));
    ASSERT_TRUE(cloud_b_.wait_until(online, seconds(10))) << "not online on the second broker";
    EXPECT_EQ(name_of(second_->port()), sf_metrics::mqtt_broker_in_use());
    // The first session of a run is no change of broker.
    EXPECT_EQ(0u, sf_metrics::snapshot().counters[sf_metrics::MqttBrokerChanges]);
}

TEST_F(BrokerFailover, AListMixingTlsAndPlainBrokersIsRefusedAtStart)
{
    StderrCapture log;
    start({DeviceShape{DEVICE, 0, DPS}}, {}, false);
    MQC_BROKER_S mixed[2] = {{"127.0.0.1", broker_->port(), nullptr, nullptr, nullptr, nullptr, nullptr},
                             {"127.0.0.1", 8883, nullptr, nullptr, "/etc/ssl/certs/ca-certificates.crt", nullptr, nullptr}};
    MQC_CONFIG_S cfg = mqtt_config();
    cfg.brokers = mixed;
    cfg.broker_count = 2;
    EXPECT_EQ(RC_BAD_PARAM, mqc_start(&cfg));
    EXPECT_TRUE(log.wait_for("MQTT broker 127.0.0.1:8883: TLS must be on for every broker of the list or for none",
                             seconds(2)));
    MQC_BROKER_S nameless[1] = {{"", 1883, nullptr, nullptr, nullptr, nullptr, nullptr}};
    cfg.brokers = nameless;
    cfg.broker_count = 1;
    EXPECT_EQ(RC_BAD_PARAM, mqc_start(&cfg));
    EXPECT_TRUE(log.wait_for("MQTT broker 1 of the list has no host", seconds(2)));
}

} // namespace
} // namespace it
