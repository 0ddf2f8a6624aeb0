/*
 * The two clocks: wall-clock POSIX seconds for time stamps and flow
 * control, and a monotonic clock for heartbeats and presence, so that
 * setting the date never makes every sub-device look silent.
 */
#include <ctime>

#include "../../services/uni_time.h"

extern "C" TIME_T uni_time_get_posix(void)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<TIME_T>(now.tv_sec);
}

/*
 * Seconds since boot plus one: the heartbeat records read 0 as "never",
 * so the clock never reads 0, not even in the first second after boot.
 */
extern "C" void uni_get_system_time(TIME_S *p_secs, TIME_MS *p_ms)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (p_secs != nullptr) {
        *p_secs = static_cast<TIME_S>(now.tv_sec) + 1;
    }
    if (p_ms != nullptr) {
        *p_ms = static_cast<TIME_MS>(now.tv_nsec / 1000000);
    }
}
