/*
 * sfgw: the smart frame running as a gateway against a real broker, with
 * simulated sub-devices behind it. See usage_text() and README.md.
 */
#include <malloc.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "common/description.h"
#include "description_check.h"
#include "gateway.h"
#include "options.h"
#include "port/posix/log/log_output.h"
#include "port/posix/runtime/posix_runtime.h"

namespace {

/*
 * Seconds between two returns of the heap's free pages to the system.
 * Start-up parses the description, builds the registry and queues the
 * first report of every device: with 10,000 devices some 10 MB that are
 * freed soon after, but that glibc keeps mapped, so the resident size stays
 * that much above what the gateway uses. A trim walks the free chunks
 * (well under a millisecond for such a heap).
 */
constexpr time_t HEAP_TRIM_PERIOD_S = 10;

/* The next of the blocked signals; the heap is trimmed while none comes. */
int next_signal(const sigset_t &blocked)
{
    const struct timespec period = {HEAP_TRIM_PERIOD_S, 0};
    for (;;) {
        const int signal_number = sigtimedwait(&blocked, nullptr, &period);
        if (signal_number > 0) {
            return signal_number;
        }
        if (errno == EAGAIN) {
            malloc_trim(0);
        } else if (errno != EINTR) {
            return -1;
        }
    }
}

size_t sub_device_count(const apps::Description &description) { return description.devices.size() - 1; }

} // namespace

int main(int argc, char **argv)
{
    sfgw::Options options;
    std::string why;
    if (!sfgw::parse_options(std::vector<std::string>(argv + 1, argv + argc), &options, &why)) {
        std::fprintf(stderr, "sfgw: %s\n%s", why.c_str(), "Try 'sfgw --help'.\n");
        return sfgw::EXIT_USAGE;
    }
    if (options.help) {
        std::fputs(sfgw::usage_text(), stdout);
        return 0;
    }
    if (!sfgw::check_environment(&why) || (!options.log_file.empty() && !sf_log::use_file(options.log_file, &why))) {
        std::fprintf(stderr, "sfgw: %s\n", why.c_str());
        return sfgw::EXIT_USAGE;
    }
    if (options.syslog) {
        sf_log::use_syslog("sfgw");
    }
    if (options.log_level >= 0) {
        uni_log_set_level(options.log_level);
    }
    apps::Description description;
    if (!sfgw::check_description(options.description, &description, &why)) {
        std::fprintf(stderr, "sfgw: %s\n", why.c_str());
        return sfgw::EXIT_USAGE;
    }
    if (options.check_only) {
        const size_t subs = sub_device_count(description);
        std::printf("%s: gateway %s with %zu sub-device%s: OK\n", options.description.c_str(),
                    description.gateway_id.c_str(), subs, subs == 1 ? "" : "s");
        return 0;
    }

    /* every thread started from here on inherits the blocked signals; only sigwait takes them */
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    sigset_t blocked = stop_signals;
    sigaddset(&blocked, SIGHUP); /* logrotate's "re-open your log" and a new local key, taken by the sigwait below */
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    sfgw::Gateway gateway(options, description);
    bool interrupted = false;
    if (!gateway.start(stop_signals, &interrupted, &why)) {
        gateway.stop();
        if (interrupted) {
            return 0;
        }
        std::fprintf(stderr, "sfgw: %s\n", why.c_str());
        return sfgw::EXIT_RUNTIME;
    }
    std::printf("sfgw: gateway %s is up with %zu sub-devices; LAN port %d; stop with Ctrl-C\n",
                description.gateway_id.c_str(), sub_device_count(description), gateway.lan_port());
    std::fflush(stdout);

    int signal_number = 0;
    while ((signal_number = next_signal(blocked)) == SIGHUP) {
        sf_log::reopen();
        // A key rotated by the installer takes effect now; the rest of the description at the next start.
        apps::Description now;
        if (apps::read_description(options.description, &now, &why)) {
            gateway.reload_local_key(now.local_key);
        } else {
            std::fprintf(stderr, "sfgw: SIGHUP: the description is not readable now, the local key stays: %s\n",
                         why.c_str());
        }
    }
    std::printf("sfgw: %s received, stopping\n", signal_number == SIGINT ? "SIGINT" : "SIGTERM");
    std::fflush(stdout);
    gateway.stop();
    std::printf("sfgw: stopped\n");
    return 0;
}
