/*
 * Every time-out, delay, budget and bound of the module, in one place.
 *
 * A porter reads this file first. It has two parts:
 *
 *   A port may change     an #ifndef default that a build overrides with -D
 *                         (e.g. -DSF_DP_SYNC_DELAY_MS=5000). The module then
 *                         still works, at another pace or size; the values
 *                         below are the module's defined behaviour, and the
 *                         module's tests assert them, so a port that changes
 *                         one runs those tests with the default.
 *   Fixed                 values the wire format, the cloud's protocol or the
 *                         public API's documented behaviour fixes: a caller or
 *                         the cloud counts on them. Setting one with -D stops
 *                         the build.
 *
 * Each states its unit, the range that makes sense and why it has its value.
 * Timed messages count milliseconds; MQTT time-outs and heartbeats count
 * seconds.
 *
 * Not here: wire identifiers (the presence protocol number 25 and its QoS
 * level 1, the answer protocols 203 and 205), result codes, enumerations,
 * reference counts and the counts of the code's own tables. They name things
 * rather than bound them, and stay next to their one use.
 *
 * Plain C preprocessor values, so a C port's build files may test them too.
 */
#ifndef SF_TUNABLES_H
#define SF_TUNABLES_H

/* ======================= A port may change these ======================= */

/* ---- Reports out (report/obj_report.cpp, report/sync_report.cpp) ---- */

/*
 * Seconds the MQTT client may take to complete an asynchronous object report
 * of the application (sf_obj_dp_report_async) [1..3600]. A value that is not
 * confirmed in time goes back to "stored, unconfirmed" and the DP sync sends
 * it again, so a short time-out costs re-sends, a long one delays them.
 */
#ifndef SF_OBJ_REPORT_TIMEOUT_S
#define SF_OBJ_REPORT_TIMEOUT_S 6
#endif

/*
 * Largest count of the semaphore of one synchronous report [1..]. Exactly one
 * completion posts it, so any value from 1 up works; a port whose semaphores
 * cost memory per count may lower it to 1.
 */
#ifndef SF_SYNC_REPORT_SEM_MAX
#define SF_SYNC_REPORT_SEM_MAX 10
#endif

/* ---- DP sync (report/sync_retry.cpp, presence/dp_sync.cpp) ---- */

/*
 * Milliseconds from a failed or unconfirmed publication to the DP sync run
 * that sends it again [100..60000]. Every failure re-arms it, so this is also
 * the pace of re-sends while the cloud keeps failing: short enough that a
 * value lost to a broker hiccup arrives soon, long enough not to flood a
 * broker that is refusing.
 */
#ifndef SF_DP_SYNC_DELAY_MS
#define SF_DP_SYNC_DELAY_MS 2000
#endif

/*
 * Packing allowance of one device's re-publication in one DP sync run, in
 * the packing's units (SF_PACK_BASE_ALLOWANCE per DP plus its text)
 * [SF_PACK_BASE_ALLOWANCE..]. About one message: a device with more pending
 * values is spread over several runs SF_DP_SYNC_DELAY_MS apart instead of
 * one large publication.
 */
#ifndef SF_DP_SYNC_PACK_BUDGET
#define SF_DP_SYNC_PACK_BUDGET 300
#endif

/* Seconds the MQTT client may take to complete a DP sync re-publication [1..3600]. */
#ifndef SF_DP_SYNC_REPORT_TIMEOUT_S
#define SF_DP_SYNC_REPORT_TIMEOUT_S 10
#endif

/* ---- Online/offline batches (presence/online_batch.cpp) ---- */

/*
 * Milliseconds from the first change of an idle batch chain to its first
 * batch [0..10000]: changes that come within it (a room of devices powering
 * up) share one publication.
 */
#ifndef SF_PRESENCE_FIRST_DELAY_MS
#define SF_PRESENCE_FIRST_DELAY_MS 300
#endif

/*
 * Milliseconds before the next batch run after an acknowledged or failed
 * batch, a failed allocation or while the network is down [100..60000].
 */
#ifndef SF_PRESENCE_NEXT_DELAY_MS
#define SF_PRESENCE_NEXT_DELAY_MS 1000
#endif

/* Seconds the MQTT client may take to complete a batch publication [1..3600]. */
#ifndef SF_PRESENCE_TIMEOUT_S
#define SF_PRESENCE_TIMEOUT_S 10
#endif

/*
 * Bytes of one id list of a batch ("[" ... "]") [64..4096], and the head-room
 * that must be left for another entry to be added [DEV_ID_LEN + 4 at most,
 * so that the list's storage, SF_PRESENCE_LIST_BUDGET - head-room + the
 * longest entry, is never smaller than the budget]. Together they fix how
 * many devices one batch carries (nine ids of 25 characters, eleven of 20);
 * the rest follows SF_PRESENCE_NEXT_DELAY_MS after the acknowledgement.
 */
#ifndef SF_PRESENCE_LIST_BUDGET
#define SF_PRESENCE_LIST_BUDGET 256
#endif
#ifndef SF_PRESENCE_LIST_HEAD_ROOM
#define SF_PRESENCE_LIST_HEAD_ROOM 20
#endif

/* ---- Heartbeat supervision (presence/heartbeat.cpp) ---- */

/*
 * Milliseconds between supervision passes [1000..60000]. A device goes
 * offline in the first pass after its time-out, and probes go out one per
 * pass, so this is also the resolution of both.
 */
#ifndef SF_HB_PASS_PERIOD_MS
#define SF_HB_PASS_PERIOD_MS 8000
#endif

/*
 * Seconds before a device's time-out at which probes start
 * [1..SF_HB_MIN_TIMEOUT_S - 1]: room for the probes of the probe limit, one
 * per pass, to be answered before the device is set offline.
 */
#ifndef SF_HB_PROBE_LEAD_S
#define SF_HB_PROBE_LEAD_S 20
#endif

/*
 * The first probe after sf_set_dev_hb_timeout falls due 0 to this minus one
 * seconds later, at random [1..]: many devices configured at once are not
 * probed in the same pass.
 */
#ifndef SF_HB_FIRST_PROBE_SPREAD_S
#define SF_HB_FIRST_PROBE_SPREAD_S 15
#endif

/*
 * Passes whose per-device lines are not logged between two that are
 * [0..]: with hundreds of sub-devices a line per device every pass would
 * drown the log; one pass in SF_HB_QUIET_PASSES + 1 shows them all.
 */
#ifndef SF_HB_QUIET_PASSES
#define SF_HB_QUIET_PASSES 100
#endif

/* ---- The report texts' fast scanner (report/dp_scan.h, report/dp_scan.cpp) ---- */

/*
 * Bounds of the scanner that reads the common report texts without building
 * a cJSON tree. A text beyond any bound is read by cJSON instead, with the
 * same result, so they trade stack (about 1.8 KiB with these values) against
 * how many texts take the fast road.
 *   SF_SCAN_MAX_MEMBERS  DP members of one text [1..255]
 *   SF_SCAN_KEY_BYTES    their names, terminators included [4..]
 *   SF_SCAN_CID_BYTES    the device id and its terminator [DEV_ID_LEN + 1..]
 *   SF_SCAN_NUMBER_MAX   characters of one number [11..63]: cJSON reads at
 *                        most 63, so the scanner stays well inside that
 */
#ifndef SF_SCAN_MAX_MEMBERS
#define SF_SCAN_MAX_MEMBERS 24
#endif
#ifndef SF_SCAN_KEY_BYTES
#define SF_SCAN_KEY_BYTES 256
#endif
#ifndef SF_SCAN_CID_BYTES
#define SF_SCAN_CID_BYTES 64
#endif
#ifndef SF_SCAN_NUMBER_MAX
#define SF_SCAN_NUMBER_MAX 32
#endif

/* ============ Fixed: the protocol or the public API fixes these ============ */

/* Heartbeats (presence/heartbeat.cpp): values of sf_set_dev_hb_timeout's contract. */

/*
 * Smallest heartbeat time-out in seconds that sf_set_dev_hb_timeout accepts;
 * below it the call answers RC_BAD_PARAM and logs the value.
 */
#ifdef SF_HB_MIN_TIMEOUT_S
#error "SF_HB_MIN_TIMEOUT_S is fixed by sf_set_dev_hb_timeout's contract"
#endif
#define SF_HB_MIN_TIMEOUT_S 60

/* A heartbeat time-out of this many seconds: the device never times out and is never probed. */
#ifdef SF_HB_NEVER_TIMES_OUT
#error "SF_HB_NEVER_TIMES_OUT is fixed by sf_set_dev_hb_timeout's contract"
#endif
#define SF_HB_NEVER_TIMES_OUT 0xFFFFFFFFu

/* A heartbeat time-out of this many seconds (12 h): supervised, never probed. */
#ifdef SF_HB_NEVER_PROBED
#error "SF_HB_NEVER_PROBED is fixed by sf_set_dev_hb_timeout's contract"
#endif
#define SF_HB_NEVER_PROBED 43200

/* The probe limit that a limit of 0 stands for. */
#ifdef SF_HB_DEFAULT_PROBE_LIMIT
#error "SF_HB_DEFAULT_PROBE_LIMIT is fixed by sf_set_dev_hb_timeout's contract"
#endif
#define SF_HB_DEFAULT_PROBE_LIMIT 2

/* Commands in (inbound/). */

/*
 * DP numbers of one command whose commanded value equals the known one, and
 * are echoed back (inbound/recv_dp.cpp): the capacity of the echo, logged
 * when its allocation fails. Equal DPs beyond it are not recorded, and then
 * no echo is sent.
 */
#ifdef SF_QUERY_ECHO_CAP
#error "SF_QUERY_ECHO_CAP is fixed by the command handling's defined behaviour"
#endif
#define SF_QUERY_ECHO_CAP 64

/*
 * Most sub-devices one group or scene command may list (the cloud sends at
 * most this many): the per-command result tables have this many entries. A
 * longer list is refused as a malformed command rather than cut short: a
 * partial answer would tell the cloud nothing about the ids left out, and
 * the sender can split its list.
 */
#ifdef SF_MEMBER_OPER_MAX_IDS
#error "SF_MEMBER_OPER_MAX_IDS is fixed by the cloud's group and scene commands"
#endif
#define SF_MEMBER_OPER_MAX_IDS 256

/* Texts out (report/): sizes that the wire format and the documented allocations fix. */

/*
 * Bytes of a DP number's key text: "255" and its terminator, with room to
 * spare (report/pack.cpp, inbound/query_answer.cpp).
 */
#ifdef SF_DP_KEY_BYTES
#error "SF_DP_KEY_BYTES is fixed by the wire format"
#endif
#define SF_DP_KEY_BYTES 10

/* Characters of the longest INT_T in decimal, "-2147483648" (report/output_text.cpp). */
#ifdef SF_INT_TEXT_MAX
#error "SF_INT_TEXT_MAX is fixed by the wire format"
#endif
#define SF_INT_TEXT_MAX 11

/*
 * Packing allowance of one DP before its text, in the units of
 * sf_pack_local_obj_dp_data's max_len (report/pack.cpp): a caller's max_len
 * counts in these units.
 */
#ifdef SF_PACK_BASE_ALLOWANCE
#error "SF_PACK_BASE_ALLOWANCE is fixed by sf_pack_local_obj_dp_data's contract"
#endif
#define SF_PACK_BASE_ALLOWANCE 10

/*
 * sf_dp_data_composition's buffer sizes (report/composition.cpp): bytes per
 * record of a number, boolean or bitmap ("\"255\":-2147483648," is 18); added
 * to a text's or enum name's length ("\"255\":\"\"," is 10); and per time
 * stamp ("\"255\":4294967295," is 17). The buffers are exactly these sizes.
 */
#ifdef SF_COMPOSE_NUMBER_BYTES
#error "SF_COMPOSE_NUMBER_BYTES is fixed by sf_dp_data_composition's allocations"
#endif
#define SF_COMPOSE_NUMBER_BYTES 20
#ifdef SF_COMPOSE_TEXT_BYTES
#error "SF_COMPOSE_TEXT_BYTES is fixed by sf_dp_data_composition's allocations"
#endif
#define SF_COMPOSE_TEXT_BYTES 15
#ifdef SF_COMPOSE_TIME_BYTES
#error "SF_COMPOSE_TIME_BYTES is fixed by sf_dp_data_composition's allocations"
#endif
#define SF_COMPOSE_TIME_BYTES 30

/*
 * Bytes of a report envelope beyond the DP and time texts: the fixed text,
 * a 25-character device id and the terminator (report/envelope.cpp).
 */
#ifdef SF_ENVELOPE_SLACK
#error "SF_ENVELOPE_SLACK is fixed by the envelope's wire format"
#endif
#define SF_ENVELOPE_SLACK 128

/*
 * A raw report's text beyond its base64 encoding (report/raw_report.cpp):
 * {"255":" before it and "} with the terminator after it fit in
 * SF_RAW_TEXT_SLACK bytes; the encoding is first written SF_RAW_ENCODING_OFFSET
 * bytes in, ahead of the head that is then put in front of it.
 */
#ifdef SF_RAW_TEXT_SLACK
#error "SF_RAW_TEXT_SLACK is fixed by the raw report's wire format"
#endif
#define SF_RAW_TEXT_SLACK 21
#ifdef SF_RAW_ENCODING_OFFSET
#error "SF_RAW_ENCODING_OFFSET is fixed by the raw report's wire format"
#endif
#define SF_RAW_ENCODING_OFFSET 15

/*
 * Bytes of a presence batch beyond its two id lists: {"online":,"offline":}
 * and the terminator (presence/online_batch.cpp).
 */
#ifdef SF_PRESENCE_TEXT_SLACK
#error "SF_PRESENCE_TEXT_SLACK is fixed by the batch's wire format"
#endif
#define SF_PRESENCE_TEXT_SLACK 128

/* ======================= Ranges of what a port sets ======================= */

#if SF_OBJ_REPORT_TIMEOUT_S < 1 || SF_DP_SYNC_REPORT_TIMEOUT_S < 1 || SF_PRESENCE_TIMEOUT_S < 1
#error "an MQTT time-out is at least 1 second (0 would leave it to the client's own default)"
#endif
#if SF_SYNC_REPORT_SEM_MAX < 1
#error "SF_SYNC_REPORT_SEM_MAX must let the completion post once"
#endif
#if SF_DP_SYNC_DELAY_MS < 1 || SF_PRESENCE_NEXT_DELAY_MS < 1 || SF_HB_PASS_PERIOD_MS < 1
#error "a delay of 0 ms would make the timed message run back to back"
#endif
#if SF_DP_SYNC_PACK_BUDGET < SF_PACK_BASE_ALLOWANCE
#error "SF_DP_SYNC_PACK_BUDGET must admit at least one DP"
#endif
#if SF_HB_PROBE_LEAD_S < 1 || SF_HB_PROBE_LEAD_S >= SF_HB_MIN_TIMEOUT_S
#error "SF_HB_PROBE_LEAD_S must fall inside the shortest heartbeat time-out"
#endif
#if SF_HB_FIRST_PROBE_SPREAD_S < 1
#error "SF_HB_FIRST_PROBE_SPREAD_S is a modulus: at least 1"
#endif
#if SF_SCAN_MAX_MEMBERS < 1 || SF_SCAN_NUMBER_MAX < SF_INT_TEXT_MAX || SF_SCAN_NUMBER_MAX > 63
#error "the fast scanner's bounds are out of range"
#endif

#endif /* SF_TUNABLES_H */
