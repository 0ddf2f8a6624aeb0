/*
 * The one statement of what a DP accepts as a value, by its type: a bool,
 * an integer within min..max on the step from min, a string of at most
 * max_len bytes, one of the enum's names, a bitmap within its bits, base64
 * text for a raw DP; never a string holding a NUL, which no reader after
 * the edge would get whole. The gateway's command edge (gateway/edge) and the
 * console's `set` (apps/common/schema.cpp) both ask it, so they cannot
 * disagree; each words the verdict for its own readers.
 *
 * It works on the registry's records (DP_DESC_IF_S and the limits of
 * DP_PROP_VALUE_U, enum names in prop_enum.pp_enum); the console fills the
 * same records from the description's model. The DP's mode is not its
 * business: whether a DP may be commanded at all is the caller's rule.
 * Portable: cJSON and the base64 service only.
 */
#ifndef GATEWAY_RULES_DP_RULES_H
#define GATEWAY_RULES_DP_RULES_H

#include <cjson/cJSON.h>

#include <cstddef>

#include "cloud_defs/kelo_cloud_com_defs.h"

namespace gw_rules {

enum class Verdict {
    Fits,
    BadType,     /* the JSON type does not fit, or a fraction for an integer DP */
    OutOfRange,  /* an integer outside the range (range_of says which) */
    OffStep,     /* a value DP's integer not on step counted from min */
    UnknownEnum, /* a string that is none of the enum's names */
    TooLong,     /* a string DP's text longer than max_len bytes */
    BadBase64,   /* a raw DP's text that is not well-formed base64 */
    NotValued,   /* a file DP, or a property type the rules do not know: no value fits */
    NulInString, /* a string that held a NUL, kept whole as a raw node (gateway/edge/wire_nul.h) */
};

/*
 * The integers a value or bitmap DP accepts, lo..hi. A bitmap holds at
 * most 2147483647 whatever its bits: the module hands a command's number
 * over through cJSON's valueint, an int that stops there (KL_OBJ_DP_S's
 * dp_bitmap would get 2147483647 for 2^31..2^32-1).
 */
struct Range {
    long long lo;
    long long hi;
};

/*
 * Whether value fits the DP described by desc and limits. An integral
 * number beyond any range (1e308) is out of range, a fraction a bad type.
 */
Verdict check_value(const DP_DESC_IF_S &desc, const DP_PROP_VALUE_U &limits, const cJSON *value);

/* The range check_value holds an integer of a value or bitmap DP to. */
Range range_of(const DP_DESC_IF_S &desc, const DP_PROP_VALUE_U &limits);

/* The bits a bitmap DP has: max_len when 1..32, else 32. */
unsigned bitmap_bits(const DP_PROP_VALUE_U &limits);

/* A JSON number without fraction, within long long (|n| <= 9e18); *out its value. */
bool integral(const cJSON *value, long long *out);

/* Index of name among the enum's names, or -1 (first match; NULL names skipped). */
int enum_index(const DP_PROP_ENUM_S &names, const char *name);

} // namespace gw_rules

#endif /* GATEWAY_RULES_DP_RULES_H */
