/* The fakes themselves: a scenario that breaks a rule must fail. */
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "tests/fakes/sf_fixture.h"

namespace {

class Fakes : public SfFakesTest {};

TEST_F(Fakes, LeakedBlockFailsTheLeakCheck)
{
    void *leak = Malloc(12);
    EXPECT_NE(std::string::npos, fake::unclean().find("1 leaked blocks:\n  12 bytes"));
    EXPECT_NONFATAL_FAILURE(fake::expect_clean(), "leaked blocks");
    Free(leak);
}

TEST_F(Fakes, CjsonAllocatesThroughTheCountingHeap)
{
    const size_t before = fake::mem::alloc_calls();
    cJSON *doc = cJSON_Parse("{\"1\":true}");
    EXPECT_GT(fake::mem::alloc_calls(), before);
    EXPECT_GT(fake::mem::live_blocks(), 0u);
    char *text = cJSON_PrintUnformatted(doc);
    EXPECT_STREQ("{\"1\":true}", text);
    Free(text);
    cJSON_Delete(doc);
}

TEST_F(Fakes, NthAllocationFailsOnce)
{
    fake::mem::fail_nth(2);
    void *first = Malloc(4);
    void *second = Malloc(4);
    void *third = Malloc(4);
    EXPECT_NE(nullptr, first);
    EXPECT_EQ(nullptr, second);
    EXPECT_NE(nullptr, third);
    EXPECT_TRUE(fake::mem::failure_fired());
    Free(first);
    Free(third);
}

TEST_F(Fakes, UncompletedPublicationFailsTheCheck)
{
    void *payload = Malloc(9);
    std::memset(payload, 0, 9);
    RFC_DATA_S *block = cr_rfc_data(payload, 8, FALSE, 1);
    ASSERT_EQ(RC_OK, mqc_dp_report_async(block, 6, nullptr, nullptr));
    EXPECT_EQ(2u, fake::rfc::count(block));
    const std::string problems = fake::unclean();
    EXPECT_NE(std::string::npos, problems.find("1 publications accepted but never completed")) << problems;
    EXPECT_NE(std::string::npos, problems.find("1 message blocks still referenced")) << problems;
    fake::mqtt::complete(0, RC_OK);
    EXPECT_EQ(1u, fake::rfc::count(block));
    put_rfc_data(block);
    EXPECT_FALSE(fake::rfc::is_live(block));
}

TEST_F(Fakes, PublishingWithALockHeldIsAViolation)
{
    MUTEX_HANDLE lock = nullptr;
    ASSERT_EQ(RC_OK, CreateMutexAndInit(&lock));
    MutexLock(lock);
    EXPECT_EQ(RC_OK, mqc_prot_data_rept_seq(203, "{}", 0, 0, nullptr, nullptr));
    MutexUnLock(lock);
    ASSERT_EQ(1u, fake::contract::violations().size());
    EXPECT_NE(std::string::npos, fake::contract::violations()[0].find("mqc_prot_data_rept_seq"));
    EXPECT_NONFATAL_FAILURE(fake::expect_clean(), "contract broken: mqc_prot_data_rept_seq");
    fake::contract::clear_violations();
    ReleaseMutex(lock);
}

TEST_F(Fakes, DeviceLookupWithDevMutexHeldIsAViolation)
{
    fake::registry::add_device("sub01", {});
    MutexLock(get_gw_cntl()->dev_mutex);
    EXPECT_NE(nullptr, get_dev_cntl_unlock("sub01"));
    MutexUnLock(get_gw_cntl()->dev_mutex);
    EXPECT_TRUE(fake::contract::violations().empty());
    EXPECT_NE(nullptr, get_dev_cntl("sub01"));
    EXPECT_TRUE(fake::contract::violations().empty());
}

TEST_F(Fakes, TimedMessagesFireInDueOrderWithOnceAndCycleSemantics)
{
    static std::vector<std::string> fired;
    fired.clear();
    TM_MSG_S *once = nullptr;
    TM_MSG_S *cycle = nullptr;
    ASSERT_EQ(RC_OK, cmmod_cr_tm_msg_hand([](TM_MSG_S *) { fired.push_back("once"); }, nullptr, &once));
    ASSERT_EQ(RC_OK, cmmod_cr_tm_msg_hand([](TM_MSG_S *) { fired.push_back("cycle"); }, nullptr, &cycle));
    const TIME_S sys0 = fake::clock::system();
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(cycle, 8000, TIMER_CYCLE));
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(once, 300, TIMER_ONCE));
    fake::timers::advance(299);
    EXPECT_TRUE(fired.empty());
    fake::timers::advance(1);
    EXPECT_EQ(std::vector<std::string>{"once"}, fired);
    EXPECT_FALSE(fake::timers::armed(once));
    fake::timers::advance(16000);
    EXPECT_EQ((std::vector<std::string>{"once", "cycle", "cycle"}), fired);
    EXPECT_EQ(sys0 + 16, fake::clock::system());
    /* re-arming an armed message restarts its period */
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(once, 1000, TIMER_ONCE));
    fake::timers::advance(500);
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(once, 1000, TIMER_ONCE));
    fake::timers::advance(999);
    EXPECT_EQ(3u, fired.size());
    fake::timers::advance(1);
    EXPECT_EQ(4u, fired.size());
}

TEST_F(Fakes, PostedMessagesRunInOrderAndOwnACopy)
{
    static std::vector<int> seen;
    seen.clear();
    MSG_ID mid = 0;
    ASSERT_EQ(RC_OK, cmmod_get_free_msgid(&mid));
    ASSERT_EQ(RC_OK, cmmod_reg_msgcb(mid, [](MESSAGE *msg) {
                  seen.push_back(*static_cast<int *>(msg->pMsgData));
                  Free(msg->pMsgData);
              }));
    int value = 1;
    ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(mid, &value, sizeof(value)));
    value = 2;
    ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(mid, &value, sizeof(value)));
    EXPECT_EQ(2u, fake::msgq::pending());
    EXPECT_EQ(2u, fake::msgq::run_all());
    EXPECT_EQ((std::vector<int>{1, 2}), seen);
}

TEST_F(Fakes, InterruptedSemaphoreWaitReportsEintr)
{
    SEM_HANDLE sem = nullptr;
    ASSERT_EQ(RC_OK, CreateAndInitSemaphore(&sem, 0, 10));
    fake::sem::interrupt_waits(1);
    errno = 0;
    EXPECT_EQ(RC_WAIT_SEM_FAIL, WaitSemaphore(sem));
    EXPECT_EQ(EINTR, errno);
    PostSemaphore(sem);
    EXPECT_EQ(RC_OK, WaitSemaphore(sem));
    ReleaseSemaphore(sem);
    EXPECT_EQ(0u, fake::sem::live());
}

TEST_F(Fakes, GatewayNodeCanBeGivenASubDevicesStartingPresence)
{
    DEV_CNTL_N_S *own = fake::registry::gateway_node_as_sub_device();
    ASSERT_EQ(get_gw_dev_cntl(), own);
    EXPECT_EQ(DOS_OFFLINE, own->attr.stat);
    EXPECT_EQ(DOSM_PENDING, own->attr.dosm);
    EXPECT_EQ(0u, own->attr.hb_timeout_time);
    fake::registry::set_gateway("gw0001", {}, false);
    EXPECT_EQ(nullptr, fake::registry::gateway_node_as_sub_device());
}

TEST_F(Fakes, QueuedMembershipResultAnswersInPlaceOfTheRegistry)
{
    fake::registry::push_grp_result(RC_OK);
    fake::registry::push_scene_result(RC_MEMBERSHIP_FULL);
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "nobody", "5"));
    EXPECT_EQ(RC_MEMBERSHIP_FULL, dev_update_scene_info(SCE_ADD, "gw0001", "5", "01"));
    EXPECT_EQ(RC_DEV_NOT_FOUND, dev_update_grp_info(GRP_ADD, "nobody", "5")); /* one-shot */
    EXPECT_EQ(0, get_gw_dev_cntl()->attr.scene->cnt);
    EXPECT_EQ(3u, fake::registry::grp_updates().size() + fake::registry::scene_updates().size());
}

} // namespace
