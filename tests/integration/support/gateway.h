/*
 * The gateway of an integration test: the registry loaded from a
 * generated gateway description, the smart frame started on the POSIX
 * runtime, and the application's callbacks recorded.
 */
#ifndef IT_GATEWAY_H
#define IT_GATEWAY_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "cloud_defs/kelo_cloud_types.h"

namespace it {

constexpr char GW_ID[] = "gwit0001";
constexpr char LOCAL_KEY[] = "lan-key-for-tests-0001";

/* A sub-device: DPs 1..bool_dps are booleans, the next value_dps integers 0..100000. */
struct DeviceShape {
    std::string id;
    int bool_dps = 1;
    int value_dps = 1;
};

/*
 * Load the registry (gateway GW_ID, whose own device has DP 1 boolean and
 * DP 2 integer, plus subs, all bound, no flow-control limit) and start the
 * smart frame. Once per process.
 */
bool start_gateway(const std::vector<DeviceShape> &subs, std::string *why);

/* Stop the dispatch thread (after the channels). */
void stop_gateway();

/* pv_stat of one DP, read under the registry's lock; -1 when there is no such DP. */
int pv_stat(const char *dev_id, int dpid);

/* An object DP command as the application received it. */
struct ObjCmd {
    int cmd_tp = -1;
    int dtt_tp = -1;
    std::string cid; /* "" for the gateway */
    struct Dp {
        int dpid;
        int type;
        long long number; /* bool, value, enum, bitmap */
        std::string text; /* string DPs */
    };
    std::vector<Dp> dps;
};

/* Wait until pred holds over the recorded commands. */
bool wait_obj_cmds(const std::function<bool(const std::vector<ObjCmd> &)> &pred, std::chrono::milliseconds timeout);
std::vector<ObjCmd> obj_cmds();

/* Group, scene and query callbacks as the application received them, one text each. */
std::vector<std::string> app_calls();
bool wait_app_calls(size_t count, std::chrono::milliseconds timeout);

/*
 * What the query callback does besides recording: by default nothing. The
 * hook runs on the thread that called sf_respone_obj_dp_query.
 */
void set_query_hook(std::function<void(const std::string &cid)> hook);

/*
 * What the DP command callback does before recording: by default nothing.
 * The hook runs on the dispatch thread.
 */
void set_obj_cmd_hook(std::function<void(const ObjCmd &cmd)> hook);

/* Poll cond every 20 ms until it holds or timeout passes. */
bool eventually(const std::function<bool()> &cond, std::chrono::milliseconds timeout);

} // namespace it

#endif /* IT_GATEWAY_H */
