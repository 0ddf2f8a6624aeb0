#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "port/posix/posix_runtime.h"
#include "posix_test_util.h"
#include "services/uni_memory.h"
#include "services/uni_msg_queue.h"

namespace {

using Clock = std::chrono::steady_clock;
using posix_test::eventually;
using posix_test::ms_since;

/* What the callbacks saw; callbacks are plain functions, so the fixture publishes itself here. */
struct Journal {
    std::mutex lock;
    std::vector<std::string> events;
    std::vector<long long> at_ms;
    std::atomic<bool> all_on_dispatch{true};
    Clock::time_point start = Clock::now();

    void add(const std::string &event)
    {
        if (cmmod_on_dispatch_thread() != TRUE) {
            all_on_dispatch = false;
        }
        std::lock_guard<std::mutex> guard(lock);
        events.push_back(event);
        at_ms.push_back(ms_since(start));
    }
    size_t size()
    {
        std::lock_guard<std::mutex> guard(lock);
        return events.size();
    }
    std::vector<std::string> snapshot()
    {
        std::lock_guard<std::mutex> guard(lock);
        return events;
    }
};

Journal *g_journal = nullptr;

void cb_a(TM_MSG_S *) { g_journal->add("A"); }
void cb_b(TM_MSG_S *) { g_journal->add("B"); }
void cb_c(TM_MSG_S *) { g_journal->add("C"); }

class Timers : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_journal = &journal;
        ASSERT_EQ(RC_OK, system_timer_init());
        ASSERT_EQ(RC_OK, system_timer_init()); /* a second call is harmless */
        ASSERT_EQ(RC_OK, cmmod_init());
    }
    void TearDown() override
    {
        cmmod_stop();
        for (TM_MSG_S *tm : created) {
            cmmod_release_tm_msg(tm);
        }
    }
    TM_MSG_S *make(TM_MSG_CB cb, void *data = nullptr)
    {
        TM_MSG_S *tm = nullptr;
        EXPECT_EQ(RC_OK, cmmod_cr_tm_msg_hand(cb, data, &tm));
        EXPECT_NE(nullptr, tm);
        created.push_back(tm);
        return tm;
    }

    Journal journal;
    std::vector<TM_MSG_S *> created;
};

TEST_F(Timers, CreatedTimedMessageCarriesItsCallbackAndDataAndDoesNotRunUntilStarted)
{
    int token = 0;
    TM_MSG_S *tm = make(cb_a, &token);
    EXPECT_EQ(&token, tm->data);
    EXPECT_EQ(reinterpret_cast<TM_MSG_CB>(cb_a), tm->cb);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(0u, journal.size());
}

TEST_F(Timers, OnceFiresOnceOnTheDispatchThreadNoEarlierThanItsPeriod)
{
    TM_MSG_S *tm = make(cb_a);
    journal.start = Clock::now();
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(tm, 100, TIMER_ONCE));
    ASSERT_TRUE(eventually([this] { return journal.size() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    EXPECT_EQ(1u, journal.size());
    EXPECT_GE(journal.at_ms[0], 100);
    EXPECT_TRUE(journal.all_on_dispatch);
}

TEST_F(Timers, CycleFiresEveryPeriodUntilReleased)
{
    TM_MSG_S *tm = make(cb_a);
    journal.start = Clock::now();
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(tm, 40, TIMER_CYCLE));
    ASSERT_TRUE(eventually([this] { return journal.size() >= 5; }));
    cmmod_release_tm_msg(tm);
    created.clear();
    const size_t after_release = journal.size();
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(after_release, journal.size());
    /* the n-th beat is never early: at least n periods after the start */
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_GE(journal.at_ms[i], static_cast<long long>(40 * (i + 1))) << "beat " << i;
    }
    EXPECT_TRUE(journal.all_on_dispatch);
}

TEST_F(Timers, StartingAnArmedTimedMessageRearmsItFromNow)
{
    TM_MSG_S *tm = make(cb_a);
    journal.start = Clock::now();
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(tm, 1000, TIMER_ONCE));
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    const long long restarted_at = ms_since(journal.start);
    ASSERT_LT(restarted_at, 1000); /* still armed from the first start */
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(tm, 300, TIMER_ONCE));
    ASSERT_TRUE(eventually([this] { return journal.size() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(1000)); /* past the first start's due time */
    EXPECT_EQ(1u, journal.size());
    EXPECT_GE(journal.at_ms[0], restarted_at + 300);
}

TEST_F(Timers, RestartingACycleChangesItsPeriodAndKind)
{
    TM_MSG_S *tm = make(cb_a);
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(tm, 20, TIMER_CYCLE));
    ASSERT_TRUE(eventually([this] { return journal.size() >= 2; }));
    const size_t before = journal.size();
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(tm, 50, TIMER_ONCE));
    ASSERT_TRUE(eventually([this, before] { return journal.size() >= before + 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const size_t settled = journal.size();
    /* one beat of the old cycle may have been under way during the restart, then the single shot */
    EXPECT_LE(settled, before + 2);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(settled, journal.size()); /* no longer cyclic */
}

TEST_F(Timers, DueTimedMessagesRunInTheOrderTheyFallDue)
{
    TM_MSG_S *a = make(cb_a);
    TM_MSG_S *b = make(cb_b);
    TM_MSG_S *c = make(cb_c);
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(a, 240, TIMER_ONCE));
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(b, 80, TIMER_ONCE));
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(c, 160, TIMER_ONCE));
    ASSERT_TRUE(eventually([this] { return journal.size() == 3; }));
    EXPECT_EQ((std::vector<std::string>{"B", "C", "A"}), journal.snapshot());
}

std::atomic<bool> g_slow_started{false};

void slow_handler(MESSAGE *msg)
{
    int value = 0;
    std::memcpy(&value, msg->pMsgData, sizeof(value));
    Free(msg->pMsgData);
    g_journal->add("msg" + std::to_string(value));
    if (value == 1) {
        g_slow_started = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
}

TEST_F(Timers, ATimedMessageThatFellDueRunsBeforeMessagesPostedAfterIt)
{
    MSG_ID mid = NO_MSG_ID;
    ASSERT_EQ(RC_OK, cmmod_get_free_msgid(&mid));
    ASSERT_EQ(RC_OK, cmmod_reg_msgcb(mid, slow_handler));
    TM_MSG_S *tm = make(cb_a);
    int one = 1;
    int two = 2;
    ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(mid, &one, sizeof(one)));
    ASSERT_TRUE(eventually([] { return g_slow_started.load(); }));
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(tm, 10, TIMER_ONCE));
    std::this_thread::sleep_for(std::chrono::milliseconds(60)); /* the timer is due while msg1 still runs */
    ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(mid, &two, sizeof(two)));
    ASSERT_TRUE(eventually([this] { return journal.size() == 3; }));
    EXPECT_EQ((std::vector<std::string>{"msg1", "A", "msg2"}), journal.snapshot());
}

TEST_F(Timers, ReleaseAcceptsNullAndAStartAfterReleaseIsRefused)
{
    cmmod_release_tm_msg(nullptr);
    TM_MSG_S *tm = make(cb_a);
    cmmod_release_tm_msg(tm);
    created.clear();
    /* the record is gone; the registry of live timers refuses the stale pointer */
    EXPECT_EQ(RC_BAD_PARAM, cmmod_start_tm_msg(tm, 10, TIMER_ONCE));
}

TEST_F(Timers, BadArgumentsAreRefused)
{
    TM_MSG_S *tm = nullptr;
    EXPECT_EQ(RC_BAD_PARAM, cmmod_cr_tm_msg_hand(nullptr, nullptr, &tm));
    EXPECT_EQ(RC_BAD_PARAM, cmmod_cr_tm_msg_hand(cb_a, nullptr, nullptr));
    TM_MSG_S *made = make(cb_a);
    EXPECT_EQ(RC_BAD_PARAM, cmmod_start_tm_msg(nullptr, 10, TIMER_ONCE));
    EXPECT_EQ(RC_BAD_PARAM, cmmod_start_tm_msg(made, 0, TIMER_CYCLE));
    EXPECT_EQ(RC_BAD_PARAM, cmmod_start_tm_msg(made, 10, 7));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(0u, journal.size());
}

std::atomic<int> g_self_release_calls{0};

void releases_itself(TM_MSG_S *tm)
{
    ++g_self_release_calls;
    cmmod_release_tm_msg(tm);
}

TEST_F(Timers, ACallbackMayReleaseItsOwnTimedMessage)
{
    TM_MSG_S *tm = nullptr;
    ASSERT_EQ(RC_OK, cmmod_cr_tm_msg_hand(releases_itself, nullptr, &tm));
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(tm, 10, TIMER_CYCLE));
    ASSERT_TRUE(eventually([] { return g_self_release_calls == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(1, g_self_release_calls.load()); /* the leak check proves the record was freed */
}

std::atomic<bool> g_in_slow_cb{false};
std::atomic<bool> g_slow_cb_done{false};

void slow_cb(TM_MSG_S *)
{
    g_in_slow_cb = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    g_slow_cb_done = true;
}

TEST_F(Timers, ReleaseFromAnotherThreadWaitsForARunningCallback)
{
    TM_MSG_S *tm = nullptr;
    ASSERT_EQ(RC_OK, cmmod_cr_tm_msg_hand(slow_cb, nullptr, &tm));
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(tm, 5, TIMER_ONCE));
    ASSERT_TRUE(eventually([] { return g_in_slow_cb.load(); }));
    cmmod_release_tm_msg(tm);
    EXPECT_TRUE(g_slow_cb_done);
}

TEST_F(Timers, StoppedDispatchFiresNoTimerAndAStartFiresAgain)
{
    TM_MSG_S *tm = make(cb_a);
    cmmod_stop();
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(tm, 10, TIMER_ONCE));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(0u, journal.size());
    ASSERT_EQ(RC_OK, cmmod_init());
    ASSERT_TRUE(eventually([this] { return journal.size() == 1; }));
}

} // namespace
