/*
 * Raw DP reports: the bytes go out base64-encoded as a one-member DP object
 * {"<dpid>":"<base64>"} through the synchronous report path, as a raw DP
 * (filter 1), always sent, LAN included. Blocks the caller until the MQTT
 * client completes; MUST NOT be called from the MQTT client's thread.
 */
#include <climits>
#include <cstdio>
#include <cstring>

#include "../../services/kelo_base64.h"
#include "../../services/uni_memory.h"
#include "../sf_log.h"
#include "../sf_raii.h"
#include "report.h"
#include "../sf_tunables.h"

namespace {

constexpr UINT_T RAW_TEXT_SLACK = SF_RAW_TEXT_SLACK;
constexpr size_t ENCODING_OFFSET = SF_RAW_ENCODING_OFFSET;
/* the largest len whose buffer size still fits in 32 bits */
constexpr UINT_T RAW_LEN_MAX = (UINT_MAX - RAW_TEXT_SLACK) / 4 * 3;

UINT_T base64_len(UINT_T len)
{
    return len / 3 * 4 + (len % 3 != 0 ? 4 : 0);
}

} // namespace

extern "C" OPERATE_RET sf_raw_dp_report_sync(const CHAR_T *id, BYTE_T dpid, const BYTE_T *data, UINT_T len,
                                             UINT_T timeout, BOOL_T enable_auto_retrans)
{
    return sf_raw_dp_report_sync_with_time(id, dpid, data, len, timeout, enable_auto_retrans, nullptr);
}

/*
 * Bytes that are missing (data NULL with len not 0) or too many to size a
 * buffer for are refused with RC_BAD_PARAM before anything is allocated.
 * The head is moved in front of the encoding with memmove rather than
 * formatted over it, so no text is read while it is being overwritten.
 */
extern "C" OPERATE_RET sf_raw_dp_report_sync_with_time(const CHAR_T *id, BYTE_T dpid, const BYTE_T *data,
                                                       UINT_T len, UINT_T timeout, BOOL_T enable_auto_retrans,
                                                       const CHAR_T *time_str)
{
    if ((data == nullptr && len != 0) || len > RAW_LEN_MAX) {
        SF_LOG_ERR("Invalid Param");
        return RC_BAD_PARAM;
    }
    const UINT_T encoded_len = base64_len(len);
    const UINT_T size = encoded_len + RAW_TEXT_SLACK;
    sf::TextPtr buf(static_cast<CHAR_T *>(Malloc(size)));
    if (buf == nullptr) {
        SF_LOG_ERR("Malloc Fails %d", len);
        return RC_NO_MEMORY;
    }
    CHAR_T *text = buf.get();
    kelo_base64_encode(data, text + ENCODING_OFFSET, len);

    char head[ENCODING_OFFSET];
    const int head_len = std::snprintf(head, sizeof head, "{\"%d\":\"", dpid);
    std::memmove(text + head_len, text + ENCODING_OFFSET, encoded_len);
    std::memcpy(text, head, static_cast<size_t>(head_len));
    std::memcpy(text + head_len + encoded_len, "\"}", 3);

    SF_LOG_PROG("Send Raw: %s retrans:%d", text, enable_auto_retrans);
    return __sf_dp_report_sync(id, TRUE, SF_FILTER_RAW, text, time_str, TRUE, timeout, enable_auto_retrans);
}
