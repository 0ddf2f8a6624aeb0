/*
 * DP report texts composed from typed records: the DP object {"<id>":..}
 * and, when a record carries a time stamp, the time object {"<id>":<t>}
 * with the same DP numbers. Plain formatted printing into buffers sized
 * beforehand by a fixed allowance per record; no cJSON.
 *
 * *data and *time are written only on success: a failed composition
 * frees what it allocated and leaves the caller's pointers as they were.
 *
 * Any thread; takes no lock and looks the schema up once per pass, so it
 * relies on the device's schema not changing while it runs.
 */
#include <cstdio>
#include <cstring>

#include "../../services/uni_memory.h"
#include "../sf_log.h"
#include "../sf_raii.h"
#include "../smart_frame.h"
#include "../sf_tunables.h"

namespace {

/* Allowance per record: the longest fragment of its type plus room for the braces. */
constexpr size_t NUMBER_ALLOWANCE = SF_COMPOSE_NUMBER_BYTES;
constexpr size_t TEXT_ALLOWANCE = SF_COMPOSE_TEXT_BYTES; /* added to the text length */
constexpr size_t TIME_ALLOWANCE = SF_COMPOSE_TIME_BYTES;

const char *enum_text(const DP_CNTL_S *dp, UINT_T index)
{
    const char *name = dp->prop.prop_enum.pp_enum[index];
    return name != nullptr ? name : "";
}

size_t data_allowance(const KL_OBJ_DP_S &rec, const DP_CNTL_S *dp)
{
    switch (rec.type) {
    case PROP_STR:
        return std::strlen(rec.value.dp_str) + TEXT_ALLOWANCE;
    case PROP_ENUM:
        return std::strlen(enum_text(dp, rec.value.dp_enum)) + TEXT_ALLOWANCE;
    default:
        return NUMBER_ALLOWANCE;
    }
}

/* Append one record's fragment at *pos of buf (size bytes); advances *pos. */
void append_data(char *buf, size_t size, size_t *pos, const KL_OBJ_DP_S &rec, const DP_CNTL_S *dp)
{
    const int id = rec.dpid;
    int n = 0;
    switch (rec.type) {
    case PROP_BOOL:
        n = rec.value.dp_bool == TRUE ? std::snprintf(buf + *pos, size - *pos, "\"%d\":true,", id)
                                      : std::snprintf(buf + *pos, size - *pos, "\"%d\":false,", id);
        break;
    case PROP_VALUE:
        n = std::snprintf(buf + *pos, size - *pos, "\"%d\":%d,", id, rec.value.dp_value);
        break;
    case PROP_BITMAP:
        /* printed signed, as the cloud has always received bitmaps: 2^31 reads -2147483648 */
        n = std::snprintf(buf + *pos, size - *pos, "\"%d\":%d,", id, static_cast<INT_T>(rec.value.dp_bitmap));
        break;
    case PROP_STR:
        /* copied as given, unescaped: the caller answers for its text */
        n = std::snprintf(buf + *pos, size - *pos, "\"%d\":\"%s\",", id, rec.value.dp_str);
        break;
    case PROP_ENUM:
        n = std::snprintf(buf + *pos, size - *pos, "\"%d\":\"%s\",", id, enum_text(dp, rec.value.dp_enum));
        break;
    default:
        break;
    }
    *pos += n > 0 ? static_cast<size_t>(n) : 0;
}

void append_time(char *buf, size_t size, size_t *pos, const KL_OBJ_DP_S &rec)
{
    const int n = std::snprintf(buf + *pos, size - *pos, "\"%d\":%u,", rec.dpid, rec.time_stamp);
    *pos += n > 0 ? static_cast<size_t>(n) : 0;
}

/*
 * The schema entry of the record's DP into *dp: RC_DP_NOT_FOUND when the
 * device has no such DP, RC_DP_TYPE_MISMATCH when the record claims
 * another property type. Both passes check with it; only the first logs.
 */
OPERATE_RET schema_of(const CHAR_T *dev_id, const KL_OBJ_DP_S &rec, const DP_CNTL_S **dp)
{
    *dp = get_dev_dp_cntl(dev_id, rec.dpid);
    if (*dp == nullptr) {
        return RC_DP_NOT_FOUND;
    }
    return rec.type == (*dp)->dp_desc.prop_tp ? RC_OK : RC_DP_TYPE_MISMATCH;
}

/* Turn the final comma into the closing brace and terminate the text. */
void close_object(char *buf, size_t pos)
{
    buf[pos - 1] = '}';
    buf[pos] = '\0';
}

} // namespace

extern "C" OPERATE_RET sf_dp_data_composition(const CHAR_T *dev_id, const KL_OBJ_DP_S *dp_data, const UINT_T cnt,
                                              CHAR_T **data, CHAR_T **time)
{
    if (dp_data == nullptr || data == nullptr || cnt == 0) {
        SF_LOG_ERR("input is invalid");
        return RC_BAD_PARAM;
    }

    /*
     * Sizing pass; every check happens before anything is allocated.
     * Lengths are counted wide, so a long composition gets a buffer that
     * fits instead of a wrapped, too short one.
     */
    size_t data_len = 0;
    size_t time_len = 0;
    for (UINT_T i = 0; i < cnt; ++i) {
        const KL_OBJ_DP_S &rec = dp_data[i];
        const DP_CNTL_S *dp = nullptr;
        const OPERATE_RET rc = schema_of(dev_id, rec, &dp);
        if (rc == RC_DP_NOT_FOUND) {
            SF_LOG_ERR("devid:%s dparr[%d]:%d not find", dev_id, i, rec.dpid);
            return rc;
        }
        SF_LOG_PROG("step");
        if (rc == RC_DP_TYPE_MISMATCH) {
            SF_LOG_ERR("dparr[%d] type not match.%d %d", i, rec.type, dp->dp_desc.prop_tp);
            return RC_DP_TYPE_MISMATCH;
        }
        SF_LOG_PROG("step");
        if (rec.type > PROP_BITMAP) {
            SF_LOG_ERR("dparr[%d] type invalid %d", i, rec.type);
            return RC_FAIL;
        }
        if (rec.type == PROP_ENUM && rec.value.dp_enum >= static_cast<UINT_T>(dp->prop.prop_enum.cnt)) {
            SF_LOG_ERR("dparr[%d] enum value not match.%d %d", i, rec.value.dp_enum, dp->prop.prop_enum.cnt);
            return RC_DP_VALUE_INVALID;
        }
        if (rec.type == PROP_STR && rec.value.dp_str == nullptr) {
            SF_LOG_ERR("dparr[%d] str value is null", i);
            return RC_BAD_PARAM;
        }
        data_len += data_allowance(rec, dp);
        if (rec.time_stamp != 0) {
            time_len += TIME_ALLOWANCE;
        }
        SF_LOG_PROG("step");
    }
    SF_LOG_PROG("step");

    sf::TextPtr data_buf(static_cast<CHAR_T *>(Malloc(data_len)));
    if (!data_buf) {
        SF_LOG_ERR("malloc fail %d", static_cast<INT_T>(data_len));
        return RC_NO_MEMORY;
    }
    SF_LOG_PROG("step");
    sf::TextPtr time_buf;
    if (time != nullptr && time_len != 0) {
        time_buf.reset(static_cast<CHAR_T *>(Malloc(time_len)));
        if (!time_buf) {
            SF_LOG_ERR("malloc fail %d", static_cast<INT_T>(time_len));
            return RC_NO_MEMORY;
        }
        SF_LOG_PROG("step");
    }
    data_buf.get()[0] = '{';
    if (time_buf) {
        time_buf.get()[0] = '{';
    }
    SF_LOG_PROG("step");

    /* writing pass: a schema that changed since the sizing pass fails the whole composition */
    size_t data_pos = 1;
    size_t time_pos = 1;
    for (UINT_T i = 0; i < cnt; ++i) {
        const KL_OBJ_DP_S &rec = dp_data[i];
        const DP_CNTL_S *dp = nullptr;
        const OPERATE_RET rc = schema_of(dev_id, rec, &dp);
        if (rc != RC_OK) {
            return rc;
        }
        append_data(data_buf.get(), data_len, &data_pos, rec, dp);
        if (time_buf && rec.time_stamp != 0) {
            append_time(time_buf.get(), time_len, &time_pos, rec);
        }
    }

    close_object(data_buf.get(), data_pos);
    SF_LOG_PROG("dp compo:%s", data_buf.get());
    if (time_buf) {
        close_object(time_buf.get(), time_pos);
        SF_LOG_PROG("dp time:%s", time_buf.get());
        *time = time_buf.release();
    }
    *data = data_buf.release();
    return RC_OK;
}
