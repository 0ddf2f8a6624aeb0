#include <gtest/gtest.h>

#include <cjson/cJSON.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "gateway/registry/gw_registry.h"
#include "port/posix/metrics/metrics.h"
#include "port/posix/metrics/metrics_text.h"
#include "port/posix/mqtt/mqtt_config.h"
#include "port/posix/mqtt/mqtt_inbound.h"
#include "port/posix/mqtt/mqtt_pending.h"
#include "tests/unit/gateway/registry/registry_test_data.h"
#include "tests/unit/posix/posix_test_util.h"

namespace {

using sf_metrics::Counter;

uint64_t counter(Counter c) { return sf_metrics::snapshot().counters[c]; }

void no_op_completion(OPERATE_RET, const void *) {}

class Metrics : public ::testing::Test {
protected:
    void SetUp() override { sf_metrics::reset(); }
};

TEST_F(Metrics, AConfirmedPublicationMovesConfirmedByExactlyOne)
{
    sf_mqtt::Completion done;
    done.cb = no_op_completion;
    sf_mqtt::PendingPublications::complete(done, RC_OK);
    const sf_metrics::Snapshot s = sf_metrics::snapshot();
    EXPECT_EQ(1u, s.counters[sf_metrics::MqttConfirmed]);
    EXPECT_EQ(0u, s.counters[sf_metrics::MqttFailed]);
    EXPECT_EQ(0u, s.counters[sf_metrics::MqttTimedOut]);
    EXPECT_EQ(1u, s.latency_buckets[sf_metrics::kLatencyBuckets]); /* one completion in the histogram */
}

TEST_F(Metrics, TimedOutAndLostPublicationsAreCountedApart)
{
    sf_mqtt::Completion done;
    done.cb = no_op_completion;
    sf_mqtt::PendingPublications::complete(std::vector<sf_mqtt::Completion>{done, done}, MQC_RC_TIMEOUT);
    sf_mqtt::PendingPublications::complete(done, MQC_RC_CONN_LOST);
    EXPECT_EQ(2u, counter(sf_metrics::MqttTimedOut));
    EXPECT_EQ(1u, counter(sf_metrics::MqttFailed));
    EXPECT_EQ(0u, counter(sf_metrics::MqttConfirmed));
}

TEST_F(Metrics, LatencyFallsInTheBucketOfItsDuration)
{
    sf_metrics::publication_completed(0, std::chrono::steady_clock::now() - std::chrono::milliseconds(300));
    const sf_metrics::Snapshot s = sf_metrics::snapshot();
    EXPECT_EQ(0u, s.latency_buckets[2]); /* <= 0.1 s */
    EXPECT_EQ(1u, s.latency_buckets[3]); /* <= 0.5 s */
    EXPECT_GE(s.latency_sum_s, 0.3);
}

TEST_F(Metrics, ADroppedOversizeDocumentMovesItsCounter)
{
    sf_mqtt::InboundWorker worker(16, 4, 8, 0);
    const std::string big(17, ' ');
    worker.push(sf_wire::CmdKind::Dp, big.data(), big.size(), 1);
    EXPECT_EQ(1u, counter(sf_metrics::InboundDroppedOversize));
    EXPECT_EQ(0u, counter(sf_metrics::InboundDroppedQueueFull));
}

TEST_F(Metrics, AQueueFullDropOfAQos0CommandMovesItsCounter)
{
    sf_mqtt::InboundWorker worker(64, 4, 2, 1); /* not started: nothing takes from the queue */
    for (int i = 0; i < 3; ++i) {
        worker.push(sf_wire::CmdKind::Dp, "{}", 2, 1); /* QoS 1: acknowledged, so kept past limit and reserve */
    }
    EXPECT_EQ(0u, counter(sf_metrics::InboundDroppedQueueFull));
    worker.push(sf_wire::CmdKind::Dp, "{}", 2, 0);
    EXPECT_EQ(1u, counter(sf_metrics::InboundDroppedQueueFull));
}

TEST_F(Metrics, ACommandWhoseMessageExpiryPassedIsDroppedAndCountedAsExpired)
{
    sf_mqtt::InboundWorker worker(64, 4, 8, 0);
    worker.start();
    worker.push(sf_wire::CmdKind::Dp, "{}", 2, 1, 0, 1000); /* expired at 1970-01-01 00:00:01 */
    EXPECT_TRUE(posix_test::eventually([] { return counter(sf_metrics::CommandsExpired) == 1; }));
    worker.stop();
    const std::string text = sf_metrics::prometheus_text(sf_metrics::snapshot(), "g");
    EXPECT_NE(std::string::npos, text.find("sf_commands_expired_total{gateway=\"g\",reason=\"message_expiry\"} 1\n"))
        << text;
    EXPECT_NE(std::string::npos, text.find("sf_commands_expired_total{gateway=\"g\",reason=\"max_age\"} 0\n"));
    EXPECT_NE(std::string::npos, text.find("sf_commands_replayed_total{gateway=\"g\"} 0\n"));
    EXPECT_NE(std::string::npos, text.find("sf_mqtt_session_takeovers_total{gateway=\"g\"} 0\n"));
    EXPECT_NE(std::string::npos, text.find("sf_mqtt_session_kept{gateway=\"g\"} 0\n"));
}

TEST_F(Metrics, RefusedDocumentsAreCountedByReason)
{
    sf_metrics::inbound_refused("document nested too deep");
    sf_metrics::inbound_refused("not JSON");
    EXPECT_EQ(1u, counter(sf_metrics::InboundDroppedTooDeep));
    EXPECT_EQ(1u, counter(sf_metrics::InboundDroppedInvalid));
}

TEST_F(Metrics, DispatchDepthKeepsItsHighestValue)
{
    sf_metrics::dispatch_depth(3);
    sf_metrics::dispatch_depth(7);
    sf_metrics::dispatch_handled(6);
    const sf_metrics::Snapshot s = sf_metrics::snapshot();
    EXPECT_EQ(6u, s.dispatch_depth);
    EXPECT_EQ(7u, s.dispatch_depth_max);
    EXPECT_EQ(1u, s.counters[sf_metrics::DispatchHandled]);
}

class MetricsRegistry : public Metrics {
protected:
    void SetUp() override
    {
        Metrics::SetUp();
        gw_registry::LoadError error;
        ASSERT_TRUE(gw_registry::load_text(registry_test::kGateway, "gw.json", &error)) << error.text();
    }
    void TearDown() override { gw_registry::unload(); }
};

TEST_F(MetricsRegistry, ThePendingGaugeEqualsTheDpsNotConfirmed)
{
    EXPECT_EQ(0u, sf_metrics::snapshot().dps_pending);
    get_dev_dp_cntl("a1b2c3", 1)->pv_stat = PV_STAT_LOCAL;
    get_dev_dp_cntl("a1b2c3", 2)->pv_stat = PV_STAT_SENDING;
    get_dev_dp_cntl("a1b2c3", 3)->pv_stat = PV_STAT_CLOUD;
    get_dev_dp_cntl(nullptr, 1)->pv_stat = PV_STAT_LOCAL; /* the gateway's own DP counts too */
    sf_metrics::Snapshot s = sf_metrics::snapshot();
    EXPECT_EQ(3u, s.dps_pending);
    EXPECT_EQ(2u, s.dps_by_state[PV_STAT_LOCAL]);
    EXPECT_EQ(1u, s.dps_by_state[PV_STAT_SENDING]);
    EXPECT_EQ(1u, s.dps_by_state[PV_STAT_CLOUD]);
    get_dev_dp_cntl("a1b2c3", 1)->pv_stat = PV_STAT_CLOUD;
    EXPECT_EQ(2u, sf_metrics::snapshot().dps_pending);
}

TEST_F(MetricsRegistry, DevicesAreCountedByPresenceWithoutTheGateway)
{
    get_dev_cntl("a1b2c3")->attr.stat = DOS_ONLINE;
    const sf_metrics::Snapshot s = sf_metrics::snapshot();
    EXPECT_EQ(2u, s.devices);
    EXPECT_EQ(1u, s.devices_online);
    EXPECT_EQ(1u, s.devices_offline);
}

TEST_F(MetricsRegistry, TheHealthDocumentIsJsonWithThePendingValues)
{
    get_dev_dp_cntl("a1b2c3", 1)->pv_stat = PV_STAT_LOCAL;
    sf_metrics::count(sf_metrics::MqttConfirmed);
    cJSON *doc = cJSON_Parse(sf_metrics::json_document(sf_metrics::snapshot(), "gw0001").c_str());
    ASSERT_NE(nullptr, doc);
    EXPECT_STREQ("gw0001", cJSON_GetObjectItem(doc, "gateway")->valuestring);
    const cJSON *registry = cJSON_GetObjectItem(doc, "registry");
    EXPECT_EQ(1, cJSON_GetObjectItem(registry, "pending")->valueint);
    EXPECT_EQ(2, cJSON_GetObjectItem(registry, "devices")->valueint);
    const cJSON *publications = cJSON_GetObjectItem(cJSON_GetObjectItem(doc, "mqtt"), "publications");
    EXPECT_EQ(1, cJSON_GetObjectItem(publications, "confirmed")->valueint);
    EXPECT_TRUE(cJSON_IsFalse(cJSON_GetObjectItem(cJSON_GetObjectItem(doc, "mqtt"), "connected")));
    cJSON_Delete(doc);
}

TEST_F(MetricsRegistry, TheBrokerInUseAndItsChangesAreInTheFileAndTheHealthDocument)
{
    sf_metrics::mqtt_broker_in_use("10.0.0.2:1884");
    sf_metrics::count(sf_metrics::MqttBrokerChanges);
    const sf_metrics::Snapshot s = sf_metrics::snapshot();
    const std::string text = sf_metrics::prometheus_text(s, "gw0001");
    EXPECT_NE(std::string::npos, text.find("sf_mqtt_broker_info{gateway=\"gw0001\",broker=\"10.0.0.2:1884\"} 1\n")) << text;
    EXPECT_NE(std::string::npos, text.find("sf_mqtt_broker_changes_total{gateway=\"gw0001\"} 1\n")) << text;
    cJSON *doc = cJSON_Parse(sf_metrics::json_document(s, "gw0001").c_str());
    ASSERT_NE(nullptr, doc);
    const cJSON *mqtt = cJSON_GetObjectItem(doc, "mqtt");
    EXPECT_STREQ("10.0.0.2:1884", cJSON_GetObjectItem(mqtt, "broker")->valuestring);
    EXPECT_EQ(1, cJSON_GetObjectItem(mqtt, "broker_changes")->valueint);
    cJSON_Delete(doc);
}

std::string read_all(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

TEST_F(MetricsRegistry, PromtoolAcceptsTheFile)
{
    get_dev_dp_cntl("a1b2c3", 1)->pv_stat = PV_STAT_LOCAL;
    sf_metrics::publication_completed(0, std::chrono::steady_clock::now());
    const std::string path = "/tmp/sf_metrics_test_" + std::to_string(getpid()) + ".prom";
    std::string why;
    ASSERT_TRUE(sf_metrics::write_file_atomically(path, sf_metrics::prometheus_text(sf_metrics::snapshot(), "gw0001"),
                                                  &why))
        << why;
    const std::string text = read_all(path);
    EXPECT_NE(std::string::npos, text.find("sf_dps_pending{gateway=\"gw0001\"} 1\n")) << text;
    EXPECT_NE(std::string::npos, text.find("sf_mqtt_publications_completed_total{gateway=\"gw0001\",result=\"confirmed\"} 1\n"));
    const std::string out = path + ".out";
    const int status = std::system(("promtool check metrics < " + path + " > " + out + " 2>&1").c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status)) << read_all(out); /* 127: promtool missing (scripts/install_deps.sh) */
    EXPECT_EQ("", read_all(out)); /* no lint warning either */
    std::remove(path.c_str());
    std::remove(out.c_str());
}

} // namespace

namespace {

TEST(MetricsText, EveryFamilyOfTheFileIsListedInDocsMetrics)
{
    const std::string doc = read_all(std::string(SF_SOURCE_DIR) + "/docs/metrics.md");
    ASSERT_FALSE(doc.empty());
    const std::string text = sf_metrics::prometheus_text(sf_metrics::Snapshot(), "gw0001");
    size_t families = 0;
    for (size_t at = text.find("# TYPE "); at != std::string::npos; at = text.find("# TYPE ", at + 1)) {
        const size_t start = at + 7;
        const std::string name = text.substr(start, text.find(' ', start) - start);
        EXPECT_NE(std::string::npos, doc.find("| `" + name + "` |")) << name << " is not in docs/metrics.md";
        ++families;
    }
    EXPECT_GE(families, 20u);
}

} // namespace
