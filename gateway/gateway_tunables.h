/*
 * Tunables of the gateway layer (registry and command edge): every bound
 * and time of it, each an #ifndef default with its unit, range and reason,
 * so a port can override it from its build without editing code.
 */
#ifndef GATEWAY_GATEWAY_TUNABLES_H
#define GATEWAY_GATEWAY_TUNABLES_H

/*
 * Milliseconds a removed device's node is kept at least before it may be
 * freed, so that a thread the registry cannot watch (an application thread
 * inside one report, a channel thread inside one completion) finishes with
 * valid memory. Range 1 .. any; keep it far above the longest single call
 * (a synchronous report waits up to its time-out). Users on the dispatch
 * thread are waited for regardless (registry_reclaim.cpp).
 */
#ifndef SF_REGISTRY_RETIRE_GRACE_MS
#define SF_REGISTRY_RETIRE_GRACE_MS 60000
#endif

/*
 * Seconds a command carrying "t" (the POSIX seconds at which the cloud
 * issued it) may be old when it reaches the command edge; an older one is
 * refused with the code "expired" [0 = no limit .. any]. Five minutes
 * covers a restart and a short outage; a command older than that was
 * probably meant for a situation that has passed. Overridden at run time
 * with wire_set_command_max_age (sfgw: connection.commands.max_age_s).
 */
#ifndef SF_COMMAND_MAX_AGE_S
#define SF_COMMAND_MAX_AGE_S 300
#endif

#endif /* GATEWAY_GATEWAY_TUNABLES_H */
