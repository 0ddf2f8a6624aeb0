/*
 * Locks of the gateway layer and the POSIX backend that clang's thread-safety analysis can
 * follow (services/lock_annotations.h). libstdc++'s std::mutex carries no
 * annotations, so every lock of the backend is one of these:
 *
 *   Mutex, Guard      a leaf lock and its scoped hold (unlock() and lock()
 *                     end and resume the hold, as std::unique_lock's do);
 *   CondVar           a condition variable waited on with a Mutex held;
 *   SharedMutex       readers and one writer, held through ReaderGuard and
 *                     WriterGuard;
 *   LockName, HandleHold  a platform MUTEX_HANDLE (a plain pointer), known
 *                     to the analysis by a name and held through both.
 *
 * Fields say which lock guards them with SF_GUARDED_BY, functions which
 * lock they need held with SF_REQUIRES; clang then checks every use.
 */
#ifndef GATEWAY_SYNC_ANNOTATED_LOCK_H
#define GATEWAY_SYNC_ANNOTATED_LOCK_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#include "services/lock_annotations.h"
#include "services/uni_mutex.h"

namespace sf_sync {

/* A std::mutex the analysis knows as a lock. */
class SF_CAPABILITY("mutex") Mutex {
public:
    void lock() SF_ACQUIRE() { mutex_.lock(); }
    void unlock() SF_RELEASE() { mutex_.unlock(); }
    /* Takes the lock only when it is free; true when it did. Never blocks. */
    bool try_lock() SF_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

private:
    friend class CondVar; /* waits release and retake the std::mutex itself */
    std::mutex mutex_;
};

/* Holds a Mutex for the scope; unlock() and lock() end and resume the hold (around a call made without it). */
class SF_SCOPED_CAPABILITY Guard {
public:
    explicit Guard(Mutex &mutex) SF_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~Guard() SF_RELEASE()
    {
        if (held_) {
            mutex_.unlock();
        }
    }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

    void unlock() SF_RELEASE()
    {
        held_ = false;
        mutex_.unlock();
    }
    void lock() SF_ACQUIRE()
    {
        mutex_.lock();
        held_ = true;
    }

private:
    Mutex &mutex_;
    bool held_ = true;
};

/*
 * A std::condition_variable whose waits take the Mutex the caller holds
 * (through a Guard): the analysis sees the Mutex held before and after the
 * wait, as it is (the wait releases it only while it sleeps). The waits
 * are std::condition_variable's, with the same results and wake-ups.
 *
 * A predicate runs with the Mutex held, so one that reads what the Mutex
 * guards says so: [&]() SF_REQUIRES(mutex) { return ...; }.
 */
class CondVar {
public:
    void notify_one() noexcept { cond_.notify_one(); }
    void notify_all() noexcept { cond_.notify_all(); }

    void wait(Mutex &mutex) SF_REQUIRES(mutex)
    {
        Adopted held(mutex);
        cond_.wait(held.lock);
    }

    template <typename Predicate>
    void wait(Mutex &mutex, Predicate ready) SF_REQUIRES(mutex)
    {
        Adopted held(mutex);
        cond_.wait(held.lock, ready);
    }

    template <typename Clock, typename Duration>
    std::cv_status wait_until(Mutex &mutex, const std::chrono::time_point<Clock, Duration> &deadline)
        SF_REQUIRES(mutex)
    {
        Adopted held(mutex);
        return cond_.wait_until(held.lock, deadline);
    }

    /* The predicate's value when the wait ended: false when the deadline passed first. */
    template <typename Clock, typename Duration, typename Predicate>
    bool wait_until(Mutex &mutex, const std::chrono::time_point<Clock, Duration> &deadline, Predicate ready)
        SF_REQUIRES(mutex)
    {
        Adopted held(mutex);
        return cond_.wait_until(held.lock, deadline, ready);
    }

    /* The predicate's value when the wait ended: false when the span passed first. */
    template <typename Rep, typename Period, typename Predicate>
    bool wait_for(Mutex &mutex, const std::chrono::duration<Rep, Period> &span, Predicate ready) SF_REQUIRES(mutex)
    {
        Adopted held(mutex);
        return cond_.wait_for(held.lock, span, ready);
    }

private:
    /* The caller's hold of the std::mutex, lent to the wait and handed back untouched (still locked). */
    struct Adopted {
        explicit Adopted(Mutex &mutex) : lock(mutex.mutex_, std::adopt_lock) {}
        ~Adopted() { lock.release(); }
        Adopted(const Adopted &) = delete;
        Adopted &operator=(const Adopted &) = delete;
        std::unique_lock<std::mutex> lock;
    };

    std::condition_variable cond_;
};

/* A std::shared_mutex the analysis knows as a lock: shared by readers, exclusive for a writer. */
class SF_CAPABILITY("mutex") SharedMutex {
public:
    void lock() SF_ACQUIRE() { mutex_.lock(); }
    void unlock() SF_RELEASE() { mutex_.unlock(); }
    void lock_shared() SF_ACQUIRE_SHARED() { mutex_.lock_shared(); }
    void unlock_shared() SF_RELEASE_SHARED() { mutex_.unlock_shared(); }

private:
    std::shared_mutex mutex_;
};

/* Holds a SharedMutex shared for the scope, like std::shared_lock. */
class SF_SCOPED_CAPABILITY ReaderGuard {
public:
    explicit ReaderGuard(SharedMutex &mutex) SF_ACQUIRE_SHARED(mutex) : mutex_(mutex) { mutex_.lock_shared(); }
    ~ReaderGuard() SF_RELEASE() { mutex_.unlock_shared(); }
    ReaderGuard(const ReaderGuard &) = delete;
    ReaderGuard &operator=(const ReaderGuard &) = delete;

private:
    SharedMutex &mutex_;
};

/* Holds a SharedMutex exclusively for the scope, like std::unique_lock of a std::shared_mutex. */
class SF_SCOPED_CAPABILITY WriterGuard {
public:
    explicit WriterGuard(SharedMutex &mutex) SF_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~WriterGuard() SF_RELEASE() { mutex_.unlock(); }
    WriterGuard(const WriterGuard &) = delete;
    WriterGuard &operator=(const WriterGuard &) = delete;

private:
    SharedMutex &mutex_;
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

} // namespace sf_sync

#endif /* GATEWAY_SYNC_ANNOTATED_LOCK_H */
