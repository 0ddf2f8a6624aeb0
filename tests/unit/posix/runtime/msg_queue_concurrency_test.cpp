#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "port/posix/runtime/dispatch_core.h"
#include "port/posix/runtime/posix_runtime.h"
#include "tests/unit/posix/posix_test_util.h"
#include "services/uni_memory.h"
#include "services/uni_msg_queue.h"

namespace {

struct Seen {
    std::mutex lock;
    std::vector<int> values;
    std::set<std::thread::id> threads;
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::atomic<bool> on_dispatch{true};
};

Seen *g_seen = nullptr;

void record_handler(MESSAGE *msg)
{
    if (g_seen->inside.fetch_add(1) != 0) {
        g_seen->overlapped = true;
    }
    if (cmmod_on_dispatch_thread() != TRUE) {
        g_seen->on_dispatch = false;
    }
    int value = 0;
    std::memcpy(&value, msg->pMsgData, sizeof(value));
    {
        std::lock_guard<std::mutex> guard(g_seen->lock);
        g_seen->values.push_back(value);
        g_seen->threads.insert(std::this_thread::get_id());
    }
    Free(msg->pMsgData);
    g_seen->inside.fetch_sub(1);
}

class MsgQueue : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_seen = &seen;
        ASSERT_EQ(RC_OK, system_timer_init());
        ASSERT_EQ(RC_OK, cmmod_init());
        ASSERT_EQ(RC_OK, cmmod_get_free_msgid(&mid));
        ASSERT_EQ(RC_OK, cmmod_reg_msgcb(mid, record_handler));
    }
    void TearDown() override { cmmod_stop(); }

    size_t seen_count()
    {
        std::lock_guard<std::mutex> guard(seen.lock);
        return seen.values.size();
    }

    Seen seen;
    MSG_ID mid = NO_MSG_ID;
};

TEST_F(MsgQueue, HandlersRunOnOneDispatchThreadInPostingOrder)
{
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(mid, &i, sizeof(i)));
    }
    ASSERT_TRUE(posix_test::eventually([this] { return seen_count() == 200; }));
    cmmod_stop();
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(i, seen.values[static_cast<size_t>(i)]);
    }
    ASSERT_EQ(1u, seen.threads.size());
    EXPECT_NE(std::this_thread::get_id(), *seen.threads.begin());
    EXPECT_TRUE(seen.on_dispatch);
    EXPECT_EQ(FALSE, cmmod_on_dispatch_thread());
}

TEST_F(MsgQueue, PostingFromManyThreadsKeepsEachThreadsOrderAndRunsOneHandlerAtATime)
{
    constexpr int kThreads = 4;
    constexpr int kEach = 250;
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t) {
        posters.emplace_back([this, t] {
            for (int i = 0; i < kEach; ++i) {
                const int value = t * 100000 + i;
                EXPECT_EQ(RC_OK, cmmod_post_msg_malloc(mid, const_cast<int *>(&value), sizeof(value)));
            }
        });
    }
    for (std::thread &poster : posters) {
        poster.join();
    }
    ASSERT_TRUE(posix_test::eventually([this] { return seen_count() == kThreads * kEach; }));
    cmmod_stop();
    int last[kThreads] = {-1, -1, -1, -1};
    for (int value : seen.values) {
        const int t = value / 100000;
        EXPECT_LT(last[t], value % 100000);
        last[t] = value % 100000;
    }
    EXPECT_FALSE(seen.overlapped);
}

TEST_F(MsgQueue, PostCopiesTheDataSoTheCallerMayReuseItsBuffer)
{
    int value = 7;
    ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(mid, &value, sizeof(value)));
    value = 8;
    ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(mid, &value, sizeof(value)));
    value = 9;
    cmmod_stop(); /* runs what is queued */
    ASSERT_EQ(2u, seen.values.size());
    EXPECT_EQ(7, seen.values[0]);
    EXPECT_EQ(8, seen.values[1]);
}

TEST_F(MsgQueue, PostToAnIdWithoutHandlerOrWithBadDataIsRefused)
{
    MSG_ID unbound = NO_MSG_ID;
    ASSERT_EQ(RC_OK, cmmod_get_free_msgid(&unbound));
    int value = 1;
    EXPECT_EQ(RC_BAD_PARAM, cmmod_post_msg_malloc(unbound, &value, sizeof(value)));
    EXPECT_EQ(RC_BAD_PARAM, cmmod_post_msg_malloc(NO_MSG_ID, &value, sizeof(value)));
    EXPECT_EQ(RC_BAD_PARAM, cmmod_post_msg_malloc(mid, nullptr, 4));
    cmmod_stop();
    EXPECT_TRUE(seen.values.empty());
}

TEST_F(MsgQueue, EmptyMessageCarriesABlockTheHandlerFrees)
{
    static std::atomic<int> calls{0};
    static std::atomic<bool> had_block{false};
    MSG_ID empty_mid = NO_MSG_ID;
    ASSERT_EQ(RC_OK, cmmod_get_free_msgid(&empty_mid));
    ASSERT_EQ(RC_OK, cmmod_reg_msgcb(empty_mid, [](MESSAGE *msg) {
                  had_block = msg->pMsgData != nullptr && msg->msgDataLen == 0;
                  Free(msg->pMsgData);
                  ++calls;
              }));
    ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(empty_mid, nullptr, 0));
    cmmod_stop();
    EXPECT_EQ(1, calls.load());
    EXPECT_TRUE(had_block);
}

TEST_F(MsgQueue, FreeIdsAreDistinctAndAFreedIdIsNotHandedOutAgainAtOnce)
{
    std::set<MSG_ID> ids{mid};
    for (int i = 0; i < 50; ++i) {
        MSG_ID id = NO_MSG_ID;
        ASSERT_EQ(RC_OK, cmmod_get_free_msgid(&id));
        EXPECT_NE(NO_MSG_ID, id);
        EXPECT_TRUE(ids.insert(id).second);
    }
    cmmod_unreg_msgcb(mid);
    MSG_ID next = NO_MSG_ID;
    ASSERT_EQ(RC_OK, cmmod_get_free_msgid(&next));
    EXPECT_NE(mid, next);
    EXPECT_EQ(RC_BAD_PARAM, cmmod_get_free_msgid(nullptr));
}

TEST_F(MsgQueue, BindingNeedsAnIdHandedOutAndAHandler)
{
    EXPECT_EQ(RC_BAD_PARAM, cmmod_reg_msgcb(static_cast<MSG_ID>(mid + 1000), record_handler));
    EXPECT_EQ(RC_BAD_PARAM, cmmod_reg_msgcb(mid, nullptr));
    cmmod_unreg_msgcb(static_cast<MSG_ID>(mid + 1000)); /* never registered: accepted */
}

std::atomic<bool> g_release_first{false};
std::atomic<int> g_gate_calls{0};

void gated_handler(MESSAGE *msg)
{
    ++g_gate_calls;
    while (!g_release_first) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    Free(msg->pMsgData);
}

TEST_F(MsgQueue, UnregisteringDropsQueuedMessagesAndReleasesTheirCopies)
{
    MSG_ID gated = NO_MSG_ID;
    ASSERT_EQ(RC_OK, cmmod_get_free_msgid(&gated));
    ASSERT_EQ(RC_OK, cmmod_reg_msgcb(gated, gated_handler));
    int value = 1;
    ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(gated, &value, sizeof(value)));
    ASSERT_TRUE(posix_test::eventually([] { return g_gate_calls == 1; }));
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(gated, &value, sizeof(value)));
    }
    cmmod_unreg_msgcb(gated);
    EXPECT_EQ(RC_BAD_PARAM, cmmod_post_msg_malloc(gated, &value, sizeof(value)));
    g_release_first = true;
    cmmod_stop();
    EXPECT_EQ(1, g_gate_calls.load()); /* the leak check proves the three copies were freed */
}

TEST_F(MsgQueue, StopRunsWhatIsQueuedThenRefusesPostsUntilStartedAgain)
{
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(mid, &i, sizeof(i)));
    }
    cmmod_stop();
    EXPECT_EQ(20u, seen.values.size());
    int value = 99;
    EXPECT_EQ(RC_FAIL, cmmod_post_msg_malloc(mid, &value, sizeof(value)));
    cmmod_stop(); /* a second stop is harmless */

    ASSERT_EQ(RC_OK, cmmod_init());
    EXPECT_EQ(RC_OK, cmmod_init()); /* already running */
    ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(mid, &value, sizeof(value)));
    ASSERT_TRUE(posix_test::eventually([this] { return seen_count() == 21; }));
    EXPECT_EQ(99, seen.values.back());
}

std::atomic<bool> g_stop_returned{false};

TEST_F(MsgQueue, StopCalledOnTheDispatchThreadIsRefusedAndTheThreadGoesOn)
{
    MSG_ID stopper = NO_MSG_ID;
    ASSERT_EQ(RC_OK, cmmod_get_free_msgid(&stopper));
    ASSERT_EQ(RC_OK, cmmod_reg_msgcb(stopper, [](MESSAGE *msg) {
                  cmmod_stop();
                  g_stop_returned = true;
                  Free(msg->pMsgData);
              }));
    int value = 5;
    ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(stopper, &value, sizeof(value)));
    ASSERT_TRUE(posix_test::eventually([] { return g_stop_returned.load(); }));
    ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(mid, &value, sizeof(value)));
    ASSERT_TRUE(posix_test::eventually([this] { return seen_count() == 1; }));
}

std::atomic<bool> g_hold_open{false};
std::atomic<int> g_held_calls{0};

void holding_handler(MESSAGE *msg)
{
    ++g_held_calls;
    posix_test::eventually([] { return g_hold_open.load(); });
    Free(msg->pMsgData);
}

CMMOD_QUEUE_STAT_S queue_stat()
{
    CMMOD_QUEUE_STAT_S stat{};
    cmmod_get_queue_stat(&stat);
    return stat;
}

/* Hold the dispatch thread in holding_handler and fill the queue behind it. */
void fill_behind_a_held_handler(MSG_ID mid)
{
    MSG_ID held = NO_MSG_ID;
    ASSERT_EQ(RC_OK, cmmod_get_free_msgid(&held));
    ASSERT_EQ(RC_OK, cmmod_reg_msgcb(held, holding_handler));
    int value = -1;
    ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(held, &value, sizeof(value)));
    ASSERT_TRUE(posix_test::eventually([] { return g_held_calls == 1; }));
    const UINT_T limit = queue_stat().limit;
    ASSERT_EQ(128u, limit);
    for (int i = 0; i < static_cast<int>(limit); ++i) {
        ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(mid, &i, sizeof(i)));
    }
    EXPECT_EQ(limit, queue_stat().depth);
}

TEST_F(MsgQueue, AFullQueueHoldsAPosterUntilThereIsRoomAndLosesNothing)
{
    fill_behind_a_held_handler(mid);
    std::atomic<int> result{1};
    std::thread poster([this, &result] {
        int value = 128;
        result = cmmod_post_msg_malloc(mid, &value, sizeof(value));
    });
    ASSERT_TRUE(posix_test::eventually([] { return queue_stat().waiting == 1; }));
    EXPECT_EQ(1, result.load()); /* still waiting */
    EXPECT_EQ(128u, queue_stat().depth);

    g_hold_open = true;
    poster.join();
    EXPECT_EQ(RC_OK, result.load());
    ASSERT_TRUE(posix_test::eventually([this] { return seen_count() == 129; }));
    for (int i = 0; i < 129; ++i) {
        EXPECT_EQ(i, seen.values[static_cast<size_t>(i)]);
    }
    EXPECT_EQ(128u, queue_stat().peak);
}

TEST_F(MsgQueue, AWaitingPosterGivesUpWhenItsAbortFlagIsSet)
{
    fill_behind_a_held_handler(mid);
    std::atomic<bool> abort{false};
    std::atomic<int> result{1};
    std::thread poster([this, &abort, &result] {
        posix_rt::set_post_abort(&abort);
        int value = 128;
        result = cmmod_post_msg_malloc(mid, &value, sizeof(value));
    });
    ASSERT_TRUE(posix_test::eventually([] { return queue_stat().waiting == 1; }));
    abort = true;
    posix_rt::wake_room_waiters();
    poster.join();
    EXPECT_EQ(RC_FAIL, result.load());
    g_hold_open = true;
    ASSERT_TRUE(posix_test::eventually([this] { return seen_count() == 128; }));
}

TEST(MsgQueueLifecycle, PostBeforeStartIsRefused)
{
    MSG_ID mid = NO_MSG_ID;
    ASSERT_EQ(RC_OK, cmmod_get_free_msgid(&mid));
    ASSERT_EQ(RC_OK, cmmod_reg_msgcb(mid, [](MESSAGE *msg) { Free(msg->pMsgData); }));
    int value = 1;
    EXPECT_EQ(RC_FAIL, cmmod_post_msg_malloc(mid, &value, sizeof(value)));
    cmmod_stop(); /* not running: harmless */
}

} // namespace
