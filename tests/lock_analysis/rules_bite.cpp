/*
 * Proof that the lock checks of `make test-thread-safety` bite: every line
 * that carries an expected diagnostic breaks a locking rule of the POSIX
 * backend, and clang with -Wthread-safety -Werror must reject exactly those
 * lines, with those messages, and nothing else. scripts/check_lock_analysis.sh compiles this file with
 * clang's -verify; it is never built into a program.
 *
 * If the analysis were off (no -Wthread-safety, a lock type without its
 * annotations, a field that lost its SF_GUARDED_BY) a marked line would
 * compile and the check fails.
 */
#include "port/posix/runtime/dispatch_core.h"
#include "port/posix/mqtt/mqtt_client_state.h"

namespace {

posix_rt::Dispatch &d = posix_rt::dispatch();

// A guarded field read and written with its lock: accepted.
size_t depth_locked()
{
    sf_sync::Guard guard(d.lock);
    d.peak = d.queue.size();
    return d.peak;
}

// The same field without the lock.
size_t depth_unlocked()
{
    return d.queue.size(); // expected-error {{reading variable 'queue' requires holding mutex 'd.lock'}}
}

// Written after the hold ended.
void peak_after_unlock()
{
    sf_sync::Guard guard(d.lock);
    guard.unlock();
    d.peak = 0; // expected-error {{writing variable 'peak' requires holding mutex 'd.lock' exclusively}}
}

// A helper that needs the lock, called without it.
bool on_thread_unlocked()
{
    return posix_rt::on_dispatch_thread(d); // expected-error {{calling function 'on_dispatch_thread' requires holding mutex 'd.lock'}}
}

// A condition variable's predicate reads guarded fields: it must say it runs with the lock held.
void wait_with_annotated_predicate()
{
    sf_sync::Guard guard(d.lock);
    d.room.wait(d.lock, []() SF_REQUIRES(d.lock) { return d.queue.empty(); });
}

void wait_with_bare_predicate()
{
    sf_sync::Guard guard(d.lock);
    d.room.wait(d.lock, [] { return d.queue.empty(); }); // expected-error {{reading variable 'queue' requires holding mutex 'd.lock'}}
}

// A wait without the lock.
void wait_unlocked()
{
    d.wake.wait(d.lock); // expected-error {{calling function 'wait' requires holding mutex 'd.lock' exclusively}}
}

// The MQTT client's pointer: read under the shared hold, written only under the exclusive one.
bool client_read_shared()
{
    sf_sync::ReaderGuard life(sf_mqtt::g_life);
    return sf_mqtt::g_client != nullptr;
}

void client_written_shared()
{
    sf_sync::ReaderGuard life(sf_mqtt::g_life);
    sf_mqtt::g_client = nullptr; // expected-error {{writing variable 'g_client' requires holding mutex 'g_life' exclusively}}
}

} // namespace
