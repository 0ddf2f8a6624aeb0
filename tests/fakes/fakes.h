/*
 * Deterministic test backend of every service the smart frame calls, and
 * the knobs a test turns: clocks, failure injection, the dispatch queue
 * and timed messages on a virtual clock, publication completions, and the
 * in-memory gateway registry with its builder.
 *
 * Everything runs on the test's thread unless a test asks otherwise
 * (mqtt::AutoComplete::OnThread). Blocks from Malloc are counted, so every
 * test can end with a leak check (see sf_fixture.h).
 */
#ifndef SF_TEST_FAKES_H
#define SF_TEST_FAKES_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "../../cloud_defs/gw_intf.h"
#include "../../services/kelo_base64.h"
#include "../../services/lan_channel.h"
#include "../../services/mqtt_client.h"
#include "../../services/uni_log.h"
#include "../../services/uni_memory.h"
#include "../../services/uni_msg_queue.h"
#include "../../services/uni_mutex.h"
#include "../../services/uni_rfc.h"
#include "../../services/uni_semaphore.h"
#include "../../services/uni_time.h"

namespace fake {

/* Restore every fake to its initial state (registry emptied, queues and records cleared). */
void reset_all();

/*
 * Drop the records of finished work (posts, timer starts, publications,
 * LAN reports and frames, log lines, registry updates) but keep every
 * fake's working state: handlers, timed messages, the registry, results
 * set for later calls. For long runs in one process (fuzzing), where the
 * records would otherwise grow without bound. Call only when no
 * publication is pending and no message is queued.
 */
void forget_history();

/* ------------------------------------------------------------------ memory */
namespace mem {
size_t live_blocks();      /* blocks from Malloc not yet released */
size_t live_bytes();
size_t alloc_calls();      /* Malloc calls since reset, failed ones included */
size_t alloc_bytes();      /* bytes requested by successful calls since reset */
void fail_nth(size_t n);   /* the n-th Malloc call from now returns NULL (1 = the next); 0 disables */
bool failure_fired();      /* whether the injected failure has happened */
std::string leak_report(); /* size and first bytes of each live block */
} // namespace mem

/* ------------------------------------------------------------------ log */
namespace log {
struct Entry {
    int level;
    std::string file;
    int line;
    std::string func;
    std::string text;
};
const std::vector<Entry> &entries();
/* entries whose formatted text is exactly text */
std::vector<Entry> find(const std::string &text);
/* whether an entry has exactly this level, function name and text */
bool has(int level, const std::string &func, const std::string &text);
/* whether an entry has exactly this level and text (any function) */
bool has(int level, const std::string &text);
size_t count(const std::string &text);
const std::string &raw(); /* everything printed by PrintLogRaw, concatenated */
void clear();
std::string dump(); /* all entries, one per line, for failure messages */
} // namespace log

/* ------------------------------------------------------------------ clocks */
namespace clock {
/* Both clocks move with timers::advance; these set their current reading. */
void set_posix(TIME_T secs);
TIME_T posix();
void set_system(TIME_S secs);
TIME_S system();
} // namespace clock

/* ------------------------------------------------------------------ message module */
namespace msgq {
enum class Call { system_timer_init, cmmod_init, get_free_msgid, reg_msgcb, post_msg_malloc, cr_tm_msg_hand, start_tm_msg };
/* the nth next call (1 = the next) of `call` returns code instead of doing its work */
void fail(Call call, OPERATE_RET code, int nth = 1);
int calls(Call call); /* calls so far, failed ones included */

struct Post {
    MSG_ID mid;
    std::vector<uint8_t> data; /* copy of what was posted */
};
const std::vector<Post> &posts(); /* every successful post */
MSG_CALLBACK handler(MSG_ID mid); /* registered handler, or NULL */
std::vector<MSG_ID> registered(); /* ids currently registered, in registration order */
const std::vector<MSG_ID> &unregistered(); /* ids passed to cmmod_unreg_msgcb, in order */
size_t pending();  /* posted, not yet handled */
bool run_one();    /* hand the oldest queued message to its handler on this thread */
size_t run_all();  /* until the queue is empty, including messages posted meanwhile */
} // namespace msgq

namespace timers {
struct Start {
    TM_MSG_S *tm;
    TIME_MS period;
    TIMER_TYPE type;
    uint64_t at_ms; /* virtual time of the call */
};
const std::vector<Start> &starts();          /* every cmmod_start_tm_msg call that succeeded */
std::vector<Start> starts_of(TM_MSG_S *tm);
const std::vector<TM_MSG_S *> &created();
const std::vector<TM_MSG_S *> &released();   /* arguments of cmmod_release_tm_msg, NULL included */
bool armed(TM_MSG_S *tm);
uint64_t due_ms(TM_MSG_S *tm);               /* absolute virtual time of the next firing */
uint64_t now_ms();
/* Move virtual time forward, firing every due timed message in due order on this thread. */
void advance(uint64_t ms);
/* Run tm's callback now, as if it were due (a once timer is disarmed first). */
void fire(TM_MSG_S *tm);
} // namespace timers

/* ------------------------------------------------------------------ mutexes and contracts */
namespace mutex {
void fail_create(OPERATE_RET code, int nth = 1); /* the nth next CreateMutexAndInit fails */
size_t created();                 /* CreateMutexAndInit successes */
size_t released();                /* ReleaseMutex calls */
bool held(MUTEX_HANDLE handle);   /* held by any thread */
int held_by_this_thread();        /* how many fake mutexes this thread holds */
size_t lock_count(MUTEX_HANDLE handle);
MUTEX_HANDLE make(const std::string &name); /* for the fakes' own locks, e.g. the registry's */
} // namespace mutex

namespace contract {
/* Record a violation when this thread holds any lock (publishing, application callbacks). */
void check_no_lock_held(const std::string &what);
/* Record a violation when this thread holds the registry's dev_mutex. */
void check_dev_mutex_not_held(const std::string &what);
void violation(const std::string &what);
const std::vector<std::string> &violations();
void clear_violations(); /* after a test that provoked one on purpose */
} // namespace contract

/* ------------------------------------------------------------------ semaphores */
namespace sem {
void fail_create(OPERATE_RET code, int nth = 1);
/* The next n WaitSemaphore calls return RC_WAIT_SEM_FAIL with errno EINTR before waiting. */
void interrupt_waits(int n);
/* The next WaitSemaphore call returns code with errno err without waiting. */
void fail_wait(OPERATE_RET code, int err);
size_t live();
size_t waits(); /* WaitSemaphore calls */
} // namespace sem

/* ------------------------------------------------------------------ reference-counted blocks */
namespace rfc {
size_t live();                          /* blocks not yet freed */
bool is_live(const RFC_DATA_S *block);
UINT_T count(const RFC_DATA_S *block);  /* current references; 0 when freed */
std::string text(const RFC_DATA_S *block);  /* payload of the MSG_DATA_S inside */
UINT_T serno(const RFC_DATA_S *block);
} // namespace rfc

/* ------------------------------------------------------------------ MQTT client */
namespace mqtt {
struct DpReport {
    RFC_DATA_S *block;
    std::string text;
    UINT_T serno;
    UINT_T timeout;
    MQ_PUB_ASYNC_IFM_CB cb;
    const void *prv_data;
    UINT_T refs_at_call; /* block's references when the call came, before the client took its own */
    bool completed;
};
const std::vector<DpReport> &dp_reports(); /* accepted and refused calls alike */
/* Result of later mqc_dp_report_async calls (default RC_OK); push_ queues one-shot results first. */
void set_dp_report_result(OPERATE_RET code);
void push_dp_report_result(OPERATE_RET code);
enum class AutoComplete { Off, Inline, OnThread };
/* Off: the test completes. Inline: cb runs inside the call. OnThread: cb runs on another thread after the call. */
void set_auto_complete(AutoComplete mode, OPERATE_RET op_ret = RC_OK);
void join_threads();
/* Run the callback of dp_reports()[index] on this thread with op_ret; the client then drops its reference. */
void complete(size_t index, OPERATE_RET op_ret);
void complete_all(OPERATE_RET op_ret);
size_t pending(); /* accepted, not completed (DP reports and protocol publications) */

struct Prot {
    UINT_T pro;
    std::string text;
    BYTE_T qos;
    UINT_T timeout;
    MQ_PUB_ASYNC_IFM_CB cb;
    void *prv_data;
    bool accepted;
    bool completed;
};
const std::vector<Prot> &prot_reports();
void set_prot_result(OPERATE_RET code);
void push_prot_result(OPERATE_RET code);
void complete_prot(size_t index, OPERATE_RET op_ret);

struct Query {
    RFC_DATA_S *block;
    std::string text;
    UINT_T serno;
    UINT_T refs_at_call;
};
const std::vector<Query> &queries();
void set_query_result(OPERATE_RET code);

void set_conn_stat(BOOL_T up); /* get_mqc_conn_stat; default 1 */
int conn_stat_calls();
} // namespace mqtt

/* ------------------------------------------------------------------ LAN channel */
namespace lan {
struct Report {
    RFC_DATA_S *block;
    std::string text;
    UINT_T serno;
    UINT_T kind;
    OPERATE_RET result;
};
const std::vector<Report> &reports();
/* Result of later lan_dp_sata_report calls (default RC_LAN_NOT_SENT: no client). */
void set_result(OPERATE_RET code);
void push_result(OPERATE_RET code);
size_t held();      /* references taken (result RC_OK) and not yet released */
void release_held(); /* the channel has written them: drop its references */

struct Frame {
    UINT_T type;
    UINT_T flag;
    std::string data;
    UINT_T len;
};
const std::vector<Frame> &frames();
void set_frame_result(OPERATE_RET code);
} // namespace lan

/* ------------------------------------------------------------------ gateway registry */
namespace registry {
/* Schema and initial state of one DP; chain the setters. Every DP starts at pv_stat 0. */
struct DpSpec {
    DP_DESC_IF_S desc{};
    DP_PROP_VALUE_U prop{};
    DP_REPT_CNTL_S rept{};
    std::vector<std::string> enum_names;
    bool str_buffer = true; /* false: a string DP whose value pointer stays NULL */

    DpSpec &mode(DP_MODE_E v) { desc.mode = v; return *this; }
    DpSpec &passive(DP_PSV_E v) { desc.passive = v; return *this; }
    DpSpec &trig(DP_TRIG_T_E v) { desc.trig_t = v; return *this; }
    DpSpec &stat(DP_STAT_TP_T v) { desc.stat = v; return *this; }
    DpSpec &prop_tp(DP_PROP_TP_E v) { desc.prop_tp = v; return *this; }
    DpSpec &flow(USHORT_T cir_time, USHORT_T limit) { rept.cir_time = cir_time; rept.cir_rept_item_lmt = limit; return *this; }
    DpSpec &no_str_buffer() { str_buffer = false; return *this; }
};
DpSpec dp_bool(BYTE_T id);
DpSpec dp_value(BYTE_T id, INT_T min, INT_T max);
DpSpec dp_str(BYTE_T id, INT_T max_len);
DpSpec dp_enum(BYTE_T id, std::vector<std::string> names);
DpSpec dp_bitmap(BYTE_T id, UINT_T max_len);
DpSpec dp_raw(BYTE_T id);
DpSpec dp_file(BYTE_T id);

/*
 * Make the gateway record with id gw_id (its dev_mutex, empty callbacks).
 * With own_node, the gateway's own device node (bound, with dps) heads the
 * list and get_gw_dev_cntl returns it; otherwise get_gw_dev_cntl returns NULL.
 * The own node starts as the real registry starts it: online, reported and
 * never timing out (hb_timeout_time 0xFFFFFFFF), so presence batches and
 * heartbeat passes leave it alone.
 */
DEV_CNTL_N_S *set_gateway(const std::string &gw_id, const std::vector<DpSpec> &dps = {}, bool own_node = true);
/*
 * Give the gateway's own node the presence state a sub-device starts with
 * (offline, pending, no heartbeat time-out): for a test of what the module
 * does with the own node when it finds it in that state. Returns the node.
 */
DEV_CNTL_N_S *gateway_node_as_sub_device();
/* Append a sub-device (grp and scene tables allocated). */
DEV_CNTL_N_S *add_device(const std::string &id, const std::vector<DpSpec> &dps, bool bind = true);
/* Append bound sub-devices without DPs, e.g. the members a group or scene command names. */
void add_devices(const std::vector<std::string> &ids);
DEV_CNTL_N_S *device(const std::string &id);
DP_CNTL_S *dp(const std::string &dev_id, BYTE_T dpid);
GW_CNTL_S *gw();

/* Default GW_NW_LAN, as the real registry starts before the MQTT client connects. */
void set_nw_status(GW_BASE_NW_STAT_T status);
void push_nw_status(GW_BASE_NW_STAT_T status); /* one-shot answers of the next calls, before the default */
int nw_status_calls();
int get_dev_cntl_calls();
/*
 * Run hook once, at the start of the next get_dev_cntl call (before that
 * lookup takes dev_mutex, with the id looked up): a test's way into the
 * window between two steps of the module. Cleared before it runs.
 */
void on_next_lookup(std::function<void(const CHAR_T *id)> hook);

struct GrpUpdate {
    GRP_ACTION_E action;
    std::string dev_id;
    std::string grp_id;
};
struct SceneUpdate {
    SCE_ACTION_E action;
    std::string dev_id;
    std::string grp_id;
    std::string sce_id;
};
/*
 * Every dev_update_grp_info and dev_update_scene_info call is recorded.
 * Each answers as the real registry does: RC_BAD_PARAM for an unknown
 * action or an id of the wrong length, RC_DEV_NOT_FOUND for a device the
 * registry does not hold, RC_MEMBERSHIP_FULL for an addition to a full
 * table (GRP_SCENE_MAX members), otherwise RC_OK with the device's table
 * in attr.grp or attr.scene updated.
 */
const std::vector<GrpUpdate> &grp_updates();
const std::vector<SceneUpdate> &scene_updates();
/* One-shot results of the next updates, in order: each answers in place of the registry, which changes nothing. */
void push_grp_result(OPERATE_RET code);
void push_scene_result(OPERATE_RET code);
} // namespace registry

} // namespace fake

#endif /* SF_TEST_FAKES_H */
