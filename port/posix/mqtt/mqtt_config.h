/*
 * Configuration and life cycle of the POSIX MQTT client (libmosquitto).
 *
 * The client implements services/mqtt_client.h. The gateway starts it once
 * with mqc_start after the registry and smart_frame_init, and stops it with
 * mqc_stop before the message module. Topics and payloads are described in
 * docs/wire-protocol.md.
 */
#ifndef SF_POSIX_MQTT_CONFIG_H
#define SF_POSIX_MQTT_CONFIG_H

#include "../../../cloud_defs/kelo_cloud_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Results of the MQTT client besides RC_OK / RC_BAD_PARAM / RC_NO_MEMORY. */
#define MQC_RC_NOT_CONNECTED (-1101) /* publication refused: no broker connection */
#define MQC_RC_PUBLISH_FAIL  (-1102) /* libmosquitto refused the publication */
#define MQC_RC_TIMEOUT       (-1103) /* completion: no acknowledgement within the time limit */
#define MQC_RC_CONN_LOST     (-1104) /* completion: the connection dropped before the acknowledgement */
#define MQC_RC_STOPPED       (-1105) /* completion: the client was stopped before the acknowledgement */
#define MQC_RC_START_FAIL    (-1106) /* mqc_start: libmosquitto could not be set up (see the log) */

/* Protocol numbers ("pro") of uplink messages; see docs/wire-protocol.md. */
#define MQC_PRO_DP_REPORT 4   /* mqc_dp_report_async: DP reports, multi-DP answers */
#define MQC_PRO_DP_QUERY  16  /* mqc_obj_dp_query: the answer to a DP query */
#define MQC_PRO_PRESENCE  25  /* online/offline batches */
#define MQC_PRO_GROUP     203 /* group operation answers */
#define MQC_PRO_SCENE     205 /* scene operation answers */

/*
 * One broker of a list (MQC_CONFIG_S.brokers). NULL or empty texts take the
 * shared setting of MQC_CONFIG_S; port 0 takes 1883, or 8883 with TLS. TLS
 * is on for all brokers of a list or for none.
 */
typedef struct {
    const CHAR_T *host;      /* required */
    INT_T         port;
    const CHAR_T *username;
    const CHAR_T *password;
    const CHAR_T *ca_file;
    const CHAR_T *cert_file;
    const CHAR_T *key_file;
} MQC_BROKER_S;

/*
 * Every text is copied by mqc_start. Zero or NULL fields take the default
 * named in brackets.
 */
typedef struct {
    const CHAR_T *host;         /* broker host name or address ["127.0.0.1"] */
    INT_T         port;         /* broker port [1883, or 8883 when ca_file is set] */
    const CHAR_T *client_id;    /* MQTT client id [the gateway id] */
    const CHAR_T *gw_id;        /* gateway id of the topics [get_gw_cntl()->gw_if.id] */
    const CHAR_T *topic_root;   /* first topic level ["sf"] */
    const CHAR_T *username;     /* NULL: no authentication */
    const CHAR_T *password;     /* used only with username */
    const CHAR_T *ca_file;      /* PEM CA bundle; set: TLS is used */
    const CHAR_T *cert_file;    /* optional client certificate (PEM), with key_file */
    const CHAR_T *key_file;     /* private key of cert_file (PEM, not encrypted) */
    BOOL_T        tls_insecure; /* 1: do not check the broker's host name (tests only) */
    UINT_T        keepalive_s;  /* keep-alive in seconds [60] */
    UINT_T        reconnect_min_s; /* first reconnect delay in seconds [1] */
    UINT_T        reconnect_max_s; /* longest reconnect delay; doubles up to it [30] */
    UINT_T        default_timeout_s; /* time limit of a QoS 1 publication given 0 [30] */
    UINT_T        max_inbound_bytes; /* larger inbound documents are dropped [65536] */
    UINT_T        max_inbound_depth; /* deeper nested documents are dropped [32] */
    UINT_T        max_inflight;      /* QoS 1 messages on the wire at once; more wait in order [20] */
    UINT_T        protocol;          /* 5: MQTT 5 only; 311: MQTT 3.1.1 only; 0: MQTT 5, or 3.1.1
                                        when the broker refuses 5 [SF_MQTT_PROTOCOL]. See
                                        docs/robustness.md for what each can bound. */
    BOOL_T        clean_session;     /* 1: a clean session at every connect, so the broker keeps nothing
                                        while the gateway is away; 0: a persistent session [0] */
    UINT_T        session_expiry_s;  /* MQTT 5 session expiry of a persistent session, seconds
                                        [SF_MQTT_SESSION_EXPIRY_S] */
    UINT_T        takeover_backoff_s; /* reconnect delay once another client took our session
                                         [SF_MQTT_TAKEOVER_BACKOFF_S] */
    const MQC_BROKER_S *brokers;     /* broker_count > 0: these brokers, tried in this order, instead of
                                        host and port (see port/posix/mqtt/mqtt_brokers.h) */
    UINT_T        broker_count;
} MQC_CONFIG_S;

/*
 * Create the client and start connecting in the background; a broker that
 * is not reachable yet is retried with back-off. Sets the gateway network
 * status to 1 (network, no cloud) until the broker accepts the connection.
 * RC_OK, RC_BAD_PARAM (already started, or no gateway id known),
 * MQC_RC_START_FAIL. Not thread-safe with mqc_stop.
 */
OPERATE_RET mqc_start(const MQC_CONFIG_S *cfg);

/*
 * Disconnect, join the client's threads, complete every pending
 * publication with MQC_RC_STOPPED and release everything. Idempotent. MUST
 * NOT be called from a completion callback or from the application's query
 * callback (they run on the client's threads).
 */
void mqc_stop(void);

/* The MQTT client's inbound queue, for metrics and tests. */
typedef struct {
    UINT_T depth;   /* commands read and waiting for the inbound worker */
    UINT_T limit;   /* reading stops at this depth (SF_MQTT_INBOUND_QUEUE_LIMIT) ... */
    UINT_T reserve; /* ... unless it reads on for an acknowledgement, up to limit + reserve */
    UINT_T dropped; /* commands dropped since mqc_start: over the byte limit, or QoS 0 past the reserve */
} MQC_INBOUND_STAT_S;

/* Fill *stat (all zero while the client is not started). Any thread. */
void mqc_get_inbound_stat(MQC_INBOUND_STAT_S *stat);

/*
 * The session number of the current (or next) connection: raised at every
 * start and after every accepted session, kept in the state file's journal
 * (port/posix/state/command_journal.h) when it is open, else counted from
 * the POSIX seconds at start. Carried by sf/<gw>/status and, under MQTT 5,
 * by every uplink (docs/wire-protocol.md). 0 while not started. Any thread.
 */
uint64_t mqc_session_number(void);

/* Whether the broker had kept our session at the last accepted connect. Any thread. */
BOOL_T mqc_session_kept(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* SF_POSIX_MQTT_CONFIG_H */
