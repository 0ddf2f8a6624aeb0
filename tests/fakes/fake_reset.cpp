#include "fake_internal.h"

namespace fake {

namespace detail {
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

} // namespace fake
