/*
 * Pieces shared by the rules of the edge check (wire_validate.cpp,
 * wire_check_dp.cpp, wire_check_members.cpp). Internal to the check.
 */
#ifndef GATEWAY_EDGE_WIRE_CHECK_H
#define GATEWAY_EDGE_WIRE_CHECK_H

#include <cjson/cJSON.h>

#include <string>

#include "cloud_defs/gw_intf.h"
#include "gateway/rules/dp_rules.h"
#include "services/uni_mutex.h"
#include "wire_validate.h"

namespace sf_wire {
namespace check {

/* Fill *why and return false, so a rule can end with "return fail(...)". */
bool fail(Refusal *why, const char *code, std::string text, std::string dev_json = "", std::string dp = "");

/* item as unformatted JSON ("null" for NULL). */
std::string printed(const cJSON *item);

/* "a string", "a number", ... for the reasons. */
const char *type_name(const cJSON *item);

/* Why a string holding a NUL (a raw node, wire_nul.h) is refused, ending with the string as sent. */
std::string nul_reason(const cJSON *raw);

/* The first string value of doc, outside its "dps", that held a NUL (wire_nul.h); *key its member. */
const cJSON *nul_string_outside_dps(const cJSON *doc, const char **key);

/* A JSON number without fraction, within long long; *out its value. */
using gw_rules::integral;

/*
 * The node a device id names, resolved as the module resolves it (the
 * gateway's id in any case), or NULL. Takes dev_mutex: not under TableLock.
 */
DEV_CNTL_N_S *device_named(const char *id);

/* dev_mutex held for the DP table reads of one check; nothing else is called under it. */
class TableLock {
public:
    TableLock() { MutexLock(get_gw_cntl()->dev_mutex); }
    ~TableLock() { MutexUnLock(get_gw_cntl()->dev_mutex); }
    TableLock(const TableLock &) = delete;
    TableLock &operator=(const TableLock &) = delete;
};

/* The rules of each kind; doc is a JSON object. */
bool dp_command(const cJSON *doc, Refusal *why);
bool member_command(const cJSON *doc, bool scene, Refusal *why);
bool query(const cJSON *doc, Refusal *why);

} // namespace check
} // namespace sf_wire

#endif /* GATEWAY_EDGE_WIRE_CHECK_H */
