/*
 * The DP names of a publish-state text, read without building a cJSON
 * tree. A report's completion only needs the device and the DP numbers of
 * the text it published, and that text is the module's own envelope,
 * printed without blanks or escapes; parsing it with cJSON only to walk
 * the names cost a tree of allocations per report.
 *
 * The scan accepts a strict subset of JSON: objects, strings without
 * escapes or control characters, numbers in JSON's own grammar, true,
 * false and null, with no blank between tokens and nothing after the
 * text. Everything in that subset is parsed by cJSON to the same members,
 * so a text the scan accepts gives exactly the cJSON walk's result; a text
 * it does not accept (anything else, or more members than it has room for)
 * is left to cJSON by the caller, so every text behaves as before.
 *
 * The result lives on the caller's stack (about 1.8 KiB): member nodes
 * whose `string` and `next` are those of the cJSON members they stand for.
 */
#ifndef SF_REPORT_DP_SCAN_H
#define SF_REPORT_DP_SCAN_H

#include <cjson/cJSON.h>

#include <cstddef>

#include "../../cloud_defs/kelo_cloud_types.h"
#include "../sf_tunables.h"

namespace sf {

constexpr size_t SCAN_MAX_MEMBERS = SF_SCAN_MAX_MEMBERS; /* DP members of one text */
constexpr size_t SCAN_KEY_BYTES = SF_SCAN_KEY_BYTES;    /* their names, terminators included */
constexpr size_t SCAN_CID_BYTES = SF_SCAN_CID_BYTES;    /* the device id and its terminator */

struct ScannedDps {
    cJSON members[SCAN_MAX_MEMBERS]; /* only string and next are set */
    char keys[SCAN_KEY_BYTES];
    size_t count;
    bool has_cid; /* a "cid" member whose value is a string */
    char cid[SCAN_CID_BYTES];

    /* the first DP member, as dps->child of the parsed text; NULL when there is none */
    const cJSON *first() const { return count != 0 ? &members[0] : nullptr; }
};

/* A bare DP object, e.g. {"1":true,"3":"abc"}. False: not in the subset, ask cJSON. */
bool scan_dp_object(const CHAR_T *text, ScannedDps *out);

/*
 * A report envelope: the first "dps" member (an object) and the first
 * "cid" member. False: not in the subset, no object under the first "dps",
 * or no "dps" at all; ask cJSON.
 */
bool scan_envelope(const CHAR_T *text, ScannedDps *out);

} // namespace sf

#endif /* SF_REPORT_DP_SCAN_H */
