#include <gtest/gtest.h>

#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <thread>

#include "tests/unit/posix/posix_test_util.h"
#include "services/uni_semaphore.h"

/*
 * Some C libraries report waiters through sem_getvalue as a negative value
 * (POSIX allows it; glibc reports 0). While this flag is set, the
 * executable's sem_getvalue, which the backend links to ahead of the C
 * library's, reports an empty semaphore as -1: one waiter.
 */
std::atomic<bool> negative_when_waiting{false};

extern "C" int sem_getvalue(sem_t *sem, int *value)
{
    using Real = int (*)(sem_t *, int *);
    static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "sem_getvalue"));
    const int rc = real(sem, value);
    if (rc == 0 && *value == 0 && negative_when_waiting.load()) {
        *value = -1;
    }
    return rc;
}

namespace {

using posix_test::eventually;

/*
 * True when the semaphore holds exactly `count` counts: that many waits
 * return, and one more blocks (for a tenth of a second at least). The
 * semaphore is left empty.
 */
bool holds_exactly(SEM_HANDLE sem, int count)
{
    std::atomic<int> taken{0};
    std::thread taker([&] {
        for (int i = 0; i <= count; ++i) {
            if (WaitSemaphore(sem) != RC_OK) {
                break;
            }
            ++taken;
        }
    });
    const bool got_all = eventually([&] { return taken.load() >= count; });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const bool then_blocked = taken.load() == count;
    while (taken.load() <= count) { /* let the taker finish its last wait */
        PostSemaphore(sem);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    taker.join();
    return got_all && then_blocked;
}

TEST(Semaphore, WaitTakesTheInitialCountsThenBlocksUntilAPost)
{
    SEM_HANDLE sem = nullptr;
    ASSERT_EQ(RC_OK, CreateAndInitSemaphore(&sem, 2, 10));
    EXPECT_EQ(RC_OK, WaitSemaphore(sem));
    EXPECT_EQ(RC_OK, WaitSemaphore(sem));
    std::atomic<bool> woke{false};
    std::thread waiter([&] {
        EXPECT_EQ(RC_OK, WaitSemaphore(sem));
        woke = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(woke);
    PostSemaphore(sem);
    waiter.join();
    EXPECT_TRUE(woke);
    ReleaseSemaphore(sem);
}

TEST(Semaphore, PostsBeyondTheCeilingAreDropped)
{
    SEM_HANDLE sem = nullptr;
    ASSERT_EQ(RC_OK, CreateAndInitSemaphore(&sem, 0, 3));
    for (int i = 0; i < 10; ++i) {
        PostSemaphore(sem);
    }
    EXPECT_TRUE(holds_exactly(sem, 3));
    ReleaseSemaphore(sem);
}

TEST(Semaphore, ConcurrentPostsNeverPassTheCeiling)
{
    SEM_HANDLE sem = nullptr;
    ASSERT_EQ(RC_OK, CreateAndInitSemaphore(&sem, 0, 10));
    std::thread a([&] { for (int i = 0; i < 500; ++i) PostSemaphore(sem); });
    std::thread b([&] { for (int i = 0; i < 500; ++i) PostSemaphore(sem); });
    a.join();
    b.join();
    EXPECT_TRUE(holds_exactly(sem, 10));
    ReleaseSemaphore(sem);
}

TEST(Semaphore, APostWakesAWaiterWhenTheLibraryCountsWaitersAsNegative)
{
    SEM_HANDLE sem = nullptr;
    ASSERT_EQ(RC_OK, CreateAndInitSemaphore(&sem, 0, 1));
    std::atomic<bool> woke{false};
    std::thread waiter([&] {
        EXPECT_EQ(RC_OK, WaitSemaphore(sem));
        woke = true;
    });
    negative_when_waiting = true;
    PostSemaphore(sem);
    const bool woken = eventually([&] { return woke.load(); });
    negative_when_waiting = false;
    if (!woken) {
        PostSemaphore(sem); /* the post was dropped: release the waiter to end the test */
    }
    waiter.join();
    EXPECT_TRUE(woken) << "the only post was dropped";
    ReleaseSemaphore(sem);
}

TEST(Semaphore, ACeilingAboveTheLibraryMaximumIsRefused)
{
    SEM_HANDLE sem = nullptr;
    EXPECT_EQ(RC_BAD_PARAM, CreateAndInitSemaphore(&sem, 0, static_cast<UINT_T>(SEM_VALUE_MAX) + 1u));
    EXPECT_EQ(RC_BAD_PARAM, CreateAndInitSemaphore(&sem, 0, 0xFFFFFFFFu));
}

TEST(Semaphore, BadArgumentsAreRefused)
{
    SEM_HANDLE sem = nullptr;
    EXPECT_EQ(RC_BAD_PARAM, CreateAndInitSemaphore(nullptr, 0, 10));
    EXPECT_EQ(RC_BAD_PARAM, CreateAndInitSemaphore(&sem, 11, 10));
    EXPECT_EQ(RC_BAD_PARAM, CreateAndInitSemaphore(&sem, 0, 0));
    errno = 0;
    EXPECT_EQ(RC_WAIT_SEM_FAIL, WaitSemaphore(nullptr));
    EXPECT_EQ(EINVAL, errno);
    PostSemaphore(nullptr);
    ReleaseSemaphore(nullptr);
}

void on_signal(int) {}

TEST(Semaphore, AnInterruptedWaitFailsWithEintrAndARetrySucceeds)
{
    struct sigaction action {};
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0; /* no SA_RESTART: the wait must see the interruption */
    struct sigaction previous {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, &previous));

    SEM_HANDLE sem = nullptr;
    ASSERT_EQ(RC_OK, CreateAndInitSemaphore(&sem, 0, 10));
    std::atomic<bool> interrupted{false};
    std::atomic<int> wait_errno{0};
    std::atomic<bool> finished{false};
    std::thread waiter([&] {
        OPERATE_RET rc = WaitSemaphore(sem);
        if (rc == RC_WAIT_SEM_FAIL) {
            wait_errno = errno;
            interrupted = true;
            do { /* the caller's retry; later signals of the test may interrupt it again */
                rc = WaitSemaphore(sem);
            } while (rc == RC_WAIT_SEM_FAIL && errno == EINTR);
        }
        EXPECT_EQ(RC_OK, rc);
        finished = true;
    });
    const pthread_t handle = waiter.native_handle();
    /* the signal may land before the wait starts; keep sending until the wait saw one */
    ASSERT_TRUE(eventually([&] {
        pthread_kill(handle, SIGUSR1);
        return interrupted.load();
    }));
    EXPECT_EQ(EINTR, wait_errno.load());
    EXPECT_FALSE(finished);
    PostSemaphore(sem);
    waiter.join();
    EXPECT_TRUE(finished);
    ReleaseSemaphore(sem);
    sigaction(SIGUSR1, &previous, nullptr);
}

} // namespace
