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

#endif /* GATEWAY_GATEWAY_TUNABLES_H */
