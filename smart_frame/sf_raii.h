/*
 * Owners for what the module allocates, so every early return releases it:
 * cJSON documents, texts from Malloc or cJSON's printer, and held locks.
 */
#ifndef SF_RAII_H
#define SF_RAII_H

#include <cjson/cJSON.h>

#include <memory>

#include "../services/uni_memory.h"
#include "../services/uni_mutex.h"

namespace sf {

struct JsonDeleter {
    void operator()(cJSON *json) const { cJSON_Delete(json); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;

struct FreeDeleter {
    void operator()(void *ptr) const { Free(ptr); }
};
template <typename T>
using MallocPtr = std::unique_ptr<T, FreeDeleter>;
using TextPtr = MallocPtr<char>;

/* Holds a MUTEX_HANDLE for the scope; unlock() ends the hold early. */
class ScopedLock {
public:
    explicit ScopedLock(MUTEX_HANDLE mutex) : mutex_(mutex) { MutexLock(mutex_); }
    ~ScopedLock() { unlock(); }
    ScopedLock(const ScopedLock &) = delete;
    ScopedLock &operator=(const ScopedLock &) = delete;

    void unlock()
    {
        if (held_) {
            held_ = false;
            MutexUnLock(mutex_);
        }
    }

private:
    MUTEX_HANDLE mutex_;
    bool held_ = true;
};

} // namespace sf

#endif /* SF_RAII_H */
