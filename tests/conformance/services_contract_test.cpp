/*
 * The platform services' contracts (the headers in services/), the same for every
 * backend: memory, mutexes, semaphores, time, and the message module with
 * its timed messages.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "backend.h"
#include "services/uni_memory.h"
#include "services/uni_msg_queue.h"
#include "services/uni_mutex.h"
#include "services/uni_semaphore.h"
#include "services/uni_time.h"

namespace {

using conformance::run_until;

class ServicesContract : public ::testing::Test {
protected:
    void SetUp() override
    {
        conformance::load_gateway("gw0001", {});
        ASSERT_EQ(RC_OK, system_timer_init());
        ASSERT_EQ(RC_OK, system_timer_init()); /* a second call is harmless */
        ASSERT_EQ(RC_OK, cmmod_init());
    }
    void TearDown() override { conformance::tear_down(); }
};

TEST_F(ServicesContract, MemoryFromMallocIsWritableAndFreeAcceptsNull)
{
    auto *block = static_cast<unsigned char *>(Malloc(64));
    ASSERT_NE(nullptr, block);
    std::memset(block, 0xA5, 64);
    Free(block);
    Free(nullptr);
}

TEST_F(ServicesContract, AMutexExcludesAnotherThreadUntilUnlocked)
{
    MUTEX_HANDLE mutex = nullptr;
    ASSERT_EQ(RC_OK, CreateMutexAndInit(&mutex));
    ASSERT_NE(nullptr, mutex);
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                MutexLock(mutex);
                const int now = ++inside;
                most = std::max(most.load(), now);
                --inside;
                MutexUnLock(mutex);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(1, most.load());
    ReleaseMutex(mutex);
}

/* An empty semaphore: a waiter on another thread returns once, and only because, a post came. */
void expect_a_post_to_wake_a_waiter(SEM_HANDLE sem)
{
    std::thread waiter([sem] { EXPECT_EQ(RC_OK, WaitSemaphore(sem)); });
    PostSemaphore(sem);
    waiter.join();
}

TEST_F(ServicesContract, ASemaphoreGivesItsCountsAndAPostWakesAWaiter)
{
    SEM_HANDLE sem = nullptr;
    ASSERT_EQ(RC_OK, CreateAndInitSemaphore(&sem, 2, 5));
    EXPECT_EQ(RC_OK, WaitSemaphore(sem));
    EXPECT_EQ(RC_OK, WaitSemaphore(sem));
    expect_a_post_to_wake_a_waiter(sem);
    ReleaseSemaphore(sem);
}

TEST_F(ServicesContract, PostsBeyondTheCeilingAreDropped)
{
    SEM_HANDLE sem = nullptr;
    ASSERT_EQ(RC_OK, CreateAndInitSemaphore(&sem, 0, 2));
    for (int i = 0; i < 5; ++i) {
        PostSemaphore(sem);
    }
    EXPECT_EQ(RC_OK, WaitSemaphore(sem));
    EXPECT_EQ(RC_OK, WaitSemaphore(sem));
    /* a third count would be past the ceiling: one more post is needed for one more wait */
    expect_a_post_to_wake_a_waiter(sem);
    ReleaseSemaphore(sem);
}

TEST_F(ServicesContract, SystemTimeNeverRunsBackwardsAndItsMillisecondsStayBelowOneSecond)
{
    TIME_S first = 0;
    TIME_MS ms = 0;
    uni_get_system_time(&first, &ms);
    EXPECT_LT(ms, 1000u);
    TIME_S second = 0;
    uni_get_system_time(&second, nullptr);
    EXPECT_GE(second, first);
    EXPECT_GT(uni_time_get_posix(), 0u);
}

/* Written by the handler; read by the test once `count` (stored after each text) says so. */
struct Received {
    std::vector<std::string> texts;
    std::atomic<size_t> count{0};
    std::atomic<bool> all_copies{true};
};
Received *g_received = nullptr;
const char *g_posted_from = nullptr;

void record_message(MESSAGE *msg)
{
    if (msg->pMsgData == g_posted_from) {
        g_received->all_copies = false;
    }
    g_received->texts.emplace_back(static_cast<const char *>(msg->pMsgData), msg->msgDataLen);
    ++g_received->count;
    Free(msg->pMsgData); /* the handler owns the copy */
}

TEST_F(ServicesContract, PostedMessagesReachTheirHandlerAsCopiesInPostingOrder)
{
    Received received;
    g_received = &received;
    MSG_ID first = NO_MSG_ID;
    MSG_ID second = NO_MSG_ID;
    ASSERT_EQ(RC_OK, cmmod_get_free_msgid(&first));
    ASSERT_EQ(RC_OK, cmmod_get_free_msgid(&second));
    EXPECT_NE(first, second);
    ASSERT_EQ(RC_OK, cmmod_reg_msgcb(first, record_message));
    char text[] = "one";
    g_posted_from = text;
    ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(first, text, 3));
    std::strcpy(text, "two"); /* the module copied the first */
    ASSERT_EQ(RC_OK, cmmod_post_msg_malloc(first, text, 3));
    ASSERT_TRUE(run_until([&] { return received.count.load() == 2; }));
    EXPECT_EQ((std::vector<std::string>{"one", "two"}), received.texts);
    EXPECT_TRUE(received.all_copies);
    cmmod_unreg_msgcb(first);
    g_received = nullptr;
}

std::atomic<int> g_fired{0};
void count_firing(TM_MSG_S *)
{
    ++g_fired;
}

TEST_F(ServicesContract, AOnceTimedMessageFiresOnceAndCarriesItsData)
{
    int token = 0;
    TM_MSG_S *tm = nullptr;
    ASSERT_EQ(RC_OK, cmmod_cr_tm_msg_hand(count_firing, &token, &tm));
    ASSERT_NE(nullptr, tm);
    EXPECT_EQ(&token, tm->data);
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(tm, 20, TIMER_ONCE));
    ASSERT_TRUE(run_until([] { return g_fired.load() == 1; }));
    /* a second timed message due well after the first one's next period has fired: nothing more came */
    TM_MSG_S *later = nullptr;
    std::atomic<bool> later_fired{false};
    static std::atomic<bool> *later_flag = nullptr;
    later_flag = &later_fired;
    ASSERT_EQ(RC_OK, cmmod_cr_tm_msg_hand([](TM_MSG_S *) { *later_flag = true; }, nullptr, &later));
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(later, 100, TIMER_ONCE));
    ASSERT_TRUE(run_until([&] { return later_fired.load(); }));
    EXPECT_EQ(1, g_fired.load());
    cmmod_release_tm_msg(tm);
    cmmod_release_tm_msg(later);
    cmmod_release_tm_msg(nullptr);
}

TEST_F(ServicesContract, ACycleFiresUntilReleasedAndAReleasedOneNeverFires)
{
    TM_MSG_S *cycle = nullptr;
    ASSERT_EQ(RC_OK, cmmod_cr_tm_msg_hand(count_firing, nullptr, &cycle));
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(cycle, 10, TIMER_CYCLE));
    ASSERT_TRUE(run_until([] { return g_fired.load() >= 3; }));
    cmmod_release_tm_msg(cycle);
    const int after_release = g_fired.load();

    TM_MSG_S *released = nullptr;
    ASSERT_EQ(RC_OK, cmmod_cr_tm_msg_hand(count_firing, nullptr, &released));
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(released, 10, TIMER_ONCE));
    cmmod_release_tm_msg(released);

    static std::atomic<bool> fence_fired{false};
    TM_MSG_S *fence = nullptr;
    ASSERT_EQ(RC_OK, cmmod_cr_tm_msg_hand([](TM_MSG_S *) { fence_fired = true; }, nullptr, &fence));
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(fence, 100, TIMER_ONCE));
    ASSERT_TRUE(run_until([] { return fence_fired.load(); }));
    EXPECT_EQ(after_release, g_fired.load());
    cmmod_release_tm_msg(fence);
}

} // namespace
