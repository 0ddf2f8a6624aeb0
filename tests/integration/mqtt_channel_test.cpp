/*
 * The MQTT client between the smart frame and a real broker: reports,
 * commands, presence, publication completions and the network status.
 */
#include <atomic>
#include <chrono>
#include <thread>
#include <mutex>

#include "support/blocks.h"
#include "support/channel_fixture.h"
#include "support/stderr_capture.h"

#include "smart_frame/smart_frame.h"

namespace it {
namespace {

class MqttChannel : public ChannelTest {};

struct CompletionLog {
    std::mutex mutex;
    std::vector<OPERATE_RET> results;
};

void record_completion(OPERATE_RET op_ret, const void *prv_data)
{
    auto *log = static_cast<CompletionLog *>(const_cast<void *>(prv_data));
    std::lock_guard<std::mutex> hold(log->mutex);
    log->results.push_back(op_ret);
}

std::vector<OPERATE_RET> completions(CompletionLog *log)
{
    std::lock_guard<std::mutex> hold(log->mutex);
    return log->results;
}

TEST_F(MqttChannel, BrokerConfirmedReportEndsAtPvStat3AndTheSubscriberGetsTheEnvelope)
{
    start({{"sub01", 1, 1}});

    ASSERT_EQ(RC_OK, sf_obj_dp_report_async("sub01", "{\"1\":true,\"2\":25}", FALSE));

    EXPECT_TRUE(cloud_.wait_until(
        [](const std::vector<Received> &all) {
            return has_uplink(all, MQC_PRO_DP_REPORT, "{\"dps\":{\"1\":true,\"2\":25},\"cid\":\"sub01\"}");
        },
        seconds(10)));
    EXPECT_TRUE(eventually([] { return pv_stat("sub01", 1) == PV_STAT_CLOUD && pv_stat("sub01", 2) == PV_STAT_CLOUD; },
                           seconds(10)));
}

TEST_F(MqttChannel, CloudCommandReachesTheObjectDpCallbackWithTheRightRecord)
{
    start({{"sub01", 1, 1}});

    ASSERT_TRUE(cloud_.publish(topic("cmd/dp"), "{\"devId\":\"sub01\",\"ctype\":0,\"dps\":{\"1\":true,\"2\":25}}"));

    ASSERT_TRUE(wait_obj_cmds([](const std::vector<ObjCmd> &all) { return !all.empty(); }, seconds(10)));
    const ObjCmd cmd = obj_cmds().front();
    EXPECT_EQ(DP_CMD_MQ, cmd.cmd_tp);
    EXPECT_EQ(0, cmd.dtt_tp);
    EXPECT_EQ("sub01", cmd.cid);
    ASSERT_EQ(2u, cmd.dps.size());
    EXPECT_EQ(1, cmd.dps[0].dpid);
    EXPECT_EQ(PROP_BOOL, cmd.dps[0].type);
    EXPECT_EQ(1, cmd.dps[0].number);
    EXPECT_EQ(2, cmd.dps[1].dpid);
    EXPECT_EQ(PROP_VALUE, cmd.dps[1].type);
    EXPECT_EQ(25, cmd.dps[1].number);
}

TEST_F(MqttChannel, PresenceBatchesReachTheSubscriberUnderProtocol25)
{
    start({{"sub01", 1, 1}, {"sub02", 1, 1}, {"sub03", 1, 1}});

    ASSERT_EQ(RC_OK, sf_dev_online_stat_update("sub01", TRUE));
    ASSERT_EQ(RC_OK, sf_dev_online_stat_update("sub02", FALSE));
    ASSERT_EQ(RC_OK, sf_dev_online_stat_update("sub03", TRUE));

    EXPECT_TRUE(cloud_.wait_until(
        [](const std::vector<Received> &all) {
            return has_uplink(all, MQC_PRO_PRESENCE, "{\"online\":[\"sub01\",\"sub03\"],\"offline\":[\"sub02\"]}");
        },
        seconds(10)));
}

TEST_F(MqttChannel, ProtocolDataIsCopiedFramedWithSernoAndCompletedOnce)
{
    start({});
    CompletionLog log;
    std::string text = "{\"action\":0,\"rets\":[0],\"gid\":\"5\"}";

    ASSERT_EQ(RC_OK, mqc_prot_data_rept_seq(MQC_PRO_GROUP, text.c_str(), 1, 5, record_completion, &log));
    text.assign(text.size(), 'x'); // the client copied it

    EXPECT_TRUE(eventually([&] { return completions(&log).size() == 1; }, seconds(10)));
    EXPECT_TRUE(cloud_.wait_until(
        [](const std::vector<Received> &all) {
            return has_uplink(all, MQC_PRO_GROUP, "{\"action\":0,\"rets\":[0],\"gid\":\"5\"}");
        },
        seconds(10)));
    EXPECT_EQ(std::vector<OPERATE_RET>{RC_OK}, completions(&log));
}

TEST_F(MqttChannel, QosZeroDataWithoutCallbackIsPublished)
{
    start({});
    ASSERT_EQ(RC_OK, mqc_prot_data_rept_seq(MQC_PRO_SCENE, "{\"action\":1}", 0, 0, nullptr, nullptr));
    EXPECT_TRUE(cloud_.wait_until(
        [](const std::vector<Received> &all) { return has_uplink(all, MQC_PRO_SCENE, "{\"action\":1}"); },
        seconds(10)));
}

TEST_F(MqttChannel, ReportBlockIsHeldWhilePendingAndReleasedAfterTheAcknowledgement)
{
    start({});
    CompletionLog log;
    RFC_DATA_S *block = make_block("{\"dps\":{\"1\":true}}", 77);

    broker_->pause();
    ASSERT_EQ(RC_OK, mqc_dp_report_async(block, 30, record_completion, &log));
    EXPECT_EQ(2u, references(block));
    EXPECT_TRUE(completions(&log).empty());
    broker_->resume();

    ASSERT_TRUE(eventually([&] { return completions(&log).size() == 1; }, seconds(10)));
    EXPECT_EQ(RC_OK, completions(&log)[0]);
    EXPECT_EQ(1u, references(block));
    EXPECT_TRUE(cloud_.wait_until(
        [](const std::vector<Received> &all) {
            for (const Received &one : all) {
                if (one.payload == "{\"serno\":77,\"pro\":4,\"data\":{\"dps\":{\"1\":true}}}") {
                    return true;
                }
            }
            return false;
        },
        seconds(10)));
    put_rfc_data(block);
}

TEST_F(MqttChannel, UnacknowledgedReportTimesOutOnceAndTheLateAcknowledgementIsIgnored)
{
    start({});
    CompletionLog log;
    RFC_DATA_S *block = make_block("{\"dps\":{\"1\":false}}", 1);

    broker_->pause();
    ASSERT_EQ(RC_OK, mqc_dp_report_async(block, 1, record_completion, &log));
    ASSERT_TRUE(eventually([&] { return !completions(&log).empty(); }, seconds(10)));
    EXPECT_EQ(std::vector<OPERATE_RET>{MQC_RC_TIMEOUT}, completions(&log));
    EXPECT_EQ(1u, references(block));

    broker_->resume();
    // The broker now acknowledges the message; its completion already ran.
    ASSERT_TRUE(cloud_.wait_until([](const std::vector<Received> &all) {
        return has_uplink(all, MQC_PRO_DP_REPORT, "{\"dps\":{\"1\":false}}");
    }, seconds(10)));
    ASSERT_EQ(RC_OK, mqc_prot_data_rept_seq(MQC_PRO_GROUP, "{}", 1, 5, record_completion, &log));
    ASSERT_TRUE(eventually([&] { return completions(&log).size() == 2; }, seconds(10)));
    EXPECT_EQ((std::vector<OPERATE_RET>{MQC_RC_TIMEOUT, RC_OK}), completions(&log));
    put_rfc_data(block);
}

TEST_F(MqttChannel, LostConnectionCompletesPendingReportsOnceEvenWhenTheLibraryResendsThem)
{
    start({});
    CompletionLog lost;
    RFC_DATA_S *block = make_block("{\"dps\":{\"2\":3}}", 2);

    broker_->pause();
    ASSERT_EQ(RC_OK, mqc_dp_report_async(block, 30, record_completion, &lost));
    broker_->stop();

    ASSERT_TRUE(eventually([&] { return !completions(&lost).empty(); }, seconds(10)));
    EXPECT_EQ(std::vector<OPERATE_RET>{MQC_RC_CONN_LOST}, completions(&lost));
    EXPECT_EQ(1u, references(block));
    EXPECT_EQ(0, get_mqc_conn_stat());
    EXPECT_EQ(GW_NW_LAN, get_gw_nw_status());
    EXPECT_EQ(MQC_RC_NOT_CONNECTED, mqc_dp_report_async(block, 30, record_completion, &lost));
    EXPECT_EQ(1u, references(block));

    std::string why;
    ASSERT_TRUE(broker_->start(&why)) << why;
    ASSERT_TRUE(eventually([] { return get_mqc_conn_stat() == 1; }, seconds(15)));
    // libmosquitto sends the unacknowledged message again on the new
    // connection, before this one; once this one is acknowledged, so is it.
    CompletionLog fresh;
    ASSERT_EQ(RC_OK, mqc_dp_report_async(block, 30, record_completion, &fresh));
    ASSERT_TRUE(eventually([&] { return !completions(&fresh).empty(); }, seconds(10)));

    EXPECT_EQ(std::vector<OPERATE_RET>{RC_OK}, completions(&fresh));
    EXPECT_EQ(std::vector<OPERATE_RET>{MQC_RC_CONN_LOST}, completions(&lost));
    EXPECT_EQ(1u, references(block));
    put_rfc_data(block);
}

TEST_F(MqttChannel, NetworkStatusFollowsTheConnectionAndReconnectsAfterTheBrokerReturns)
{
    start({});
    EXPECT_EQ(GW_NW_CLOUD, get_gw_nw_status());

    broker_->stop();
    EXPECT_TRUE(eventually([] { return get_mqc_conn_stat() == 0; }, seconds(10)));
    EXPECT_EQ(GW_NW_LAN, get_gw_nw_status());

    std::string why;
    ASSERT_TRUE(broker_->start(&why)) << why;
    EXPECT_TRUE(eventually([] { return get_mqc_conn_stat() == 1; }, seconds(15)));
    EXPECT_EQ(GW_NW_CLOUD, get_gw_nw_status());
}

TEST_F(MqttChannel, StopCompletesWhatIsStillPending)
{
    start({});
    CompletionLog log;
    RFC_DATA_S *block = make_block("{\"dps\":{}}", 3);
    broker_->pause();
    ASSERT_EQ(RC_OK, mqc_dp_report_async(block, 30, record_completion, &log));

    broker_->stop();
    mqc_stop();

    EXPECT_EQ(1u, completions(&log).size());
    EXPECT_EQ(1u, references(block));
    EXPECT_EQ(MQC_RC_NOT_CONNECTED, mqc_dp_report_async(block, 30, record_completion, &log));
    put_rfc_data(block);
}

TEST_F(MqttChannel, StatusTopicSaysOnlineOnConnectAndOfflineOnStop)
{
    start({});
    EXPECT_TRUE(cloud_.wait_until(
        [](const std::vector<Received> &all) {
            return !all.empty() && all.back().topic == topic("status") && all.back().payload == status(true);
        },
        seconds(10)));
    const std::string offline = status(false);
    mqc_stop();
    EXPECT_TRUE(cloud_.wait_until(
        [&offline](const std::vector<Received> &all) {
            return all.back().topic == topic("status") && all.back().payload == offline;
        },
        seconds(10)));
}

TEST_F(MqttChannel, PublicationWithoutATimeLimitUsesTheConfiguredDefault)
{
    start({}, {}, false);
    MQC_CONFIG_S cfg = mqtt_config();
    cfg.default_timeout_s = 1;
    ASSERT_EQ(RC_OK, mqc_start(&cfg));
    ASSERT_TRUE(eventually([] { return get_mqc_conn_stat() == 1; }, seconds(10)));
    CompletionLog log;

    broker_->pause();
    const auto began = std::chrono::steady_clock::now();
    ASSERT_EQ(RC_OK, mqc_prot_data_rept_seq(MQC_PRO_PRESENCE, "{\"online\":[\"a\"]}", 1, 0, record_completion, &log));
    ASSERT_TRUE(eventually([&] { return !completions(&log).empty(); }, seconds(10)));
    const auto waited = std::chrono::steady_clock::now() - began;
    broker_->resume();

    EXPECT_EQ(std::vector<OPERATE_RET>{MQC_RC_TIMEOUT}, completions(&log));
    EXPECT_GE(waited, milliseconds(900));
}

TEST_F(MqttChannel, InboundCommandsBeyondTheQueueBoundWaitAtTheBrokerAndNoneIsLost)
{
    StderrCapture log;
    start({{"sub01", 1, 1}});
    std::mutex gate;
    std::atomic<bool> holding{false};
    gate.lock(); // the first query holds the inbound thread until released
    set_query_hook([&](const std::string &) {
        holding = true;
        gate.lock();
        gate.unlock();
    });

    ASSERT_TRUE(cloud_.publish(topic("cmd/query"), "{\"cids\":[\"sub01\"],\"dpids\":[1]}"));
    ASSERT_TRUE(eventually([&] { return holding.load(); }, seconds(10))) << "the first query never reached the application";
    for (int i = 1; i < 200; ++i) {
        ASSERT_TRUE(cloud_.publish(topic("cmd/query"), "{\"cids\":[\"sub01\"],\"dpids\":[1]}"));
    }
    // The client stops reading at its limit; the broker holds the rest.
    MQC_INBOUND_STAT_S stat{};
    ASSERT_TRUE(eventually(
        [&] {
            mqc_get_inbound_stat(&stat);
            return stat.depth >= stat.limit;
        },
        seconds(10)));
    EXPECT_EQ(64u, stat.limit);
    EXPECT_LE(stat.depth, stat.limit + stat.reserve);
    gate.unlock();

    EXPECT_TRUE(wait_app_calls(200, seconds(30)));
    set_query_hook(nullptr);
    EXPECT_EQ(200u, app_calls().size());
    mqc_get_inbound_stat(&stat);
    EXPECT_EQ(0u, stat.dropped);
    EXPECT_EQ(std::string::npos, log.text().find("command dropped")) << log.text();
}

TEST_F(MqttChannel, BadArgumentsAreRefused)
{
    start({});
    EXPECT_EQ(RC_BAD_PARAM, mqc_dp_report_async(nullptr, 5, record_completion, nullptr));
    EXPECT_EQ(RC_BAD_PARAM, mqc_obj_dp_query(nullptr));
    EXPECT_EQ(RC_BAD_PARAM, mqc_prot_data_rept_seq(MQC_PRO_GROUP, nullptr, 0, 0, nullptr, nullptr));
    EXPECT_EQ(RC_BAD_PARAM, mqc_prot_data_rept_seq(MQC_PRO_GROUP, "{}", 3, 0, nullptr, nullptr));
    MQC_CONFIG_S cfg = mqtt_config();
    EXPECT_EQ(RC_BAD_PARAM, mqc_start(&cfg)); // already started
}

TEST_F(MqttChannel, QueryAnswerBlockIsPublishedUnderProtocol16WithoutKeepingAReference)
{
    start({});
    RFC_DATA_S *block = make_block("{\"dps\":{\"1\":true}}", 9);
    ASSERT_EQ(RC_OK, mqc_obj_dp_query(block));
    EXPECT_EQ(1u, references(block));
    EXPECT_TRUE(cloud_.wait_until(
        [](const std::vector<Received> &all) {
            return has_uplink(all, MQC_PRO_DP_QUERY, "{\"dps\":{\"1\":true}}");
        },
        seconds(10)));
    put_rfc_data(block);
}

} // namespace
} // namespace it
