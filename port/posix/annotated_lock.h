/*
 * Locks of the POSIX backend that clang's thread-safety analysis can
 * follow (services/lock_annotations.h). libstdc++'s std::mutex carries no
 * annotations, so the backend's own leaf locks use Mutex and Guard; a
 * platform MUTEX_HANDLE (a plain pointer) gets a LockName and is held
 * through HandleHold, which takes the name and the handle together.
 */
#ifndef PORT_POSIX_ANNOTATED_LOCK_H
#define PORT_POSIX_ANNOTATED_LOCK_H

#include <mutex>

#include "../../services/lock_annotations.h"
#include "../../services/uni_mutex.h"

namespace posix_sync {

/* A std::mutex the analysis knows as a lock. */
class SF_CAPABILITY("mutex") Mutex {
public:
    void lock() SF_ACQUIRE() { mutex_.lock(); }
    void unlock() SF_RELEASE() { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

/* Holds a Mutex for the scope, like std::lock_guard. */
class SF_SCOPED_CAPABILITY Guard {
public:
    explicit Guard(Mutex &mutex) SF_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~Guard() SF_RELEASE() { mutex_.unlock(); }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

private:
    Mutex &mutex_;
};

/* The name of a platform lock (a MUTEX_HANDLE), for the analysis only. */
class SF_CAPABILITY("mutex") LockName {
};

/* Holds the MUTEX_HANDLE `mutex`, known to the analysis as `name`, for the scope. */
class SF_SCOPED_CAPABILITY HandleHold {
public:
    HandleHold([[maybe_unused]] LockName &name, MUTEX_HANDLE mutex) SF_ACQUIRE(name) : mutex_(mutex)
    {
        MutexLock(mutex_);
    }
    ~HandleHold() SF_RELEASE() { MutexUnLock(mutex_); }
    HandleHold(const HandleHold &) = delete;
    HandleHold &operator=(const HandleHold &) = delete;

private:
    MUTEX_HANDLE mutex_;
};

} // namespace posix_sync

#endif /* PORT_POSIX_ANNOTATED_LOCK_H */
