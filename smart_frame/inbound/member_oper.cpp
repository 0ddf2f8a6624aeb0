/*
 * Reading group and scene commands, and the pieces of their answers.
 */
#include "member_oper.h"

#include <cstdarg>
#include <cstdio>

#include "../json_type.h"
#include "../sf_log.h"

namespace sf {

namespace {

/* The text of key in cmd when it is a JSON string, else NULL. */
const CHAR_T *string_item(const cJSON *cmd, const char *key)
{
    const cJSON *item = cJSON_GetObjectItem(cmd, key);
    return json_type(item) == JSON_STRING ? item->valuestring : nullptr;
}

} // namespace

bool read_member_oper_cmd(const cJSON *cmd, bool want_sid, MemberOperCmd *out)
{
    const cJSON *action = cJSON_GetObjectItem(cmd, "action");
    const cJSON *cids = cJSON_GetObjectItem(cmd, "cids");
    const CHAR_T *sid = want_sid ? string_item(cmd, "sid") : nullptr;
    const CHAR_T *gid = string_item(cmd, "gid");
    if (json_type(action) != JSON_NUMBER || json_type(cids) != JSON_ARRAY || gid == nullptr ||
        (want_sid && sid == nullptr)) {
        return false;
    }

    int dev_num = 0;
    const cJSON *id = nullptr;
    cJSON_ArrayForEach(id, cids) {
        if (json_type(id) != JSON_STRING) {
            return false;
        }
        ++dev_num;
    }
    if (dev_num < 1) {
        return false;
    }
    if (dev_num > MEMBER_OPER_MAX_IDS) {
        SF_LOG_DETAIL("cids num:%d,max:%d", dev_num, MEMBER_OPER_MAX_IDS);
        return false;
    }

    out->remove = action->valueint != 0;
    out->cids = cids;
    out->dev_num = dev_num;
    out->gid = gid;
    out->sid = sid;
    return true;
}

void TextOut::add(const CHAR_T *fmt, ...)
{
    /* once the buffer is full, keep counting without writing */
    const bool room = buf_ != nullptr && len_ < size_;
    va_list args;
    va_start(args, fmt);
    const int n = std::vsnprintf(room ? buf_ + len_ : nullptr, room ? size_ - len_ : 0, fmt, args);
    va_end(args);
    if (n > 0) {
        len_ += static_cast<size_t>(n);
    }
}

void add_rets(TextOut &out, const OPERATE_RET *rets, int n)
{
    out.add("\"rets\":[");
    for (int i = 0; i < n; ++i) {
        out.add(i == n - 1 ? "%d]," : "%d,", static_cast<int>(rets[i]));
    }
}

} // namespace sf
