#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "smart_frame/frame_cntl.h"
#include "smart_frame/presence/presence.h"
#include "tests/fakes/sf_fixture.h"

using namespace fake::registry;
using sf::sf_cntl;

namespace {

/* A gateway whose own node is not in the device list: the list holds only the sub-devices a test adds. */
class OnlineBatch : public SfStartedTest {
protected:
    void SetUp() override
    {
        SfStartedTest::SetUp();
        set_gateway("gw0001", {}, false);
        t0 = fake::timers::now_ms();
    }

    static TM_MSG_S *batch_timer() { return sf_cntl.tmm_dev_ol_sync; }
    static std::vector<fake::timers::Start> batch_starts() { return fake::timers::starts_of(batch_timer()); }
    static const std::vector<fake::mqtt::Prot> &prots() { return fake::mqtt::prot_reports(); }
    static const DEV_ACTV_ATTR_S &attr(const std::string &id) { return device(id)->attr; }
    static BOOL_T chain_running() { return sf_cntl.dos_update; }

    static void ack_last(OPERATE_RET op_ret = RC_OK) { fake::mqtt::complete_prot(prots().size() - 1, op_ret); }

    /* The last publication is text: acknowledge it, and the run 1 s later ends the chain. */
    static void expect_last_batch_then_end(const std::string &text)
    {
        EXPECT_EQ(text, prots().back().text);
        ack_last();
        fake::timers::advance(1000);
        EXPECT_EQ(FALSE, chain_running());
    }

    /* Send every device's initial state and end the chain: afterwards every bound device is REPORTED. */
    static void settle()
    {
        fake::timers::fire(batch_timer());
        while (!prots().empty() && prots().back().accepted && !prots().back().completed) {
            ack_last();
            fake::timers::advance(1000);
        }
        ASSERT_EQ(FALSE, chain_running());
        fake::log::clear();
    }

    static std::string id_of_length(char letter, int index, size_t length)
    {
        std::string id = std::string(1, letter) + std::to_string(index);
        return id + std::string(length - id.size(), 'x');
    }

    uint64_t t0 = 0;
};

TEST_F(OnlineBatch, ChangesInQuickSuccessionShareOnePublication300msAfterTheLast)
{
    add_device("a", {});
    add_device("b", {});
    add_device("c", {});

    EXPECT_EQ(RC_OK, sf_dev_online_stat_update("a", FALSE));
    fake::timers::advance(50);
    EXPECT_EQ(RC_OK, sf_dev_online_stat_update("b", FALSE));
    fake::timers::advance(50);
    EXPECT_EQ(RC_OK, sf_dev_online_stat_update("c", TRUE));

    /* every change of an idle chain starts (re-arms) the 300 ms batch timer */
    ASSERT_EQ(3u, batch_starts().size());
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(300u, batch_starts()[i].period);
        EXPECT_EQ(TIMER_ONCE, batch_starts()[i].type);
        EXPECT_EQ(t0 + 50 * i, batch_starts()[i].at_ms);
    }

    fake::timers::advance(299);
    EXPECT_TRUE(prots().empty());
    fake::timers::advance(1);
    ASSERT_EQ(1u, prots().size());
    const fake::mqtt::Prot &batch = prots()[0];
    EXPECT_EQ(25u, batch.pro);
    EXPECT_EQ("{\"online\":[\"c\"],\"offline\":[\"a\",\"b\"]}", batch.text);
    EXPECT_EQ(1, batch.qos);
    EXPECT_EQ(10u, batch.timeout);
    EXPECT_EQ(&__mq_online_stat_async_ifm_cb, batch.cb);
    EXPECT_EQ(nullptr, batch.prv_data);
    EXPECT_TRUE(batch.accepted);
    EXPECT_EQ(TRUE, chain_running());
    for (const char *id : {"a", "b", "c"}) {
        EXPECT_EQ(DOSM_SENDING, attr(id).dosm) << id;
    }
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__tmm_dev_ol_sync_cb", "on:[\"c\"] off:[\"a\",\"b\"]"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__tmm_dev_ol_sync_cb",
                               "send_data:{\"online\":[\"c\"],\"offline\":[\"a\",\"b\"]}"));

    ack_last();
    for (const char *id : {"a", "b", "c"}) {
        EXPECT_EQ(DOSM_REPORTED, attr(id).dosm) << id;
    }
    ASSERT_EQ(4u, batch_starts().size());
    EXPECT_EQ(1000u, batch_starts()[3].period);
    EXPECT_EQ(TIMER_ONCE, batch_starts()[3].type);

    fake::timers::advance(999);
    EXPECT_EQ(TRUE, chain_running());
    fake::timers::advance(1);
    EXPECT_EQ(FALSE, chain_running());
    EXPECT_EQ(1u, prots().size());
    EXPECT_EQ(4u, batch_starts().size());
    EXPECT_FALSE(fake::timers::armed(batch_timer()));
}

TEST_F(OnlineBatch, DeviceThatFlipsBackWhileItsBatchIsInFlightIsReportedByTheNextRun)
{
    add_device("a", {});
    add_device("b", {});
    settle();

    sf_dev_online_stat_update("a", TRUE);
    fake::timers::advance(300);
    ASSERT_EQ(2u, prots().size()); /* settle() sent the first */
    EXPECT_EQ("{\"online\":[\"a\"]}", prots().back().text);
    const size_t starts_before = batch_starts().size();

    sf_dev_online_stat_update("a", FALSE);
    EXPECT_EQ(DOSM_PENDING, attr("a").dosm);
    EXPECT_EQ(DOS_OFFLINE, attr("a").stat);
    EXPECT_EQ(starts_before, batch_starts().size()) << "a running chain needs no timer";

    ack_last();
    EXPECT_EQ(DOSM_PENDING, attr("a").dosm);
    EXPECT_EQ(DOSM_REPORTED, attr("b").dosm);
    fake::timers::advance(1000);
    EXPECT_EQ("{\"offline\":[\"a\"]}", prots().back().text);
    ack_last();
    EXPECT_EQ(DOSM_REPORTED, attr("a").dosm);
    fake::timers::advance(1000);
    EXPECT_EQ(FALSE, chain_running());
}

TEST_F(OnlineBatch, ChangeOfAnotherDeviceDuringARunningChainJoinsTheNextBatch)
{
    add_device("a", {});
    add_device("b", {});
    settle();

    sf_dev_online_stat_update("a", TRUE);
    fake::timers::advance(300);
    const size_t starts_before = batch_starts().size();
    sf_dev_online_stat_update("b", TRUE);
    EXPECT_EQ(starts_before, batch_starts().size());
    ack_last();
    fake::timers::advance(1000);
    expect_last_batch_then_end("{\"online\":[\"b\"]}");
}

TEST_F(OnlineBatch, SameStateTwiceForAReportedDeviceChangesNothing)
{
    add_device("a", {});
    settle();
    const size_t starts_before = batch_starts().size();

    EXPECT_EQ(RC_OK, sf_dev_online_stat_update("a", FALSE));
    EXPECT_EQ(RC_OK, sf_dev_online_stat_update("a", FALSE));
    EXPECT_EQ(DOSM_REPORTED, attr("a").dosm);
    EXPECT_EQ(starts_before, batch_starts().size());
    EXPECT_FALSE(fake::timers::armed(batch_timer()));
}

TEST_F(OnlineBatch, DeviceInFlightIsNotReMarkedByItsUnchangedState)
{
    add_device("a", {});
    sf_dev_online_stat_update("a", TRUE);
    fake::timers::advance(300);
    ASSERT_EQ(DOSM_SENDING, attr("a").dosm);

    sf_dev_online_stat_update("a", TRUE);
    EXPECT_EQ(DOSM_SENDING, attr("a").dosm);
    ack_last();
    EXPECT_EQ(DOSM_REPORTED, attr("a").dosm);
    fake::timers::advance(1000);
}

TEST_F(OnlineBatch, PendingDeviceIsReMarkedEvenWithItsUnchangedState)
{
    add_device("a", {});
    /* every device starts PENDING and offline: an unchanged state still arms an idle chain */
    ASSERT_EQ(DOSM_PENDING, attr("a").dosm);
    ASSERT_EQ(DOS_OFFLINE, attr("a").stat);
    sf_dev_online_stat_update("a", FALSE);
    EXPECT_EQ(1u, batch_starts().size());
    fake::timers::advance(300);
    expect_last_batch_then_end("{\"offline\":[\"a\"]}");
}

TEST_F(OnlineBatch, OnlineTwoIsStoredAsTwoAndReportedOffline)
{
    add_device("a", {});
    add_device("b", {});
    settle();

    sf_dev_online_stat_update("a", 2);
    EXPECT_EQ(2, attr("a").stat);
    fake::timers::advance(300);
    EXPECT_EQ("{\"offline\":[\"a\"]}", prots().back().text);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__tmm_dev_ol_sync_cb", "on:[] off:[\"a\"]"));
    ack_last();
    fake::timers::advance(1000);

    /* 2 -> 1 is a real change, 2 -> 2 is not */
    sf_dev_online_stat_update("a", 2);
    EXPECT_EQ(DOSM_REPORTED, attr("a").dosm);
    sf_dev_online_stat_update("a", TRUE);
    EXPECT_EQ(DOSM_PENDING, attr("a").dosm);
    fake::timers::advance(300);
    EXPECT_EQ("{\"online\":[\"a\"]}", prots().back().text);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__tmm_dev_ol_sync_cb", "on:[\"a\"] off:[]"));
    ack_last();
    fake::timers::advance(1000);
}

TEST_F(OnlineBatch, OnlyTheLowByteOfTheFlagIsStored)
{
    add_device("a", {});
    settle();
    sf_dev_online_stat_update("a", 0x101);
    EXPECT_EQ(DOS_ONLINE, attr("a").stat);
    EXPECT_EQ(DOSM_PENDING, attr("a").dosm);
    fake::timers::advance(300);
    expect_last_batch_then_end("{\"online\":[\"a\"]}");
}

TEST_F(OnlineBatch, OnlyOfflineChangesLeaveTheOnlineMemberOut)
{
    add_device("a", {});
    add_device("b", {});
    add_device("c", {});
    sf_dev_online_stat_update("a", FALSE);
    sf_dev_online_stat_update("c", FALSE);
    fake::timers::advance(300);
    expect_last_batch_then_end("{\"offline\":[\"a\",\"b\",\"c\"]}");
}

TEST_F(OnlineBatch, GatewayIdInAnyLetterCaseIsRefusedSilently)
{
    set_gateway("gw0001");
    gateway_node_as_sub_device(); /* offline: a refused call must leave it so */
    fake::log::clear();
    const int lookups = get_dev_cntl_calls();
    EXPECT_EQ(RC_FAIL, sf_dev_online_stat_update("gw0001", TRUE));
    EXPECT_EQ(RC_FAIL, sf_dev_online_stat_update("GW0001", TRUE));
    EXPECT_EQ(RC_FAIL, sf_dev_online_stat_update("Gw0001", FALSE));
    EXPECT_EQ(lookups, get_dev_cntl_calls());
    EXPECT_EQ(DOS_OFFLINE, device("gw0001")->attr.stat);
    EXPECT_TRUE(batch_starts().empty());
    EXPECT_TRUE(fake::log::entries().empty()) << fake::log::dump();
}

TEST_F(OnlineBatch, IdThatOnlyStartsLikeTheGatewayIsASubDevice)
{
    add_device("gw000", {});
    add_device("gw00011", {});
    EXPECT_EQ(RC_OK, sf_dev_online_stat_update("gw000", TRUE));
    EXPECT_EQ(RC_OK, sf_dev_online_stat_update("gw00011", TRUE));
    fake::timers::advance(300);
    expect_last_batch_then_end("{\"online\":[\"gw000\",\"gw00011\"]}");
}

TEST_F(OnlineBatch, UnknownOrMissingDeviceIsRefusedSilently)
{
    add_device("a", {});
    EXPECT_EQ(RC_FAIL, sf_dev_online_stat_update("zz", TRUE));
    EXPECT_EQ(RC_FAIL, sf_dev_online_stat_update(nullptr, TRUE));
    EXPECT_TRUE(batch_starts().empty());
    EXPECT_TRUE(fake::log::entries().empty()) << fake::log::dump();
}

TEST_F(OnlineBatch, UnboundOrDeletingDeviceIsNeverListedAndStaysPending)
{
    add_device("a", {});
    DEV_CNTL_N_S *unbound = add_device("u", {}, false);
    DEV_CNTL_N_S *deleting = add_device("d", {});
    deleting->dev_delete = 1;
    DEV_CNTL_N_S *odd_bind = add_device("o", {});
    odd_bind->dev_if.bind = 2; /* only exactly 1 is bound */

    sf_dev_online_stat_update("u", TRUE);
    sf_dev_online_stat_update("d", TRUE);
    sf_dev_online_stat_update("o", TRUE);
    sf_dev_online_stat_update("a", TRUE);
    fake::timers::advance(300);
    EXPECT_EQ("{\"online\":[\"a\"]}", prots().back().text);
    ack_last();
    fake::timers::advance(1000);
    EXPECT_EQ(1u, prots().size());
    EXPECT_EQ(FALSE, chain_running());
    EXPECT_EQ(DOSM_PENDING, unbound->attr.dosm);
    EXPECT_EQ(DOSM_PENDING, deleting->attr.dosm);
    EXPECT_EQ(DOSM_PENDING, odd_bind->attr.dosm);
}

TEST_F(OnlineBatch, NineLongIdsFillAListAndTheTenthWaitsForTheNextBatch)
{
    std::vector<std::string> ids;
    for (int i = 0; i < 10; ++i) {
        ids.push_back(id_of_length('n', i, 25));
        add_device(ids.back(), {});
        device(ids.back())->attr.stat = DOS_ONLINE;
    }
    fake::timers::fire(batch_timer());
    std::string expected = "{\"online\":[";
    for (int i = 0; i < 9; ++i) {
        expected += (i ? ",\"" : "\"") + ids[i] + "\"";
    }
    expected += "]}";
    ASSERT_EQ(1u, prots().size());
    EXPECT_EQ(expected, prots()[0].text);
    EXPECT_EQ(253u + 11u, expected.size()); /* a list of 253 bytes: 3 bytes of the 256 left */
    EXPECT_EQ(DOSM_PENDING, attr(ids[9]).dosm);

    ack_last();
    fake::timers::advance(1000);
    expect_last_batch_then_end("{\"online\":[\"" + ids[9] + "\"]}");
}

TEST_F(OnlineBatch, AFullListStopsTheWalkForTheOtherListToo)
{
    std::vector<std::string> on;
    std::vector<std::string> off;
    for (int i = 0; i < 10; ++i) {
        on.push_back(id_of_length('n', i, 25));
        add_device(on.back(), {});
        device(on.back())->attr.stat = DOS_ONLINE;
        off.push_back(id_of_length('f', i, 25));
        add_device(off.back(), {});
    }
    fake::timers::fire(batch_timer());
    auto list = [](const std::vector<std::string> &ids, size_t from, size_t to) {
        std::string text = "[";
        for (size_t i = from; i < to; ++i) {
            text += (i > from ? ",\"" : "\"") + ids[i] + "\"";
        }
        return text + "]";
    };
    /* the list order is n0 f0 n1 f1 ...: the online list is full after n8, so f8 waits although its list has room */
    EXPECT_EQ("{\"online\":" + list(on, 0, 9) + ",\"offline\":" + list(off, 0, 8) + "}", prots().back().text);
    EXPECT_EQ(DOSM_PENDING, attr(off[8]).dosm);
    ack_last();
    fake::timers::advance(1000);
    expect_last_batch_then_end("{\"online\":" + list(on, 9, 10) + ",\"offline\":" + list(off, 8, 10) + "}");
}

TEST_F(OnlineBatch, ElevenIdsOfTwentyCharactersFitAList)
{
    std::vector<std::string> ids;
    for (int i = 0; i < 12; ++i) {
        ids.push_back(id_of_length('t', i, 20));
        add_device(ids.back(), {});
    }
    fake::timers::fire(batch_timer());
    const std::string &text = prots().back().text;
    EXPECT_NE(std::string::npos, text.find(ids[10]));
    EXPECT_EQ(std::string::npos, text.find(ids[11]));
    EXPECT_EQ(12u + 254u, text.size()); /* {"offline": + list of 254 + } */
    ack_last();
    fake::timers::advance(1000);
    expect_last_batch_then_end("{\"offline\":[\"" + ids[11] + "\"]}");
}

TEST_F(OnlineBatch, EntryAdmittedWithTwentyBytesLeftStillFitsItsList)
{
    /* five entries of 28 bytes and five of 19 bring the list to 236 bytes: exactly 20 of 256 left */
    std::vector<std::string> ids;
    for (int i = 0; i < 5; ++i) {
        ids.push_back(id_of_length('l', i, 25));
    }
    for (int i = 0; i < 5; ++i) {
        ids.push_back(id_of_length('s', i, 16));
    }
    ids.push_back(id_of_length('z', 0, 25)); /* admitted: needs 28 bytes and the terminator */
    ids.push_back(id_of_length('w', 0, 5));  /* waits */
    std::string list = "[";
    for (size_t i = 0; i < ids.size(); ++i) {
        add_device(ids[i], {});
        device(ids[i])->attr.stat = DOS_ONLINE;
        if (i < 11) {
            list += (i ? ",\"" : "\"") + ids[i] + "\"";
        }
    }
    list += "]";
    ASSERT_EQ(264u, list.size());

    fake::timers::fire(batch_timer());
    EXPECT_EQ("{\"online\":" + list + "}", prots().back().text);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__tmm_dev_ol_sync_cb", "on:" + list + " off:[]"));
    EXPECT_EQ(DOSM_PENDING, attr(ids[11]).dosm);
    ack_last();
    fake::timers::advance(1000);
    expect_last_batch_then_end("{\"online\":[\"" + ids[11] + "\"]}");
}

TEST_F(OnlineBatch, IdsAreWrittenAsTheyAreWithoutEscaping)
{
    add_device("q\"1\\", {});
    fake::timers::fire(batch_timer());
    expect_last_batch_then_end("{\"offline\":[\"q\"1\\\"]}");
}

TEST_F(OnlineBatch, NetworkDownRetriesEverySecondWithoutTouchingTheChain)
{
    add_device("a", {});
    set_nw_status(GW_NW_LAN);
    sf_dev_online_stat_update("a", TRUE);
    const int readings = nw_status_calls();
    fake::timers::advance(300);
    EXPECT_EQ(readings + 2, nw_status_calls());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__tmm_dev_ol_sync_cb", "NetWork Unavailable. schedule again, 1"));
    EXPECT_TRUE(prots().empty());
    EXPECT_EQ(FALSE, chain_running());
    EXPECT_EQ(DOSM_PENDING, attr("a").dosm);
    ASSERT_EQ(2u, batch_starts().size());
    EXPECT_EQ(1000u, batch_starts()[1].period);
    EXPECT_EQ(TIMER_ONCE, batch_starts()[1].type);

    set_nw_status(GW_NW_NONE);
    fake::timers::advance(1000);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__tmm_dev_ol_sync_cb", "NetWork Unavailable. schedule again, 0"));
    EXPECT_EQ(3u, batch_starts().size());

    set_nw_status(GW_NW_CLOUD);
    fake::timers::advance(1000);
    expect_last_batch_then_end("{\"online\":[\"a\"]}");
}

TEST_F(OnlineBatch, NetworkDownDuringAChainKeepsItRunning)
{
    add_device("a", {});
    sf_dev_online_stat_update("a", TRUE);
    fake::timers::advance(300);
    ack_last();
    set_nw_status(GW_NW_NONE);
    fake::timers::advance(1000);
    EXPECT_EQ(TRUE, chain_running());
    sf_dev_online_stat_update("a", FALSE);
    const size_t starts = batch_starts().size();
    fake::timers::advance(1000);
    EXPECT_EQ(starts + 1, batch_starts().size()) << "the outage retry re-arms, the change does not";
    set_nw_status(GW_NW_CLOUD);
    fake::timers::advance(1000);
    expect_last_batch_then_end("{\"offline\":[\"a\"]}");
}

TEST_F(OnlineBatch, FirstListBufferFailureLogsAndDoesNotReArm)
{
    add_device("a", {});
    sf_dev_online_stat_update("a", TRUE);
    fake::mem::fail_nth(1);
    fake::timers::advance(300);
    EXPECT_TRUE(fake::mem::failure_fired());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__tmm_dev_ol_sync_cb", "malloc buffer fails"));
    EXPECT_EQ(1u, batch_starts().size());
    EXPECT_FALSE(fake::timers::armed(batch_timer()));
    EXPECT_EQ(FALSE, chain_running());
    EXPECT_EQ(DOSM_PENDING, attr("a").dosm);
    EXPECT_TRUE(prots().empty());

    /* an idle chain is started again by the next marking change */
    sf_dev_online_stat_update("a", TRUE);
    EXPECT_EQ(2u, batch_starts().size());
    fake::timers::advance(300);
    expect_last_batch_then_end("{\"online\":[\"a\"]}");
}

TEST_F(OnlineBatch, SecondListBufferFailureReleasesTheFirstAndStallsARunningChain)
{
    add_device("a", {});
    add_device("b", {});
    sf_dev_online_stat_update("a", TRUE);
    fake::timers::advance(300);
    ack_last();
    sf_dev_online_stat_update("b", TRUE);
    fake::mem::fail_nth(2);
    fake::timers::advance(1000);
    EXPECT_TRUE(fake::mem::failure_fired());
    EXPECT_EQ(1u, fake::log::count("malloc buffer fails"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__tmm_dev_ol_sync_cb", "malloc buffer fails"));
    EXPECT_EQ(TRUE, chain_running());
    EXPECT_EQ(DOSM_PENDING, attr("b").dosm);
    EXPECT_FALSE(fake::timers::armed(batch_timer()));
    EXPECT_EQ(0u, fake::mem::live_blocks());

    /* as designed, a stalled chain ignores changes until something re-arms the builder */
    sf_dev_online_stat_update("b", FALSE);
    EXPECT_FALSE(fake::timers::armed(batch_timer()));
    fake::timers::advance(60000);
    EXPECT_EQ(1u, prots().size());
}

TEST_F(OnlineBatch, DocumentAllocationFailureRetriesSilentlyAfterASecond)
{
    add_device("a", {});
    add_device("b", {});
    sf_dev_online_stat_update("a", TRUE);
    fake::mem::fail_nth(3);
    fake::timers::advance(300);
    EXPECT_TRUE(fake::mem::failure_fired());
    EXPECT_TRUE(prots().empty());
    EXPECT_EQ(TRUE, chain_running());
    EXPECT_EQ(DOSM_SENDING, attr("a").dosm);
    EXPECT_EQ(DOSM_SENDING, attr("b").dosm);
    EXPECT_EQ(0u, fake::log::find("send_data:{\"online\":[\"a\"],\"offline\":[\"b\"]}").size());
    for (const fake::log::Entry &entry : fake::log::entries()) {
        EXPECT_NE(LOG_LEVEL_ERROR, entry.level) << entry.text;
    }
    ASSERT_EQ(2u, batch_starts().size());
    EXPECT_EQ(1000u, batch_starts()[1].period);

    fake::timers::advance(1000);
    expect_last_batch_then_end("{\"online\":[\"a\"],\"offline\":[\"b\"]}");
}

TEST_F(OnlineBatch, AllocationFailuresAnywhereInARunLeakNothing)
{
    add_device("a", {});
    add_device("b", {});
    for (size_t nth = 1;; ++nth) {
        sf_dev_online_stat_update("a", nth % 2 == 0 ? TRUE : FALSE);
        fake::mem::fail_nth(nth);
        fake::timers::fire(batch_timer());
        const bool fired = fake::mem::failure_fired();
        fake::mem::fail_nth(0);
        if (!prots().empty() && !prots().back().completed) {
            ack_last();
        }
        EXPECT_EQ(0u, fake::mem::live_blocks()) << "failing allocation " << nth;
        EXPECT_TRUE(fake::contract::violations().empty());
        if (!fired) {
            EXPECT_GE(nth, 4u);
            break;
        }
    }
    fake::timers::advance(1000);
    fake::timers::advance(1000);
    EXPECT_EQ(FALSE, chain_running());
}

TEST_F(OnlineBatch, RefusedPublicationLogsAndRetriesAfterASecond)
{
    add_device("a", {});
    sf_dev_online_stat_update("a", TRUE);
    fake::mqtt::push_prot_result(-5);
    fake::timers::advance(300);
    ASSERT_EQ(1u, prots().size());
    EXPECT_FALSE(prots()[0].accepted);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__tmm_dev_ol_sync_cb", "mqc_prot_data_rept_seq err:-5"));
    EXPECT_EQ(DOSM_SENDING, attr("a").dosm);
    EXPECT_EQ(TRUE, chain_running());
    ASSERT_EQ(2u, batch_starts().size());
    EXPECT_EQ(1000u, batch_starts()[1].period);
    EXPECT_EQ(0u, fake::mem::live_blocks());

    fake::timers::advance(1000);
    ASSERT_EQ(2u, prots().size());
    EXPECT_EQ("{\"online\":[\"a\"]}", prots()[1].text);
    ack_last();
    fake::timers::advance(1000);
}

TEST_F(OnlineBatch, NegativeAcknowledgementSendsTheSameDevicesAgain)
{
    add_device("a", {});
    add_device("b", {});
    settle();
    sf_dev_online_stat_update("a", TRUE);
    fake::timers::advance(300);
    ack_last(-3);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__mq_online_stat_async_ifm_cb", "err:-3"));
    EXPECT_EQ(DOSM_SENDING, attr("a").dosm);
    EXPECT_EQ(1000u, batch_starts().back().period);
    EXPECT_EQ(TIMER_ONCE, batch_starts().back().type);

    sf_dev_online_stat_update("b", TRUE); /* and any new ones */
    fake::timers::advance(1000);
    EXPECT_EQ("{\"online\":[\"a\",\"b\"]}", prots().back().text);
    ack_last();
    EXPECT_EQ(DOSM_REPORTED, attr("a").dosm);
    EXPECT_EQ(DOSM_REPORTED, attr("b").dosm);
    fake::timers::advance(1000);
    EXPECT_EQ(FALSE, chain_running());
}

TEST_F(OnlineBatch, FailedArmingLetsTheNextChangeArmAgain)
{
    add_device("a", {});
    fake::msgq::fail(fake::msgq::Call::start_tm_msg, -7);
    sf_dev_online_stat_update("a", TRUE);
    EXPECT_FALSE(fake::timers::armed(batch_timer()));
    sf_dev_online_stat_update("a", TRUE);
    EXPECT_TRUE(fake::timers::armed(batch_timer()));
    fake::timers::advance(300);
    expect_last_batch_then_end("{\"online\":[\"a\"]}");
}

TEST_F(OnlineBatch, TheRegistryLockIsNeverTakenAndNothingIsHeldWhilePublishing)
{
    add_device("a", {});
    MUTEX_HANDLE dev_mutex = gw()->dev_mutex;
    const size_t dev_locks = fake::mutex::lock_count(dev_mutex);
    const size_t dos_locks = fake::mutex::lock_count(sf_cntl.dos_mutex);
    sf_dev_online_stat_update("a", TRUE);
    const size_t lookup_locks = fake::mutex::lock_count(dev_mutex) - dev_locks; /* the registry's own lookup */
    fake::timers::advance(300);
    ack_last();
    fake::timers::advance(1000);
    EXPECT_EQ(dev_locks + lookup_locks, fake::mutex::lock_count(dev_mutex));
    EXPECT_GT(fake::mutex::lock_count(sf_cntl.dos_mutex), dos_locks + 3);
    EXPECT_FALSE(fake::mutex::held(sf_cntl.dos_mutex));
    EXPECT_TRUE(fake::contract::violations().empty()); /* mqc_prot_data_rept_seq checks that no lock is held */
}

TEST_F(OnlineBatch, MarkingWorksUnderTheRegistryLock)
{
    DEV_CNTL_N_S *a = add_device("a", {});
    MutexLock(gw()->dev_mutex);
    __sf_dev_ol_stat_update(a, TRUE);
    MutexUnLock(gw()->dev_mutex);
    EXPECT_EQ(DOS_ONLINE, a->attr.stat);
    EXPECT_EQ(DOSM_PENDING, a->attr.dosm);
    fake::timers::advance(300);
    ack_last();
    fake::timers::advance(1000);
}

TEST_F(OnlineBatch, CompletionOnAnotherThreadMarksTheBatchReported)
{
    add_device("a", {});
    sf_dev_online_stat_update("a", TRUE);
    fake::timers::advance(300);
    std::thread client([] { fake::mqtt::complete_prot(0, RC_OK); });
    client.join();
    EXPECT_EQ(DOSM_REPORTED, attr("a").dosm);
    fake::timers::advance(1000);
    EXPECT_EQ(FALSE, chain_running());
}

TEST_F(OnlineBatch, UpdatesFromManyThreadsDuringRunningBatchesAllReachTheCloud)
{
    constexpr int kThreads = 4;
    constexpr int kPerThread = 3;
    for (int t = 0; t < kThreads; ++t) {
        for (int d = 0; d < kPerThread; ++d) {
            add_device("t" + std::to_string(t) + "d" + std::to_string(d), {});
        }
    }
    auto final_state = [](int t, int d) { return (t + d) % 2 == 0 ? TRUE : FALSE; };
    std::atomic<int> running{kThreads};
    std::vector<std::thread> apps;
    for (int t = 0; t < kThreads; ++t) {
        apps.emplace_back([t, &running, final_state] {
            for (int round = 0; round < 300; ++round) {
                for (int d = 0; d < kPerThread; ++d) {
                    const std::string id = "t" + std::to_string(t) + "d" + std::to_string(d);
                    sf_dev_online_stat_update(id.c_str(), round == 299 ? final_state(t, d) : (round + d) % 2);
                }
                std::this_thread::yield();
            }
            --running;
        });
    }
    /* the dispatch thread is this one; completions come from the client's own thread */
    std::map<std::string, int> cloud;
    size_t completed = 0;
    /* until the applications are done, then until the chain has ended */
    for (int after = 0; after < 1000 && (running > 0 || fake::timers::armed(batch_timer()));
         after += running > 0 ? 0 : 1) {
        std::this_thread::yield();
        fake::timers::advance(100);
        for (; completed < prots().size(); ++completed) {
            std::thread client([completed] { fake::mqtt::complete_prot(completed, completed % 3 == 1 ? -1 : RC_OK); });
            client.join();
            if (completed % 3 == 1) {
                continue;
            }
            const std::string &text = prots()[completed].text;
            for (auto &entry : {std::make_pair(std::string("\"online\":["), 1), std::make_pair(std::string("\"offline\":["), 0)}) {
                const size_t at = text.find(entry.first);
                if (at == std::string::npos) {
                    continue;
                }
                const std::string list = text.substr(at + entry.first.size(), text.find(']', at) - at - entry.first.size());
                for (size_t pos = 0; (pos = list.find('"', pos)) != std::string::npos;) {
                    const size_t end = list.find('"', pos + 1);
                    cloud[list.substr(pos + 1, end - pos - 1)] = entry.second;
                    pos = end + 1;
                }
            }
        }
    }
    for (std::thread &app : apps) {
        app.join();
    }
    EXPECT_EQ(FALSE, chain_running());
    for (int t = 0; t < kThreads; ++t) {
        for (int d = 0; d < kPerThread; ++d) {
            const std::string id = "t" + std::to_string(t) + "d" + std::to_string(d);
            EXPECT_EQ(DOSM_REPORTED, attr(id).dosm) << id;
            EXPECT_EQ(final_state(t, d), cloud[id]) << id;
        }
    }
}

TEST_F(OnlineBatch, GatewaysOwnNodeInTheListIsBatchedLikeAnyOther)
{
    set_gateway("gw0001"); /* the registry lists the gateway's own node first */
    gateway_node_as_sub_device(); /* the module takes no account of which node is the gateway's */
    add_device("a", {});
    sf_dev_online_stat_update("a", TRUE);
    fake::timers::advance(300);
    expect_last_batch_then_end("{\"online\":[\"a\"],\"offline\":[\"gw0001\"]}");
}

} // namespace

namespace {

/* The module not started: there is no lock and no timed message yet. */
using OnlineBatchBeforeStartUp = SfFakesTest;

TEST_F(OnlineBatchBeforeStartUp, UpdateIsRefusedSilently)
{
    add_device("a", {});
    EXPECT_EQ(RC_FAIL, sf_dev_online_stat_update("a", TRUE));
    EXPECT_EQ(DOS_OFFLINE, device("a")->attr.stat);
    EXPECT_TRUE(fake::timers::starts().empty());
    EXPECT_TRUE(fake::log::entries().empty()) << fake::log::dump();
}

} // namespace
