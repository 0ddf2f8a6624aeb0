/*
 * Counting semaphores with a ceiling, on POSIX unnamed semaphores so that
 * a wait interrupted by a signal ends like sem_wait does: RC_WAIT_SEM_FAIL
 * with errno EINTR, and the caller retries.
 */
#include <semaphore.h>

#include <cerrno>
#include <climits>
#include <new>

#include "services/uni_semaphore.h"
#include "gateway/sync/annotated_lock.h"

namespace {

struct Semaphore {
    sem_t sem;
    UINT_T max_count; /* set at creation, read-only afterwards */
    /* Serialises posts, so that "below the ceiling" still holds when the
     * count is raised; waits only lower the count and need no such lock.
     * It guards no field: sem's count is the semaphore's own. */
    sf_sync::Mutex post_lock;
};

Semaphore *as_semaphore(SEM_HANDLE handle)
{
    return static_cast<Semaphore *>(handle);
}

} // namespace

extern "C" OPERATE_RET CreateAndInitSemaphore(SEM_HANDLE *handle, UINT_T init_count, UINT_T max_count)
{
    /* compared unsigned: a cast to a 32-bit long would make a ceiling above INT_MAX negative */
    if (handle == nullptr || max_count == 0 || init_count > max_count ||
        static_cast<unsigned long long>(max_count) > static_cast<unsigned long long>(SEM_VALUE_MAX)) {
        return RC_BAD_PARAM;
    }
    Semaphore *sem = new (std::nothrow) Semaphore();
    if (sem == nullptr) {
        return RC_NO_MEMORY;
    }
    if (sem_init(&sem->sem, 0, init_count) != 0) {
        delete sem;
        return RC_FAIL;
    }
    sem->max_count = max_count;
    *handle = sem;
    return RC_OK;
}

extern "C" OPERATE_RET WaitSemaphore(SEM_HANDLE handle)
{
    if (handle == nullptr) {
        errno = EINVAL;
        return RC_WAIT_SEM_FAIL;
    }
    /* errno is left as sem_wait set it: EINTR tells the caller to retry */
    return sem_wait(&as_semaphore(handle)->sem) == 0 ? RC_OK : RC_WAIT_SEM_FAIL;
}

extern "C" void PostSemaphore(SEM_HANDLE handle)
{
    if (handle == nullptr) {
        return;
    }
    Semaphore *sem = as_semaphore(handle);
    sf_sync::Guard guard(sem->post_lock);
    int value = 0;
    sem_getvalue(&sem->sem, &value);
    /* POSIX lets sem_getvalue report waiters as a negative value: that is
     * an empty semaphore, below any ceiling, and this post must wake one */
    if (value < 0 || static_cast<UINT_T>(value) < sem->max_count) {
        sem_post(&sem->sem);
    }
}

extern "C" void ReleaseSemaphore(SEM_HANDLE handle)
{
    if (handle == nullptr) {
        return;
    }
    Semaphore *sem = as_semaphore(handle);
    sem_destroy(&sem->sem);
    delete sem;
}
