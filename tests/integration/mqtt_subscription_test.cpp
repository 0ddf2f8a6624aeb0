/*
 * The command topics' subscription: a broker that refuses it (here its
 * access control refuses every subscription) leaves a connection that
 * would never receive a command. It is logged, not counted as connected,
 * and tried again with back-off.
 */
#include <regex>
#include <string>

#include "support/channel_fixture.h"
#include "support/stderr_capture.h"

namespace it {
namespace {

class MqttSubscription : public ChannelTest {
protected:
    static size_t count(const std::string &text, const std::string &needle)
    {
        size_t n = 0;
        for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
            ++n;
        }
        return n;
    }
};

TEST_F(MqttSubscription, ARefusedSubscriptionIsLoggedAndRetriedWithBackOffAndNeverCountsAsConnected)
{
    StderrCapture log;
    BrokerOptions options;
    options.deny_subscriptions = true;
    start({{"sub01", 1, 1}}, options, false);
    MQC_CONFIG_S cfg = mqtt_config(); // back-off 1 s, then 2 s
    ASSERT_EQ(RC_OK, mqc_start(&cfg));

    const std::string refused = "MQTT broker 127.0.0.1:" + std::to_string(broker_->port()) +
                                " refused the subscription to sf/gwit0001/cmd/+ (reason 135): no command can arrive";
    ASSERT_TRUE(eventually([&] { return count(log.text(), refused) >= 3; }, seconds(20))) << log.text();
    const std::string text = log.text();
    // the source path in a log line is as the build gave it: relative or absolute
    EXPECT_TRUE(std::regex_search(text, std::regex("ERROR [^ ]*mqtt_connection\\.cpp:[0-9]+ on_subscribe: MQTT broker ")))
        << text;
    EXPECT_NE(std::string::npos, text.find("MQTT subscription refused, reconnecting in 1 s")) << text;
    EXPECT_NE(std::string::npos, text.find("MQTT subscription refused, reconnecting in 2 s")) << text;
    EXPECT_EQ(std::string::npos, text.find("MQTT connected")) << text;
    EXPECT_EQ(0, get_mqc_conn_stat());
    EXPECT_EQ(GW_NW_LAN, get_gw_nw_status());
}

} // namespace
} // namespace it
