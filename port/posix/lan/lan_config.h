/*
 * Configuration and life cycle of the POSIX LAN channel: a TCP server of
 * newline-delimited JSON frames (docs/wire-protocol.md), inside TLS 1.3
 * with an external pre-shared key derived from the local key (lan_psk.h),
 * or in plain TCP by explicit choice.
 *
 * The channel implements services/lan_channel.h. A client must prove it
 * knows the gateway's local key first: by its TLS handshake, or in plain
 * mode by sending the key as its first frame. Until then it receives
 * nothing and may send nothing else, and a wrong key or a silent client is
 * closed.
 */
#ifndef SF_POSIX_LAN_CONFIG_H
#define SF_POSIX_LAN_CONFIG_H

#include "../../../cloud_defs/kelo_cloud_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Frame type of the gateway's answer to a successful authentication. */
#define LAN_FRAME_AUTH_OK 1

/* LAN_CONFIG_S.security */
#define LAN_SECURITY_TLS   0 /* TLS 1.3, external PSK of the local key (the default) */
#define LAN_SECURITY_PLAIN 1 /* plain TCP: the key and every frame readable on the wire */

/* Every text is copied by lan_start. Zero or NULL fields take the default in brackets. */
typedef struct {
    const CHAR_T *bind_addr;       /* IPv4 address to listen on ["127.0.0.1"] */
    USHORT_T      port;            /* TCP port; 0 picks a free one (see lan_bound_port) */
    const CHAR_T *local_key;       /* the key clients must present [gw_registry_local_key()]; not empty */
    UINT_T        max_clients;     /* authenticated connections at once; when full, new connections
                                      are closed at accept [8] */
    UINT_T        max_queue_frames; /* frames waiting for a slow client before it is dropped [256] */
    UINT_T        max_frame_bytes; /* longest inbound line; longer closes the client [65536] */
    UINT_T        max_frame_depth; /* deepest nesting of an inbound frame [32] */
    UINT_T        auth_timeout_ms; /* time a new client has to authenticate [5000] */
    UINT_T        max_client_commands; /* commands of one client waiting for the application; the
                                          channel stops reading that client at this many [32] */
    UINT_T        max_lines_per_turn; /* lines taken from one client per turn of the channel's loop [16] */
    UINT_T        max_pending_clients; /* connections not yet authenticated at once; a new one
                                          closes the oldest [4] */
    UINT_T        max_pending_per_addr; /* of those, from one IP address; a new one closes that
                                           address's oldest [2] */
    UINT_T        idle_timeout_ms; /* an authenticated client silent this long is closed [300000] */
    UINT_T        frame_timeout_ms; /* an unfinished line older than this closes the client [10000] */
    UINT_T        accept_backoff_ms; /* pause of accepting after the process ran out of descriptors [500] */
    UINT_T        evict_pace_ms;   /* least time between two connections that close an older one [100] */
    UINT_T        security;        /* LAN_SECURITY_TLS or LAN_SECURITY_PLAIN [TLS] */
    BOOL_T        allow_plain_on_network; /* plain mode on an address other than 127.x.x.x; refused
                                             otherwise [FALSE] */
    UINT_T        handshake_timeout_ms; /* time a new client has to finish its TLS handshake [3000] */
} LAN_CONFIG_S;

/* What the channel has done since lan_start (counters) and holds now. */
typedef struct {
    UINT_T clients;              /* authenticated clients connected now */
    UINT_T pending_clients;      /* connections waiting to authenticate now */
    UINT_T queued_commands;      /* commands handed to the smart frame, not yet handled by it */
    UINT_T queued_commands_peak; /* the most queued_commands has been */
    UINT_T clients_accepted;     /* connections accepted */
    UINT_T auth_refused;         /* wrong key, other first frame, or no key in time */
    UINT_T pending_evicted;      /* unauthenticated connections closed to make room for a newer one */
    UINT_T dropped_slow;         /* clients closed because their frame queue was full */
    UINT_T timed_out;            /* authenticated clients closed as idle or stalled in a frame */
    UINT_T accept_failures;      /* accepts that failed for want of descriptors (each starts a pause) */
    UINT_T poll_wakeups;         /* turns of the channel's loop */
    UINT_T handshakes_failed;    /* TLS handshakes that failed or did not finish in time */
    UINT_T closed_for_key_change; /* connections closed because the local key changed */
} LAN_STATS_S;

/*
 * Bind, listen and start the channel's thread. RC_OK, RC_BAD_PARAM (no
 * key in the configuration nor in the registry, bad address, unknown
 * security, plain mode on a network address without
 * allow_plain_on_network, already started) or RC_FAIL (socket or TLS
 * library error, logged).
 */
OPERATE_RET lan_start(const LAN_CONFIG_S *cfg);

/*
 * Take key (not empty; copied) as the local key from now on: new
 * connections must prove it, and every connection made with another key
 * (authenticated or still in its handshake) is closed. The same key again
 * changes nothing. RC_OK, RC_BAD_PARAM (empty key, channel not started) or
 * RC_FAIL (the TLS library failed; the old key stays). Any thread.
 */
OPERATE_RET lan_set_local_key(const CHAR_T *key);

/* The port the server listens on (useful with port 0), or 0 when stopped. */
USHORT_T lan_bound_port(void);

/* Clients that have authenticated and are connected now. Any thread. */
UINT_T lan_authed_client_count(void);

/*
 * Fill *out (not NULL) with the channel's counters and current state. Any
 * thread; the counters are zeroed by lan_start.
 */
void lan_stats(LAN_STATS_S *out);

/*
 * Close every client (their queued blocks are released), stop and join
 * the thread. Idempotent.
 */
void lan_stop(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* SF_POSIX_LAN_CONFIG_H */
