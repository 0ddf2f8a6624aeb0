/* Mutexes, threads and clocks of the OS layer. */
#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <thread>
#include <vector>

#include "services/uni_mutex.h"
#include "services/uni_thread.h"
#include "services/uni_time.h"

namespace {

struct Shared {
    MUTEX_HANDLE mutex = nullptr;
    long counter = 0;
    char name[16] = {0};
};

void add_many(void *arg)
{
    Shared *shared = static_cast<Shared *>(arg);
    for (int i = 0; i < 10000; ++i) {
        MutexLock(shared->mutex);
        ++shared->counter;
        MutexUnLock(shared->mutex);
    }
}

TEST(Mutex, SerialisesThreadsCreatedByTheOsLayer)
{
    Shared shared;
    ASSERT_EQ(RC_OK, CreateMutexAndInit(&shared.mutex));
    THREAD_HANDLE threads[3] = {};
    for (THREAD_HANDLE &thread : threads) {
        ASSERT_EQ(RC_OK, ThreadCreate(&thread, add_many, &shared, "adder"));
    }
    for (THREAD_HANDLE thread : threads) {
        EXPECT_EQ(RC_OK, ThreadJoin(thread));
    }
    EXPECT_EQ(30000, shared.counter);
    ReleaseMutex(shared.mutex);
}

TEST(Mutex, CreationNeedsAHandle)
{
    EXPECT_EQ(RC_BAD_PARAM, CreateMutexAndInit(nullptr));
    ReleaseMutex(nullptr);
}

TEST(MutexDeath, LockingAMutexTheThreadAlreadyHoldsAborts)
{
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            MUTEX_HANDLE mutex = nullptr;
            CreateMutexAndInit(&mutex);
            MutexLock(mutex);
            MutexLock(mutex);
        },
        "mutex contract broken");
}

TEST(MutexDeath, UnlockingAMutexNotHeldAborts)
{
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            MUTEX_HANDLE mutex = nullptr;
            CreateMutexAndInit(&mutex);
            MutexUnLock(mutex);
        },
        "mutex contract broken");
}

void record_name(void *arg)
{
    Shared *shared = static_cast<Shared *>(arg);
    pthread_getname_np(pthread_self(), shared->name, sizeof(shared->name));
}

TEST(Thread, RunsTheFunctionUnderItsNameCutTo15Characters)
{
    Shared shared;
    THREAD_HANDLE thread = nullptr;
    ASSERT_EQ(RC_OK, ThreadCreate(&thread, record_name, &shared, "a-very-long-thread-name"));
    ASSERT_EQ(RC_OK, ThreadJoin(thread));
    EXPECT_STREQ("a-very-long-thr", shared.name);
}

TEST(Thread, BadArgumentsAreRefused)
{
    THREAD_HANDLE thread = nullptr;
    EXPECT_EQ(RC_BAD_PARAM, ThreadCreate(nullptr, record_name, nullptr, "x"));
    EXPECT_EQ(RC_BAD_PARAM, ThreadCreate(&thread, nullptr, nullptr, "x"));
    EXPECT_EQ(RC_BAD_PARAM, ThreadJoin(nullptr));
}

TEST(Clock, PosixTimeIsTheWallClockInSeconds)
{
    /* time() reads a coarse clock that may lag a tick behind: allow one second either way */
    const TIME_T before = static_cast<TIME_T>(std::time(nullptr));
    const TIME_T now = uni_time_get_posix();
    const TIME_T after = static_cast<TIME_T>(std::time(nullptr));
    EXPECT_LE(before, now + 1);
    EXPECT_LE(now, after + 1);
    EXPECT_GT(now, 1700000000u); /* a real date, not seconds since boot */
}

TEST(Clock, SystemTimeIsMonotonicNeverZeroAndSplitsOffMilliseconds)
{
    TIME_S first = 0;
    TIME_MS ms = 12345;
    uni_get_system_time(&first, &ms);
    EXPECT_NE(0u, first);
    EXPECT_LT(ms, 1000u);
    TIME_S second = 0;
    uni_get_system_time(&second, nullptr);
    EXPECT_LE(first, second);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    TIME_S third = 0;
    uni_get_system_time(&third, nullptr);
    EXPECT_GE(third, first + 1);
}

} // namespace
