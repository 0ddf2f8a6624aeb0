/*
 * sfgw: the smart frame running as a gateway against a real broker, with
 * simulated sub-devices behind it. See usage_text() and README.md.
 */
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "common/description.h"
#include "description_check.h"
#include "gateway.h"
#include "options.h"
#include "port/posix/log/log_output.h"
#include "port/posix/runtime/posix_runtime.h"

namespace {

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
    while (sigwait(&blocked, &signal_number) == 0 && signal_number == SIGHUP) {
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
