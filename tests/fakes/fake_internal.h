/* Shared between the fake backends: per-fake reset hooks and the global lock. */
#ifndef SF_TEST_FAKE_INTERNAL_H
#define SF_TEST_FAKE_INTERNAL_H

#include <deque>
#include <mutex>
#include <utility>

#include "../../smart_frame/smart_frame.h"
#include "fakes.h"

namespace fake {
namespace detail {

/* One lock for the fakes' own records; never held while calling into the module. */
std::recursive_mutex &records_lock();

void reset_memory();
void reset_log();
void reset_clock();
void reset_msgq();
void reset_mutex();
void reset_sem();
void reset_rfc();
void reset_mqtt();
void reset_lan();
void reset_registry();

/* Parts of forget_history, one per fake that keeps records. */
void forget_msgq_history();
void forget_mqtt_history();
void forget_lan_history();
void forget_registry_history();

/* Injected failures: (countdown, code) pairs; "the nth next call fails with code". */
using FailureQueue = std::deque<std::pair<int, OPERATE_RET>>;

/* Count one call against every queued failure; true (and the code) when one falls due now. */
bool take_failure(FailureQueue &failures, OPERATE_RET &code);

/* Objects of an earlier scenario that the module may still point at: kept, never freed. */
void keep_reachable(void *object);

/* Move both clocks forward (used by timers::advance). */
void clock_advance_ms(uint64_t ms);

/* Whether handle is the registry's dev_mutex. */
bool is_dev_mutex(MUTEX_HANDLE handle);
void set_dev_mutex(MUTEX_HANDLE handle);

/* Copy of the payload text of a report block (MSG_DATA_S). */
std::string block_text(const RFC_DATA_S *block);

} // namespace detail
} // namespace fake

#endif
