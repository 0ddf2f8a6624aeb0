/*
 * Real locks that also know who holds them, so the tests can prove the
 * locking contracts: no re-entry, dev_mutex outermost, and nothing held
 * while publishing or calling the application.
 */
#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <thread>

#include "fake_internal.h"

namespace {

struct FakeMutex {
    std::string name;
    std::mutex lock;
    std::thread::id owner;
    bool held = false;
    size_t locks = 0;
};

struct MutexState {
    fake::detail::FailureQueue create_failures;
    size_t created = 0;
    size_t released = 0;
    std::vector<FakeMutex *> all;
    std::vector<std::string> violations;
    MUTEX_HANDLE dev_mutex = nullptr;
};

MutexState &state()
{
    static MutexState &s = *new MutexState(); // never destroyed: what it points at stays reachable at exit
    return s;
}

thread_local std::vector<FakeMutex *> held_here;

} // namespace

extern "C" OPERATE_RET CreateMutexAndInit(MUTEX_HANDLE *handle)
{
    if (handle == nullptr) {
        return RC_BAD_PARAM;
    }
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    OPERATE_RET code = RC_OK;
    if (fake::detail::take_failure(state().create_failures, code)) {
        return code;
    }
    *handle = fake::mutex::make("module mutex " + std::to_string(state().created));
    ++state().created;
    return RC_OK;
}

extern "C" void MutexLock(MUTEX_HANDLE handle)
{
    FakeMutex *m = static_cast<FakeMutex *>(handle);
    if (std::find(held_here.begin(), held_here.end(), m) != held_here.end()) {
        std::fprintf(stderr, "fake MutexLock: %s locked again by its holder (deadlock)\n", m->name.c_str());
        std::abort();
    }
    if (handle == state().dev_mutex && !held_here.empty()) {
        fake::contract::violation("dev_mutex taken while holding " + held_here.back()->name);
    }
    m->lock.lock();
    m->owner = std::this_thread::get_id();
    m->held = true;
    ++m->locks;
    held_here.push_back(m);
}

extern "C" void MutexUnLock(MUTEX_HANDLE handle)
{
    FakeMutex *m = static_cast<FakeMutex *>(handle);
    auto it = std::find(held_here.begin(), held_here.end(), m);
    if (it == held_here.end()) {
        std::fprintf(stderr, "fake MutexUnLock: %s not held by this thread\n", m->name.c_str());
        std::abort();
    }
    held_here.erase(it);
    m->held = false;
    m->lock.unlock();
}

extern "C" void ReleaseMutex(MUTEX_HANDLE handle)
{
    FakeMutex *m = static_cast<FakeMutex *>(handle);
    if (m == nullptr) {
        return;
    }
    if (m->held) {
        fake::contract::violation("ReleaseMutex of a held mutex: " + m->name);
    }
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    ++state().released;
    /* kept allocated until reset, so a late use is reported instead of crashing */
    m->name += " (released)";
}

namespace fake {
namespace mutex {

void fail_create(OPERATE_RET code, int nth)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    state().create_failures.emplace_back(nth, code);
}

size_t created()
{
    return state().created;
}

size_t released()
{
    return state().released;
}

bool held(MUTEX_HANDLE handle)
{
    return static_cast<FakeMutex *>(handle)->held;
}

int held_by_this_thread()
{
    return static_cast<int>(held_here.size());
}

size_t lock_count(MUTEX_HANDLE handle)
{
    return static_cast<FakeMutex *>(handle)->locks;
}

MUTEX_HANDLE make(const std::string &name)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    FakeMutex *m = new FakeMutex();
    m->name = name;
    state().all.push_back(m);
    return m;
}

} // namespace mutex

namespace contract {

void check_no_lock_held(const std::string &what)
{
    if (!held_here.empty()) {
        violation(what + " with " + held_here.back()->name + " held");
    }
}

void check_dev_mutex_not_held(const std::string &what)
{
    for (FakeMutex *m : held_here) {
        if (m == state().dev_mutex) {
            violation(what + " with dev_mutex held");
        }
    }
}

void violation(const std::string &what)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    state().violations.push_back(what);
}

const std::vector<std::string> &violations()
{
    return state().violations;
}

void clear_violations()
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    state().violations.clear();
}

} // namespace contract

namespace detail {

bool is_dev_mutex(MUTEX_HANDLE handle)
{
    return handle != nullptr && handle == state().dev_mutex;
}

void set_dev_mutex(MUTEX_HANDLE handle)
{
    state().dev_mutex = handle;
}

void reset_mutex()
{
    std::lock_guard<std::recursive_mutex> guard(records_lock());
    /* mutexes of an earlier scenario may still be referenced by the module's static state: leak them */
    for (FakeMutex *m : state().all) {
        keep_reachable(m);
    }
    state().all.clear();
    state().create_failures.clear();
    state().violations.clear();
    state().created = 0;
    state().released = 0;
    state().dev_mutex = nullptr;
    held_here.clear();
}

} // namespace detail
} // namespace fake
