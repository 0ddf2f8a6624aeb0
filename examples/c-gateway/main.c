/*
 * A minimal gateway in plain C11 on the smart frame and its POSIX backend:
 * it loads a gateway description, connects to the broker, reports the
 * lamp's values, and applies each DP command it receives by reporting the
 * commanded value back (as a real device would once it has switched).
 *
 *   c_gateway DESCRIPTION [--host H] [--port P] [--commands N]
 *
 * --commands N: stop by itself after N commands (0, the default: run until
 * SIGINT or SIGTERM). Exit status 0 after a clean shutdown, 1 when it could
 * not start, 2 on a bad command line.
 */
#define _POSIX_C_SOURCE 200809L /* nanosleep, sigaction */

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "gateway/registry/gw_registry.h"
#include "port/posix/mqtt/mqtt_config.h"
#include "port/posix/runtime/posix_runtime.h"
#include "smart_frame/smart_frame.h"

#define PENDING_MAX 16
#define REPORT_LEN  128
#define CONNECT_TIMEOUT_S 30

/* Reports waiting for the main thread. The callbacks run on the dispatch
 * thread and only queue: the main thread sends. */
static struct {
    pthread_mutex_t lock;
    char            cid[PENDING_MAX][DEV_ID_LEN + 1];
    char            dps[PENDING_MAX][REPORT_LEN];
    int             count;
    int             commands;
} g_pending = {PTHREAD_MUTEX_INITIALIZER, {{0}}, {{0}}, 0, 0};

static volatile sig_atomic_t g_stop;

static void on_signal(int sig)
{
    (void)sig;
    g_stop = 1;
}

static void queue_report(const char *cid, const char *dps)
{
    pthread_mutex_lock(&g_pending.lock);
    if (g_pending.count < PENDING_MAX) {
        snprintf(g_pending.cid[g_pending.count], sizeof g_pending.cid[0], "%s", cid);
        snprintf(g_pending.dps[g_pending.count], sizeof g_pending.dps[0], "%s", dps);
        g_pending.count++;
    }
    g_pending.commands++;
    pthread_mutex_unlock(&g_pending.lock);
}

/* Dispatch thread; the record is valid only during the call: copy it. */
static void on_obj_cmd(const KL_RECV_OBJ_DP_S *cmd)
{
    const char *cid = cmd->cid != NULL ? cmd->cid : "";
    char dps[REPORT_LEN] = "{";
    size_t used = 1;
    for (UINT_T i = 0; i < cmd->dps_cnt; ++i) {
        const KL_OBJ_DP_S *dp = &cmd->dps[i];
        char value[32];
        switch (dp->type) {
        case PROP_BOOL:
            snprintf(value, sizeof value, "%s", dp->value.dp_bool ? "true" : "false");
            break;
        case PROP_VALUE:
            snprintf(value, sizeof value, "%d", (int)dp->value.dp_value);
            break;
        default:
            continue; /* this lamp has only bool and value DPs */
        }
        printf("command %s dp %u = %s\n", cid[0] ? cid : "(gateway)", (unsigned)dp->dpid, value);
        used += (size_t)snprintf(dps + used, sizeof dps - used, "%s\"%u\":%s", used > 1 ? "," : "",
                                 (unsigned)dp->dpid, value);
        if (used >= sizeof dps) {
            return;
        }
    }
    fflush(stdout);
    if (used + 2 <= sizeof dps) {
        strcat(dps, "}");
        queue_report(cid, dps);
    }
}

static void on_query(const KL_DP_QUERY_S *query)
{
    (void)query; /* the smart frame answers from the stored values */
}

/* Called with the presence lock held: must not block. */
static void on_probe(const CHAR_T *dev_id)
{
    (void)dev_id;
}

static int send_pending(void)
{
    pthread_mutex_lock(&g_pending.lock);
    for (int i = 0; i < g_pending.count; ++i) {
        const char *cid = g_pending.cid[i][0] ? g_pending.cid[i] : NULL;
        OPERATE_RET rc = sf_obj_dp_report_async(cid, g_pending.dps[i], FALSE);
        printf("report %s %s: %d\n", cid ? cid : "(gateway)", g_pending.dps[i], (int)rc);
    }
    g_pending.count = 0;
    const int commands = g_pending.commands;
    pthread_mutex_unlock(&g_pending.lock);
    fflush(stdout);
    return commands;
}

static int wait_for_broker(void)
{
    const time_t deadline = time(NULL) + CONNECT_TIMEOUT_S;
    while (get_gw_nw_status() != GW_NW_CLOUD) {
        if (g_stop || time(NULL) >= deadline) {
            return 0;
        }
        const struct timespec tick = {0, 100 * 1000 * 1000};
        nanosleep(&tick, NULL);
    }
    return 1;
}

int main(int argc, char **argv)
{
    const char *file = NULL;
    const char *host = "127.0.0.1";
    int port = 1883;
    int max_commands = 0;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--host") == 0 && i + 1 < argc) {
            host = argv[++i];
        } else if (strcmp(argv[i], "--port") == 0 && i + 1 < argc) {
            port = atoi(argv[++i]);
        } else if (strcmp(argv[i], "--commands") == 0 && i + 1 < argc) {
            max_commands = atoi(argv[++i]);
        } else if (file == NULL && argv[i][0] != '-') {
            file = argv[i];
        } else {
            file = NULL;
            break;
        }
    }
    if (file == NULL) {
        fprintf(stderr, "usage: c_gateway DESCRIPTION [--host H] [--port P] [--commands N]\n");
        return 2;
    }

    /* Start-up: registry, application callbacks, smart frame, heartbeat
     * supervision, then the channel. */
    char why[256];
    if (gw_registry_load_file(file, why, sizeof why) != RC_OK) {
        fprintf(stderr, "c_gateway: %s\n", why);
        return 1;
    }
    GW_CNTL_S *gw = get_gw_cntl();
    gw->cbs.dev_obj_dp_cb = on_obj_cmd;
    gw->cbs.dev_dp_query_cb = on_query;

    int status = 1;
    int frame_started = 0;
    int mqtt_started = 0;
    if (smart_frame_init() != RC_OK || sf_sys_mag_hb_init(on_probe) != RC_OK) {
        fprintf(stderr, "c_gateway: the smart frame did not start\n");
        goto shutdown;
    }
    frame_started = 1;

    MQC_CONFIG_S cfg;
    memset(&cfg, 0, sizeof cfg);
    cfg.host = host;
    cfg.port = port;
    cfg.reconnect_min_s = 1;
    cfg.reconnect_max_s = 2;
    if (mqc_start(&cfg) != RC_OK) {
        fprintf(stderr, "c_gateway: the MQTT client did not start\n");
        goto shutdown;
    }
    mqtt_started = 1;

    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    if (!wait_for_broker()) {
        fprintf(stderr, "c_gateway: no broker at %s:%d\n", host, port);
        goto shutdown;
    }

    OPERATE_RET rc = sf_obj_dp_report_async("lamp01", "{\"1\":false,\"2\":40}", TRUE);
    printf("report lamp01 initial: %d\nready\n", (int)rc);
    fflush(stdout);

    while (!g_stop) {
        if (send_pending() >= max_commands && max_commands > 0) {
            break;
        }
        const struct timespec tick = {0, 50 * 1000 * 1000};
        nanosleep(&tick, NULL);
    }
    status = 0;

shutdown:
    /* Shutdown in the reverse order: the MQTT client completes what is
     * pending, the dispatch thread finishes its queue, and only then the
     * registry frees the devices the handlers use. */
    if (mqtt_started) {
        mqc_stop();
    }
    if (frame_started) {
        cmmod_stop();
    }
    gw->cbs.dev_obj_dp_cb = NULL;
    gw->cbs.dev_dp_query_cb = NULL;
    gw_registry_unload();
    if (status == 0) {
        printf("stopped\n");
    }
    return status;
}
