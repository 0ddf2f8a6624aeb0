/* Two virtual clocks in milliseconds; only the test (or timers::advance) moves them. */
#include "fake_internal.h"

namespace {

struct Clocks {
    uint64_t posix_ms = 1700000000ull * 1000;
    uint64_t system_ms = 1000ull * 1000;
};

Clocks &clocks()
{
    static Clocks c;
    return c;
}

} // namespace

extern "C" TIME_T uni_time_get_posix(void)
{
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    return static_cast<TIME_T>(clocks().posix_ms / 1000);
}

extern "C" void uni_get_system_time(TIME_S *p_secs, TIME_MS *p_ms)
{
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    if (p_secs != nullptr) {
        *p_secs = static_cast<TIME_S>(clocks().system_ms / 1000);
    }
    if (p_ms != nullptr) {
        *p_ms = static_cast<TIME_MS>(clocks().system_ms % 1000);
    }
}

namespace fake {
namespace clock {

void set_posix(TIME_T secs)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    clocks().posix_ms = static_cast<uint64_t>(secs) * 1000;
}

TIME_T posix()
{
    return uni_time_get_posix();
}

void set_system(TIME_S secs)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    clocks().system_ms = static_cast<uint64_t>(secs) * 1000;
}

TIME_S system()
{
    TIME_S secs = 0;
    uni_get_system_time(&secs, nullptr);
    return secs;
}

} // namespace clock

namespace detail {
void reset_clock()
{
    std::lock_guard<std::recursive_mutex> guard(records_lock());
    clocks() = Clocks();
}

void clock_advance_ms(uint64_t ms)
{
    std::lock_guard<std::recursive_mutex> guard(records_lock());
    clocks().posix_ms += ms;
    clocks().system_ms += ms;
}
} // namespace detail
} // namespace fake
