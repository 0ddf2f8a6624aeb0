/*
 * Non-recursive mutexes. With SF_OS_CHECKED_MUTEXES (Debug builds and
 * test builds, posix_tunables.h) they are error-checking pthread mutexes,
 * so that a relock by the holder or an unlock by another thread is caught
 * (logged and aborted) instead of deadlocking or corrupting silently;
 * otherwise plain ones, whose lock and unlock are a single atomic step.
 */
#define SF_LOG_MODULE SF_LOG_MODULE_RUNTIME
#include <pthread.h>

#include <cstdlib>
#include <cstring>

#include "services/log_front.h"
#include "services/uni_mutex.h"
#include "port/posix/log/log_output.h"
#include "port/posix/posix_tunables.h"

namespace {

pthread_mutex_t *as_mutex(MUTEX_HANDLE handle)
{
    return static_cast<pthread_mutex_t *>(handle);
}

/* A broken lock contract is a programming error with no safe way on. */
void contract_broken(const char *what, int err)
{
    SF_LOG_AT_FN(LOG_LEVEL_ERROR, what, "mutex contract broken: %s", std::strerror(err));
    /* the writer may hold the line half-way out when the abort lands: let it finish */
    sf_log::flush(std::chrono::milliseconds(1000));
    std::abort();
}

} // namespace

extern "C" OPERATE_RET CreateMutexAndInit(MUTEX_HANDLE *handle)
{
    if (handle == nullptr) {
        return RC_BAD_PARAM;
    }
    pthread_mutex_t *mutex = static_cast<pthread_mutex_t *>(std::malloc(sizeof(pthread_mutex_t)));
    if (mutex == nullptr) {
        return RC_NO_MEMORY;
    }
#if SF_OS_CHECKED_MUTEXES
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    const int err = pthread_mutex_init(mutex, &attr);
    pthread_mutexattr_destroy(&attr);
#else
    const int err = pthread_mutex_init(mutex, nullptr);
#endif
    if (err != 0) {
        std::free(mutex);
        return RC_NO_MEMORY;
    }
    *handle = mutex;
    return RC_OK;
}

extern "C" void MutexLock(MUTEX_HANDLE handle)
{
    const int err = pthread_mutex_lock(as_mutex(handle));
    if (err != 0) {
        contract_broken(__func__, err);
    }
}

extern "C" void MutexUnLock(MUTEX_HANDLE handle)
{
    const int err = pthread_mutex_unlock(as_mutex(handle));
    if (err != 0) {
        contract_broken(__func__, err);
    }
}

extern "C" void ReleaseMutex(MUTEX_HANDLE handle)
{
    if (handle == nullptr) {
        return;
    }
    const int err = pthread_mutex_destroy(as_mutex(handle));
    if (err != 0) {
        contract_broken(__func__, err);
    }
    std::free(handle);
}
