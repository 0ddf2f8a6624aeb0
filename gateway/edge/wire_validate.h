/*
 * The edge check of inbound commands, shared by the MQTT client and the
 * LAN channel: a command is held against the DP schemas the registry
 * holds before the smart frame sees it, and refused whole when any part
 * of it does not fit (docs/wire-protocol.md, "Refused commands").
 *
 * Why here and not in the module: the module's decoding is lenient by
 * contract (it coerces a value whatever its JSON type and takes index 0
 * for an unknown enum name). A gateway facing a real cloud must not
 * actuate a device with such a guess, so the channel code that receives
 * the document refuses it and says so on the wire.
 *
 * The check is on by default; a cloud that relies on the lenient decoding
 * turns it off with wire_set_command_checks(FALSE) (sfgw --lenient-commands).
 */
#ifndef GATEWAY_EDGE_WIRE_VALIDATE_H
#define GATEWAY_EDGE_WIRE_VALIDATE_H

#include <cjson/cJSON.h>

#include "cloud_defs/kelo_cloud_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * MQTT protocol number ("pro" on sf/<gw>/up) and LAN frame type of the
 * answer to a refused command.
 */
#define WIRE_PRO_CMD_REFUSED 64

/*
 * Turn the edge check on (TRUE, the default) or off. Off, commands reach
 * the smart frame as they come, after the shape checks the channels always
 * make. Any thread; takes effect for the next command.
 */
void wire_set_command_checks(BOOL_T on);
BOOL_T wire_command_checks(void);

/*
 * The oldest a command carrying "t" (POSIX seconds at issue) may be, in
 * seconds; an older one is refused with the code "expired" whether or not
 * the edge check is on. 0: no limit. Default SF_COMMAND_MAX_AGE_S. Any
 * thread; takes effect for the next command.
 */
void wire_set_command_max_age(UINT_T seconds);
UINT_T wire_command_max_age(void);

/* Commands refused as "expired" since the start (metrics). Any thread. */
uint64_t wire_expired_refusals(void);

#ifdef __cplusplus
} /* extern "C" */

#include <string>

#include "wire_commands.h"

namespace sf_wire {

/* Why a command was refused; what the log line and the error answer say. */
struct Refusal {
    const char *code = "";  /* stable machine-readable reason, e.g. "bad_type" */
    std::string text;       /* for people, names the device and the DP */
    std::string dev_json;   /* the device concerned as a JSON value ("" none) */
    std::string dp;         /* the DP key or number concerned ("" none) */
};

/*
 * Whether doc (a command of kind) fits the schemas of the registry; false
 * with *why. Reads the registry (takes dev_mutex for the DP tables): MUST
 * NOT be called with dev_mutex held. Any thread.
 */
bool validate_command(CmdKind kind, const cJSON *doc, Refusal *why);

/*
 * The edge as the channels use it: when the check is on and doc does not
 * pass, logs one error line "<kind> dropped: <text> [<code>]", sends the
 * refusal answer on the channel tp the command came from, and returns
 * false (the caller deletes doc; nothing reaches the smart frame). True
 * when the check is off or doc passes.
 */
bool admit_command(CmdKind kind, const cJSON *doc, DP_CMD_TYPE_E tp);

/* The refusal answer's "data" object, as sent on both channels. */
std::string refusal_text(CmdKind kind, const cJSON *doc, const Refusal &why);

} // namespace sf_wire

#endif /* __cplusplus */

#endif /* GATEWAY_EDGE_WIRE_VALIDATE_H */
