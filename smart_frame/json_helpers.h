/*
 * Small helpers shared by the module's areas: DP object members (named by
 * DP number in decimal text) and texts that may be null in log lines.
 */
#ifndef SF_JSON_HELPERS_H
#define SF_JSON_HELPERS_H

#include <cjson/cJSON.h>

#include <cstdlib>

#include "../cloud_defs/kelo_cloud_types.h"

namespace sf {

/*
 * DP number named by member: atoi of its name, so a name that is not a
 * number is DP 0, which no schema holds. A member without a name (an
 * array element) is DP 0 too.
 */
inline INT_T member_dp_id(const cJSON *member)
{
    const char *name = member->string;
    if (name == nullptr) {
        return 0;
    }
    /* names of one to three digits (every DP number) read directly; atoi's cost is for the rest */
    if (name[0] >= '0' && name[0] <= '9') {
        INT_T id = name[0] - '0';
        for (int i = 1; i < 4; ++i) {
            if (name[i] == '\0') {
                return id;
            }
            if (name[i] < '0' || name[i] > '9') {
                break;
            }
            id = id * 10 + (name[i] - '0');
        }
    }
    return std::atoi(name);
}

/*
 * Add item to object under key; on failure (item NULL, or the key could
 * not be copied) the item is deleted and false returned.
 */
inline bool add_member(cJSON *object, const char *key, cJSON *item)
{
    if (item == nullptr) {
        return false;
    }
    if (!cJSON_AddItemToObject(object, key, item)) {
        cJSON_Delete(item);
        return false;
    }
    return true;
}

/* text for a %s of a log line: a null text reads as the C library prints it */
inline const char *log_text(const char *text)
{
    return text != nullptr ? text : "(null)";
}

} // namespace sf

#endif /* SF_JSON_HELPERS_H */
