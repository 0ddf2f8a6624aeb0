/*
 * The module's locks as the compiler sees them (services/lock_annotations.h).
 *
 * The locks themselves are MUTEX_HANDLEs of the platform, plain pointers
 * that clang's analysis cannot follow. Each gets a name here, a capability
 * object without state, and the module holds a lock through Hold, which
 * takes the name and the handle together. Functions then state with
 * SF_REQUIRES / SF_EXCLUDES which of them must be held, and control-block
 * fields with SF_GUARDED_BY which one guards them; clang with
 * -Wthread-safety checks every use. Hold makes exactly the MutexLock and
 * MutexUnLock calls a hand-written pair would.
 */
#ifndef SF_LOCK_H
#define SF_LOCK_H

#include "../services/lock_annotations.h"
#include "../services/uni_mutex.h"

namespace sf {

/* The name of one lock, for the analysis only. */
class SF_CAPABILITY("mutex") LockName {
};

/* The registry's dev_mutex (GW_CNTL_S): the device list and every DP table. Outermost. */
inline LockName dev_mutex_cap;
/* sf_cntl.dos_mutex: presence and heartbeat fields; may be taken under dev_mutex, never around it. */
inline LockName dos_mutex_cap;
/* sf_cntl.mutex: the serial number. */
inline LockName serial_mutex_cap;

/* Holds the lock named `name` (the handle `mutex`) for the scope; unlock() and lock() end and resume the hold. */
class SF_SCOPED_CAPABILITY Hold {
public:
    Hold([[maybe_unused]] LockName &name, MUTEX_HANDLE mutex) SF_ACQUIRE(name) : mutex_(mutex) { MutexLock(mutex_); }
    ~Hold() SF_RELEASE()
    {
        if (held_) {
            MutexUnLock(mutex_);
        }
    }
    Hold(const Hold &) = delete;
    Hold &operator=(const Hold &) = delete;

    void unlock() SF_RELEASE()
    {
        held_ = false;
        MutexUnLock(mutex_);
    }
    void lock() SF_ACQUIRE()
    {
        MutexLock(mutex_);
        held_ = true;
    }

private:
    MUTEX_HANDLE mutex_;
    bool held_ = true;
};

} // namespace sf

#endif /* SF_LOCK_H */
