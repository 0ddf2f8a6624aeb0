#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "port/posix/runtime/posix_runtime.h"
#include "tests/unit/posix/posix_test_util.h"
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
void cb_marker(TM_MSG_S *) { g_journal->add("M"); }

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

    /*
     * Starts a marker timed message due after_ms from now and waits for it
     * to run. Due timed messages run in the order they fall due, so once
     * "M" is in the journal, everything due before it has run: what the
     * journal holds then is what ran, however slow the machine is. A test
     * that must show that something did NOT run fences past the time it
     * would have fallen due.
     */
    void fence(TIME_MS after_ms)
    {
        TM_MSG_S *marker = make(cb_marker);
        ASSERT_EQ(RC_OK, cmmod_start_tm_msg(marker, after_ms, TIMER_ONCE));
        ASSERT_TRUE(eventually([this] {
            const std::vector<std::string> events = journal.snapshot();
            return std::find(events.begin(), events.end(), "M") != events.end();
        }));
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
    fence(50);
    EXPECT_EQ((std::vector<std::string>{"M"}), journal.snapshot());
}

TEST_F(Timers, OnceFiresOnceOnTheDispatchThreadNoEarlierThanItsPeriod)
{
    TM_MSG_S *tm = make(cb_a);
    journal.start = Clock::now();
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(tm, 100, TIMER_ONCE));
    ASSERT_TRUE(eventually([this] { return journal.size() == 1; }));
    fence(250); /* past a second firing one period later */
    EXPECT_EQ((std::vector<std::string>{"A", "M"}), journal.snapshot());
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
    std::vector<std::string> expected = journal.snapshot();
    fence(150); /* past the next beats of a cycle still armed */
    expected.push_back("M");
    EXPECT_EQ(expected, journal.snapshot());
    /* the n-th beat is never early: at least n periods after the start */
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_GE(journal.at_ms[i], static_cast<long long>(40 * (i + 1))) << "beat " << i;
    }
    EXPECT_TRUE(journal.all_on_dispatch);
}

TEST_F(Timers, StartingAnArmedTimedMessageRearmsItFromNow)
{
    TM_MSG_S *tm = make(cb_a);
    TM_MSG_S *between = make(cb_b);
    /* with the dispatch thread stopped nothing fires before the restart, however slow the machine */
    cmmod_stop();
    journal.start = Clock::now();
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(tm, 1000, TIMER_ONCE));
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(between, 500, TIMER_ONCE));
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); /* so that "from now" is later than the first start */
    const long long restarted_at = ms_since(journal.start);
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(tm, 50, TIMER_ONCE));
    ASSERT_EQ(RC_OK, cmmod_init());
    ASSERT_TRUE(eventually([this] { return journal.size() == 2; }));
    /* due at restart + 50 ms, so before B (500 ms); kept from the first start it would follow B */
    EXPECT_EQ((std::vector<std::string>{"A", "B"}), journal.snapshot());
    EXPECT_GE(journal.at_ms[0], restarted_at + 50);
    fence(1200); /* past the first start's due time: it does not fire a second time */
    EXPECT_EQ((std::vector<std::string>{"A", "B", "M"}), journal.snapshot());
}

std::atomic<int> g_beats{0};

/* A 20 ms cycle that, on its second beat, restarts itself as a 50 ms single shot. */
void beat_then_restart(TM_MSG_S *tm)
{
    g_journal->add("A");
    if (++g_beats == 2) {
        EXPECT_EQ(RC_OK, cmmod_start_tm_msg(tm, 50, TIMER_ONCE));
    }
}

TEST_F(Timers, RestartingACycleChangesItsPeriodAndKind)
{
    /* restarted on the dispatch thread, so no beat of the old cycle can be under way meanwhile */
    TM_MSG_S *tm = make(beat_then_restart);
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(tm, 20, TIMER_CYCLE));
    ASSERT_TRUE(eventually([this] { return journal.size() >= 3; }));
    fence(200); /* past four more beats of 50 ms, were it still cyclic */
    EXPECT_EQ((std::vector<std::string>{"A", "A", "A", "M"}), journal.snapshot());
    EXPECT_GE(journal.at_ms[2] - journal.at_ms[1], 50) << "the single shot keeps the old period";
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
std::atomic<bool> g_slow_may_end{false};

void slow_handler(MESSAGE *msg)
{
    int value = 0;
    std::memcpy(&value, msg->pMsgData, sizeof(value));
    Free(msg->pMsgData);
    g_journal->add("msg" + std::to_string(value));
    if (value == 1) {
        g_slow_started = true;
        EXPECT_TRUE(eventually([] { return g_slow_may_end.load(); }));
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
    /* a sleep never ends early: the timer is due, and msg1 still runs until released */
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(mid, &two, sizeof(two)));
    g_slow_may_end = true;
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
    fence(50); /* past the 10 ms a wrongly armed record would have waited */
    EXPECT_EQ((std::vector<std::string>{"M"}), journal.snapshot());
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
    fence(100); /* past the next beats of the 10 ms cycle */
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
    journal.start = Clock::now();
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(tm, 10, TIMER_ONCE));
    /* a sleep never ends early: the timer is due while nothing may fire it */
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    const long long restarted_at = ms_since(journal.start);
    ASSERT_EQ(RC_OK, cmmod_init());
    fence(100);
    EXPECT_EQ((std::vector<std::string>{"A", "M"}), journal.snapshot());
    EXPECT_GE(journal.at_ms[0], restarted_at) << "fired while the dispatch thread was stopped";
}

} // namespace
