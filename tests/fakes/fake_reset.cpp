#include "fake_internal.h"

namespace fake {

namespace detail {
bool take_failure(FailureQueue &failures, OPERATE_RET &code)
{
    for (auto it = failures.begin(); it != failures.end(); ++it) {
        if (--it->first == 0) {
            code = it->second;
            failures.erase(it);
            return true;
        }
    }
    return false;
}

void keep_reachable(void *object)
{
    static std::vector<void *> &graveyard = *new std::vector<void *>();
    std::lock_guard<std::recursive_mutex> guard(records_lock());
    graveyard.push_back(object);
}

std::recursive_mutex &records_lock()
{
    static std::recursive_mutex lock;
    return lock;
}
} // namespace detail

void reset_all()
{
    mqtt::join_threads();
    detail::reset_msgq();
    detail::reset_mqtt();
    detail::reset_lan();
    detail::reset_registry();
    detail::reset_rfc();
    detail::reset_sem();
    detail::reset_mutex();
    detail::reset_clock();
    detail::reset_log();
    detail::reset_memory();
}

void forget_history()
{
    if (mqtt::pending() != 0 || msgq::pending() != 0) {
        contract::violation("forget_history with work still pending");
        return;
    }
    detail::forget_msgq_history();
    detail::forget_mqtt_history();
    detail::forget_lan_history();
    detail::forget_registry_history();
    log::clear();
}

} // namespace fake
