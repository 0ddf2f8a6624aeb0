/*
 * Every timing and budget constant of the POSIX backend, in one place.
 *
 * A porter reads this file first. Each value is a default that a build may
 * override with -D (e.g. -DSF_LAN_MAX_CLIENTS=16); each states its unit,
 * the range that makes sense and why it has the value it has. Settings that
 * a gateway sets at run time (MQC_CONFIG_S, LAN_CONFIG_S) take these as
 * their defaults when left at zero.
 */
#ifndef SF_POSIX_TUNABLES_H
#define SF_POSIX_TUNABLES_H

/* ---- Message module (msg_queue.cpp, dispatch_loop.cpp) ---- */

/*
 * Messages waiting for the dispatch thread [16..65535]. A post from any
 * other thread waits while the queue is full (backpressure on the channel
 * that feeds it), so memory stays bounded however fast commands arrive; a
 * handler's own posts are never held (the dispatch thread cannot wait for
 * itself) and may pass it. Each message is a command envelope and its
 * parsed document (at most SF_MQTT_MAX_INBOUND_BYTES of text).
 */
#ifndef SF_DISPATCH_QUEUE_LIMIT
#define SF_DISPATCH_QUEUE_LIMIT 128
#endif

/* ---- MQTT client (mqtt_*.cpp) ---- */

/*
 * MQTT protocol level when MQC_CONFIG_S.protocol is 0: 5 (MQTT 5, falling
 * back to 3.1.1 when the broker refuses it) or 311 (MQTT 3.1.1 only). MQTT
 * 5 lets the broker know our receive maximum and maximum packet size.
 */
#ifndef SF_MQTT_PROTOCOL
#define SF_MQTT_PROTOCOL 5
#endif

/*
 * MQTT 5 receive maximum [1..65535]: QoS 1 commands the broker may have on
 * the way to us, unacknowledged, at once. While the inbound queue is full
 * the client stops reading its socket, so at most this many commands lie
 * between a report of ours and its acknowledgement.
 */
#ifndef SF_MQTT_RECEIVE_MAXIMUM
#define SF_MQTT_RECEIVE_MAXIMUM 16
#endif

/*
 * Inbound documents read past SF_MQTT_INBOUND_QUEUE_LIMIT, only to reach
 * the acknowledgement a publication of ours waits for (or a ping answer).
 * It must cover what the broker sends ahead of that acknowledgement: under
 * MQTT 5 the receive maximum should bound that, but mosquitto 2.0 was seen
 * to put more than 16 commands ahead of it, so the reserve is wider.
 */
#ifndef SF_MQTT_INBOUND_RESERVE
#define SF_MQTT_INBOUND_RESERVE 64
#endif

/*
 * Bytes an MQTT packet may have beyond its payload (fixed header, topic,
 * MQTT 5 properties). Our MQTT 5 maximum packet size is the largest
 * accepted document plus this, so the broker never sends what we would
 * refuse.
 */
#ifndef SF_MQTT_PACKET_OVERHEAD
#define SF_MQTT_PACKET_OVERHEAD 1024
#endif

/* Milliseconds between looks at the inbound queue while reading is held back. */
#ifndef SF_MQTT_HELD_POLL_MS
#define SF_MQTT_HELD_POLL_MS 20
#endif

/* Seconds between keep-alive pings [5..3600]. Brokers drop a client after 1.5x this. */
#ifndef SF_MQTT_KEEPALIVE_S
#define SF_MQTT_KEEPALIVE_S 60
#endif

/* First reconnect delay in seconds [1..]; doubles after each failure. */
#ifndef SF_MQTT_RECONNECT_MIN_S
#define SF_MQTT_RECONNECT_MIN_S 1
#endif

/* Longest reconnect delay in seconds [>= min]; caps the doubling. */
#ifndef SF_MQTT_RECONNECT_MAX_S
#define SF_MQTT_RECONNECT_MAX_S 30
#endif

/* Seconds a QoS 1 publication may wait for its acknowledgement when the caller gave 0. */
#ifndef SF_MQTT_PUBLISH_TIMEOUT_S
#define SF_MQTT_PUBLISH_TIMEOUT_S 30
#endif

/* QoS 1 messages on the wire at once [1..65535]; more wait in order of submission. */
#ifndef SF_MQTT_MAX_INFLIGHT
#define SF_MQTT_MAX_INFLIGHT 20
#endif

/* Largest inbound document in bytes; larger ones are refused before parsing. */
#ifndef SF_MQTT_MAX_INBOUND_BYTES
#define SF_MQTT_MAX_INBOUND_BYTES 65536
#endif

/* Deepest nesting of an inbound document; deeper ones are refused before parsing. */
#ifndef SF_MQTT_MAX_INBOUND_DEPTH
#define SF_MQTT_MAX_INBOUND_DEPTH 32
#endif

/*
 * Inbound documents waiting for the inbound worker before the client stops
 * reading its socket (the broker then holds the rest). It reads on past
 * this, up to SF_MQTT_INBOUND_RESERVE more, only to reach the
 * acknowledgement a publication of ours waits for, or a ping answer.
 */
#ifndef SF_MQTT_INBOUND_QUEUE_LIMIT
#define SF_MQTT_INBOUND_QUEUE_LIMIT 64
#endif

/* Milliseconds between passes of the publication-expiry thread. */
#ifndef SF_MQTT_EXPIRY_TICK_MS
#define SF_MQTT_EXPIRY_TICK_MS 100
#endif

/* mosquitto_loop's socket wait in ms; a publication or a disconnect wakes it sooner. */
#ifndef SF_MQTT_LOOP_WAIT_MS
#define SF_MQTT_LOOP_WAIT_MS 1000
#endif

/*
 * Seconds the session may still run after mqc_stop, to get the offline
 * status and the DISCONNECT out to a broker that reads slowly.
 */
#ifndef SF_MQTT_STOP_GRACE_S
#define SF_MQTT_STOP_GRACE_S 2
#endif

/*
 * MQTT 5 session expiry interval in seconds with a persistent session
 * [0..4294967294]: how long the broker keeps the gateway's subscription and
 * the QoS 1 commands sent to it while it is away. One day covers a
 * restart, an upgrade and most outages; the broker's own limits
 * (docs/brokers.md) may cut it shorter. MQTT 3.1.1 has no expiry: the
 * broker decides (mosquitto: persistent_client_expiration).
 */
#ifndef SF_MQTT_SESSION_EXPIRY_S
#define SF_MQTT_SESSION_EXPIRY_S 86400
#endif

/*
 * Reconnect delay in seconds once another client took the gateway's
 * session (the same client id twice) [1..86400]. Much longer than the
 * usual back-off so that two gateways with one id do not take the session
 * from each other every second; each turn is logged and counted.
 */
#ifndef SF_MQTT_TAKEOVER_BACKOFF_S
#define SF_MQTT_TAKEOVER_BACKOFF_S 300
#endif

/*
 * MQTT 3.1.1 has no reason for a take-over: SF_MQTT_TAKEOVER_REPEATS
 * accepted sessions in a row that the broker closed within
 * SF_MQTT_TAKEOVER_WINDOW_S seconds of their start are taken for one.
 */
#ifndef SF_MQTT_TAKEOVER_WINDOW_S
#define SF_MQTT_TAKEOVER_WINDOW_S 5
#endif
#ifndef SF_MQTT_TAKEOVER_REPEATS
#define SF_MQTT_TAKEOVER_REPEATS 3
#endif

/*
 * Milliseconds at most between a command reaching the application and its
 * deletion from the command journal (command_journal.h) while commands
 * keep arriving; idle, the deletion follows at once. A crash in between
 * applies it once more after the restart.
 */
#ifndef SF_MQTT_JOURNAL_FLUSH_MS
#define SF_MQTT_JOURNAL_FLUSH_MS 100
#endif

/* ---- LAN channel (lan_*.cpp) ---- */

/*
 * Authenticated connections at once; when this many are in, new
 * connections are closed at accept, and an authentication beyond it is refused.
 */
#ifndef SF_LAN_MAX_CLIENTS
#define SF_LAN_MAX_CLIENTS 8
#endif

/* Frames waiting for a slow client before it is dropped. */
#ifndef SF_LAN_MAX_QUEUE_FRAMES
#define SF_LAN_MAX_QUEUE_FRAMES 256
#endif

/* Longest inbound line in bytes; a longer one closes the client. */
#ifndef SF_LAN_MAX_FRAME_BYTES
#define SF_LAN_MAX_FRAME_BYTES 65536
#endif

/* Deepest nesting of an inbound frame. */
#ifndef SF_LAN_MAX_FRAME_DEPTH
#define SF_LAN_MAX_FRAME_DEPTH 32
#endif

/* Milliseconds a new client has to present the local key. */
#ifndef SF_LAN_AUTH_TIMEOUT_MS
#define SF_LAN_AUTH_TIMEOUT_MS 5000
#endif

/*
 * Milliseconds a new client has to finish its TLS handshake (TLS mode),
 * 100..60000. One round trip and an X25519 exchange take a few ms on a
 * LAN; the bound is for a client that stalls on purpose: its connection
 * counts against the waiting pool (SF_LAN_MAX_PENDING_CLIENTS) until then.
 */
#ifndef SF_LAN_HANDSHAKE_TIMEOUT_MS
#define SF_LAN_HANDSHAKE_TIMEOUT_MS 3000
#endif

/* Longest wait of the channel's poll in ms; time-outs are checked this often. */
#ifndef SF_LAN_POLL_TICK_MS
#define SF_LAN_POLL_TICK_MS 100
#endif

/* Bytes read from one socket per read call. */
#ifndef SF_LAN_READ_CHUNK
#define SF_LAN_READ_CHUNK 4096
#endif

/*
 * Commands of one client handed to the smart frame and not yet handled by
 * the application [1..]. At this many the channel stops reading that
 * client (TCP then holds the client back), so the dispatch queue holds at
 * most max_clients times this many LAN commands, however fast clients send.
 */
#ifndef SF_LAN_MAX_CLIENT_COMMANDS
#define SF_LAN_MAX_CLIENT_COMMANDS 32
#endif

/*
 * Lines taken from one client per turn of the loop [1..]: a client sending
 * fast cannot hold the thread (queries are answered on it) from the others.
 */
#ifndef SF_LAN_MAX_LINES_PER_TURN
#define SF_LAN_MAX_LINES_PER_TURN 16
#endif

/*
 * Connections not yet authenticated at once [1..]. A new one closes the
 * oldest, so clients without the key cannot keep the channel full: a client
 * that sends the key as it connects is read before its turn to be closed
 * comes (see SF_LAN_EVICT_PACE_MS). Authenticated clients have their own
 * pool (SF_LAN_MAX_CLIENTS), which these never take from.
 */
#ifndef SF_LAN_MAX_PENDING_CLIENTS
#define SF_LAN_MAX_PENDING_CLIENTS 4
#endif

/* Unauthenticated connections from one IP address [1..max pending]; a new one closes its oldest. */
#ifndef SF_LAN_MAX_PENDING_PER_ADDR
#define SF_LAN_MAX_PENDING_PER_ADDR 2
#endif

/*
 * Least milliseconds between two accepted connections that each close an
 * older unauthenticated one [10..]. Meanwhile new connections wait in the
 * listen queue, so a client that sends its key right after connecting has
 * at least max pending per address times this long to be read, however fast
 * others reconnect.
 */
#ifndef SF_LAN_EVICT_PACE_MS
#define SF_LAN_EVICT_PACE_MS 100
#endif

/*
 * Milliseconds an authenticated client may send nothing [1000..]; an empty
 * line is enough to stay connected. Frees the slot of a vanished client
 * whose connection never reported an error.
 */
#ifndef SF_LAN_IDLE_TIMEOUT_MS
#define SF_LAN_IDLE_TIMEOUT_MS 300000
#endif

/*
 * Milliseconds an unfinished line may wait for its end [100..]. A frame is
 * one write of the client; one that stalls half-way is not coming.
 */
#ifndef SF_LAN_FRAME_TIMEOUT_MS
#define SF_LAN_FRAME_TIMEOUT_MS 10000
#endif

/*
 * Milliseconds the channel stops accepting after accept failed for want of
 * descriptors (EMFILE, ENFILE, ENOBUFS, ENOMEM). The pending connection
 * stays in the listen queue and would wake the loop at once again: the
 * pause keeps the thread from spinning until descriptors are free.
 */
#ifndef SF_LAN_ACCEPT_BACKOFF_MS
#define SF_LAN_ACCEPT_BACKOFF_MS 500
#endif

/* ---- DP state store (state_*.cpp) ---- */

/*
 * Milliseconds between two writes of the changed DP values to the state
 * file [20..60000]. A process crash loses at most the changes of the last
 * interval; a shorter interval writes more, smaller transactions (each one
 * costs an fsync and at least one page of WAL).
 */
#ifndef SF_STATE_WRITE_INTERVAL_MS
#define SF_STATE_WRITE_INTERVAL_MS 200
#endif

/*
 * Page size in bytes of a new state file [512..65536, a power of two]. A
 * transaction writes every page it touched once more to the WAL: small
 * pages keep the bytes written per change small (one row is about 60
 * bytes), at the price of a deeper tree for very large gateways.
 */
#ifndef SF_STATE_PAGE_SIZE
#define SF_STATE_PAGE_SIZE 1024
#endif

/* Milliseconds a write waits for another connection holding the file (a reader such as the sqlite3 shell). */
#ifndef SF_STATE_BUSY_TIMEOUT_MS
#define SF_STATE_BUSY_TIMEOUT_MS 1000
#endif

/* ---- Log (os_log.cpp, log_buffer.cpp) and metrics (metrics_*.cpp) ---- */

/*
 * Bytes of formatted log text waiting for the writer thread [4096..]. Twice
 * this is allocated (the writer drains one buffer while lines go to the
 * other). Past it, lines are dropped and counted rather than waited for:
 * a reporter logging under dev_mutex must never wait on a slow console.
 */
#ifndef SF_LOG_BUFFER_BYTES
#define SF_LOG_BUFFER_BYTES 65536
#endif

/* Errors and warnings printed per call site and window before the rest are counted only [1..]. */
#ifndef SF_LOG_BURST
#define SF_LOG_BURST 10
#endif

/* Seconds of a rate-limit window [1..3600]; a broker outage retries about twice a minute. */
#ifndef SF_LOG_WINDOW_S
#define SF_LOG_WINDOW_S 60
#endif

/* Call sites the rate limit tells apart; lines of further sites are never limited. */
#ifndef SF_LOG_RATE_SITES
#define SF_LOG_RATE_SITES 256
#endif

/* ---- OS layer (os_*.cpp) ---- */

/*
 * 1: mutexes are error-checking pthread mutexes, so a relock by the holder
 * or an unlock by another thread is logged and aborts; 0: plain (default
 * kind) mutexes, which do not check and cost less on every lock. Checked
 * in Debug builds and whenever the tests are built (their death tests rely
 * on it, see CMakeLists.txt); plain in Release builds without tests.
 */
#ifndef SF_OS_CHECKED_MUTEXES
#ifdef NDEBUG
#define SF_OS_CHECKED_MUTEXES 0
#else
#define SF_OS_CHECKED_MUTEXES 1
#endif
#endif

#endif /* SF_POSIX_TUNABLES_H */
