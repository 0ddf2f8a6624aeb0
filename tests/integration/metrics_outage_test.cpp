/*
 * What an operator sees of a broker outage: the pending-values gauge rises
 * while values cannot be confirmed and falls back to 0 once the gateway
 * has re-sent them, in the Prometheus file and in the MQTT health document.
 */
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "support/channel_fixture.h"
#include "support/stderr_capture.h"

#include "port/posix/metrics/metrics.h"
#include "port/posix/metrics/metrics_reporter.h"
#include "smart_frame/smart_frame.h"

namespace it {
namespace {

constexpr int DEVICES = 2;
constexpr int DPS = 5;

std::string device_id(int i) { return "met" + std::to_string(10 + i); }

void report_round(int round)
{
    for (int i = 0; i < DEVICES; ++i) {
        std::string text = "{";
        for (int dp = 1; dp <= DPS; ++dp) {
            text += "\"" + std::to_string(dp) + "\":" + std::to_string(round * 100 + dp) + (dp < DPS ? "," : "}");
        }
        sf_obj_dp_report_async(device_id(i).c_str(), text.c_str(), FALSE);
    }
}

/* sf_dps_pending in the file, -1 when the file or the sample is missing. */
long file_pending(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream all;
    all << in.rdbuf();
    std::smatch m;
    const std::string text = all.str();
    static const std::regex sample(std::string("sf_dps_pending\\{gateway=\"") + GW_ID + "\"\\} (\\d+)\n");
    return std::regex_search(text, m, sample) ? std::stol(m[1]) : -1;
}

/* registry.<key> of every health document the cloud received, in order. */
std::vector<long> documents(const std::vector<Received> &all, const char *key)
{
    std::vector<long> out;
    for (const Received &one : all) {
        if (one.topic != std::string("sf/") + GW_ID + "/metrics") {
            continue;
        }
        cJSON *doc = cJSON_Parse(one.payload.c_str());
        const cJSON *value = cJSON_GetObjectItemCaseSensitive(cJSON_GetObjectItemCaseSensitive(doc, "registry"), key);
        out.push_back(cJSON_IsNumber(value) ? static_cast<long>(value->valuedouble) : -1);
        cJSON_Delete(doc);
    }
    return out;
}

class MetricsOutage : public ChannelTest {
protected:
    void TearDown() override
    {
        sf_metrics::stop_reporter();
        ChannelTest::TearDown();
        std::remove(path_.c_str());
    }
    std::string path_ = "/tmp/sf_it_metrics_" + std::to_string(getpid()) + ".prom";
};

TEST_F(MetricsOutage, PendingGaugeRisesDuringTheOutageAndReturnsToZeroInTheFileAndTheDocument)
{
    std::vector<DeviceShape> devices;
    for (int i = 0; i < DEVICES; ++i) {
        devices.push_back(DeviceShape{device_id(i), 0, DPS});
    }
    BrokerOptions options;
    options.persistence = true;
    start(devices, options);
    std::string why;
    ASSERT_TRUE(sf_metrics::start_reporter({path_, 1, 1, GW_ID}, &why)) << why;

    report_round(1);
    EXPECT_TRUE(eventually([this] { return file_pending(path_) == 0; }, seconds(20)));
    EXPECT_TRUE(cloud_.wait_until(
        [](const std::vector<Received> &all) {
            const std::vector<long> pending = documents(all, "pending");
            return !pending.empty() && pending.back() == 0;
        },
        seconds(20)));

    broker_->stop(true);
    ASSERT_TRUE(eventually([] { return get_mqc_conn_stat() == 0; }, seconds(10)));
    report_round(2); /* every DP changes: none can be confirmed now */
    EXPECT_TRUE(eventually([this] { return file_pending(path_) == DEVICES * DPS; }, seconds(20)))
        << file_pending(path_);

    const size_t before = cloud_.received().size();
    ASSERT_TRUE(broker_->start(&why)) << why;
    EXPECT_TRUE(eventually([this] { return file_pending(path_) == 0; }, seconds(40))) << file_pending(path_);
    /* the documents after the outage: one tells the peak of the outage, and the gauge ends at 0 */
    EXPECT_TRUE(cloud_.wait_until(
        [before](const std::vector<Received> &all) {
            const std::vector<Received> after(all.begin() + static_cast<long>(std::min(before, all.size())), all.end());
            const std::vector<long> peaks = documents(after, "pending_peak");
            const std::vector<long> pending = documents(after, "pending");
            bool saw_peak = false;
            for (long peak : peaks) {
                saw_peak = saw_peak || peak == DEVICES * DPS;
            }
            return saw_peak && !pending.empty() && pending.back() == 0;
        },
        seconds(40)));
}

uint64_t counter(sf_metrics::Counter c) { return sf_metrics::snapshot().counters[c]; }

class ChannelCounters : public ChannelTest {};

TEST_F(ChannelCounters, SessionsPublicationsAndInboundDocumentsAreCountedOnce)
{
    sf_metrics::reset();
    StderrCapture log;
    start({DeviceShape{"met20", 1, 1}});
    EXPECT_EQ(1u, counter(sf_metrics::MqttConnects));
    EXPECT_TRUE(log.wait_for("NOTICE metrics.cpp:", seconds(10)));
    EXPECT_NE(std::string::npos, log.text().find("mqtt_session_up: MQTT session with 127.0.0.1:")) << log.text();

    const uint64_t accepted = counter(sf_metrics::MqttAccepted);
    const uint64_t confirmed = counter(sf_metrics::MqttConfirmed);
    ASSERT_EQ(RC_OK, sf_obj_dp_report_async("met20", "{\"2\":7}", FALSE));
    EXPECT_TRUE(eventually([&] { return counter(sf_metrics::MqttConfirmed) == confirmed + 1; }, seconds(10)));
    EXPECT_EQ(accepted + 1, counter(sf_metrics::MqttAccepted));

    ASSERT_TRUE(cloud_.publish(topic("cmd/query"), "{\"cids\":[\"met20\"],\"dpids\":[2]}"));
    EXPECT_TRUE(eventually([] { return counter(sf_metrics::InboundQuery) == 1; }, seconds(10)));
    EXPECT_EQ(0u, counter(sf_metrics::InboundDp));

    broker_->stop();
    EXPECT_TRUE(eventually([] { return counter(sf_metrics::MqttDisconnects) == 1; }, seconds(10)));
    EXPECT_TRUE(log.wait_for("mqtt_session_down: MQTT session with 127.0.0.1:", seconds(10)));
}

TEST_F(ChannelCounters, ARefusedLanKeyIsCountedAndLoggedAsAWarning)
{
    sf_metrics::reset();
    StderrCapture log;
    start({}, {}, false);
    start_lan(0, 0, true); // the auth frame of the plain mode
    LanPeer intruder;
    ASSERT_TRUE(intruder.connect(lan_bound_port()));
    ASSERT_TRUE(intruder.send_line("{\"cmd\":\"auth\",\"key\":\"wrong\"}"));
    EXPECT_TRUE(eventually([] { return counter(sf_metrics::LanAuthRefused) == 1; }, seconds(10)));
    EXPECT_TRUE(log.wait_for(" refused: wrong key or not an authentication", seconds(10)));
    EXPECT_NE(std::string::npos, log.text().find(" WARN ")) << log.text();
    EXPECT_NE(std::string::npos, log.text().find("lan_admission.cpp:")) << log.text();
}

} // namespace
} // namespace it
