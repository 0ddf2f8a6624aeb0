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

/* ---- MQTT client (mqtt_*.cpp) ---- */

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

/* Inbound documents parsed and waiting for the inbound worker. */
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

/* ---- LAN channel (lan_*.cpp) ---- */

/* Authenticated connections at once; more are closed at accept. */
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

/* Longest wait of the channel's poll in ms; time-outs are checked this often. */
#ifndef SF_LAN_POLL_TICK_MS
#define SF_LAN_POLL_TICK_MS 100
#endif

/* Bytes read from one socket per read call. */
#ifndef SF_LAN_READ_CHUNK
#define SF_LAN_READ_CHUNK 4096
#endif

/* ---- Gateway registry (registry_*.cpp) ---- */

/*
 * Milliseconds a removed device's node is kept before it may be freed, so
 * that a walker that read a link to it just before the removal finishes
 * with valid memory.
 */
#ifndef SF_REGISTRY_RETIRE_GRACE_MS
#define SF_REGISTRY_RETIRE_GRACE_MS 60000
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
