/*
 * Counting semaphores that really block (synchronous reports wait on them
 * while another thread completes), with injected interruptions and failures.
 * A wait that nobody ends within 20 s is reported instead of hanging the run.
 */
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>

#include "fake_internal.h"

namespace {

struct FakeSem {
    std::mutex lock;
    std::condition_variable cv;
    UINT_T count = 0;
    UINT_T max = 0;
};

struct SemState {
    fake::detail::FailureQueue create_failures;
    int interruptions = 0;
    bool fail_next_wait = false;
    OPERATE_RET wait_code = RC_OK;
    int wait_errno = 0;
    size_t live = 0;
    size_t waits = 0;
};

SemState &state()
{
    static SemState &s = *new SemState(); // never destroyed: what it points at stays reachable at exit
    return s;
}

} // namespace

extern "C" OPERATE_RET CreateAndInitSemaphore(SEM_HANDLE *handle, UINT_T init_count, UINT_T max_count)
{
    if (handle == nullptr) {
        return RC_BAD_PARAM;
    }
    {
        std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
        OPERATE_RET code = RC_OK;
        if (fake::detail::take_failure(state().create_failures, code)) {
            return code;
        }
        ++state().live;
    }
    FakeSem *sem = new FakeSem();
    sem->count = init_count;
    sem->max = max_count;
    *handle = sem;
    return RC_OK;
}

extern "C" OPERATE_RET WaitSemaphore(SEM_HANDLE handle)
{
    {
        std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
        ++state().waits;
        if (state().interruptions > 0) {
            --state().interruptions;
            errno = EINTR;
            return RC_WAIT_SEM_FAIL;
        }
        if (state().fail_next_wait) {
            state().fail_next_wait = false;
            errno = state().wait_errno;
            return state().wait_code;
        }
    }
    FakeSem *sem = static_cast<FakeSem *>(handle);
    std::unique_lock<std::mutex> lock(sem->lock);
    if (!sem->cv.wait_for(lock, std::chrono::seconds(20), [sem] { return sem->count > 0; })) {
        fake::contract::violation("WaitSemaphore was never posted (20 s)");
        errno = ETIMEDOUT;
        return RC_WAIT_SEM_FAIL;
    }
    --sem->count;
    return RC_OK;
}

extern "C" void PostSemaphore(SEM_HANDLE handle)
{
    FakeSem *sem = static_cast<FakeSem *>(handle);
    {
        std::lock_guard<std::mutex> lock(sem->lock);
        if (sem->count < sem->max) {
            ++sem->count;
        }
    }
    sem->cv.notify_one();
}

extern "C" void ReleaseSemaphore(SEM_HANDLE handle)
{
    delete static_cast<FakeSem *>(handle);
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    --state().live;
}

namespace fake {
namespace sem {

void fail_create(OPERATE_RET code, int nth)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    state().create_failures.emplace_back(nth, code);
}

void interrupt_waits(int n)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    state().interruptions = n;
}

void fail_wait(OPERATE_RET code, int err)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    state().fail_next_wait = true;
    state().wait_code = code;
    state().wait_errno = err;
}

size_t live()
{
    return state().live;
}

size_t waits()
{
    return state().waits;
}

} // namespace sem

namespace detail {
void reset_sem()
{
    std::lock_guard<std::recursive_mutex> guard(records_lock());
    state() = SemState();
}
} // namespace detail
} // namespace fake
