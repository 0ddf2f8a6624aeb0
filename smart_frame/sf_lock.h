/*
 * The module's locks as the compiler sees them (services/lock_annotations.h).
 *
 * The locks themselves are MUTEX_HANDLEs of the platform, plain pointers
 * that clang's analysis cannot follow. Each gets a name here, a capability
 * object without state, and the module holds a lock through Hold. Hold has
 * one constructor per lock, its accessor: the constructor's annotation
 * names the lock and its body fetches that lock's handle, so name and
 * handle are bound in exactly one place, and no code that takes a lock can
 * pair a name with another lock's handle. Functions then state with
 * SF_REQUIRES / SF_EXCLUDES which of them must be held, and control-block
 * fields with SF_GUARDED_BY which one guards them; clang with
 * -Wthread-safety checks every use. Hold makes exactly the MutexLock and
 * MutexUnLock calls a hand-written pair would.
 */
#ifndef SF_LOCK_H
#define SF_LOCK_H

#include "../cloud_defs/gw_intf.h"
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

/* Which lock a Hold takes: Hold lock(sf::dos_mutex), Hold lock(sf::dev_mutex, gw). */
struct DevMutex {
};
struct DosMutex {
};
struct SerialMutex {
};
inline constexpr DevMutex dev_mutex{};
inline constexpr DosMutex dos_mutex{};
inline constexpr SerialMutex serial_mutex{};

/* Holds one of the module's locks for the scope; unlock() and lock() end and resume the hold. */
class SF_SCOPED_CAPABILITY Hold {
public:
    /* dev_mutex of the gateway record gw, as get_gw_cntl() returned it (the caller's one call). */
    Hold(DevMutex, const GW_CNTL_S *gw) SF_ACQUIRE(dev_mutex_cap) : mutex_(gw->dev_mutex) { MutexLock(mutex_); }
    /* sf_cntl.dos_mutex; defined with the control block (frame_cntl.h). */
    explicit Hold(DosMutex) SF_ACQUIRE(dos_mutex_cap);
    /* sf_cntl.mutex; defined with the control block (frame_cntl.h). */
    explicit Hold(SerialMutex) SF_ACQUIRE(serial_mutex_cap);

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
    /* Only the per-lock constructors above may pick a handle. */
    explicit Hold(MUTEX_HANDLE mutex) : mutex_(mutex) { MutexLock(mutex_); }

    MUTEX_HANDLE mutex_;
    bool held_ = true;
};

} // namespace sf

#endif /* SF_LOCK_H */
