/*
 * A cJSON node's type as the classic number that the module compares,
 * stores and logs: false 0, true 1, NULL 2, number 3, string 4, array 5,
 * object 6. The installed cJSON encodes types as bit flags; this is the one
 * place that translates.
 */
#ifndef SF_JSON_TYPE_H
#define SF_JSON_TYPE_H

#include <cjson/cJSON.h>

#include "../cloud_defs/kelo_cloud_types.h"

namespace sf {

constexpr INT_T JSON_FALSE = 0;
constexpr INT_T JSON_TRUE = 1;
constexpr INT_T JSON_NULL = 2;
constexpr INT_T JSON_NUMBER = 3;
constexpr INT_T JSON_STRING = 4;
constexpr INT_T JSON_ARRAY = 5;
constexpr INT_T JSON_OBJECT = 6;
constexpr INT_T JSON_RAW = 7; /* never produced by the parser */

/* Classic type number of node; -1 for NULL. */
INT_T json_type(const cJSON *node);

} // namespace sf

#endif /* SF_JSON_TYPE_H */
