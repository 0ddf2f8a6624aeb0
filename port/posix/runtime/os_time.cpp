/*
 * The two clocks: wall-clock POSIX seconds for time stamps and flow
 * control, and a monotonic clock for heartbeats and presence, so that
 * setting the date never makes every sub-device look silent.
 */
#include <ctime>

#include "services/uni_time.h"

/*
 * Whole seconds only: the coarse clock (the kernel's last tick, read
 * without the time-stamp counter) is enough and costs a fraction of the
 * precise one, which showed in every report (flow control and publish
 * state read it twice per report). It may lag the precise clock by one
 * tick (a few milliseconds) at a second's boundary.
 */
extern "C" TIME_T uni_time_get_posix(void)
{
    struct timespec now;
#ifdef CLOCK_REALTIME_COARSE
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
#else
    clock_gettime(CLOCK_REALTIME, &now);
#endif
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
