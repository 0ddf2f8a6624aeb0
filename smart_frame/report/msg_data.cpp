/*
 * The unit handed to the MQTT client and the LAN channel: a copy of the
 * payload with a fresh serial number, in a reference-counted block that
 * starts with two references (one for the LAN offer, one for MQTT).
 */
#include <cstring>

#include "../../services/uni_memory.h"
#include "../sf_log.h"
#include "report.h"

namespace {
constexpr UINT_T MSG_HEADER_LEN = sizeof(MSG_DATA_S); /* serno and len */
constexpr UINT_T INITIAL_REFS = 2;
} // namespace

extern "C" OPERATE_RET __sf_mk_rfc_msg_data(const BYTE_T *src, UINT_T src_len, RFC_DATA_S **rfc_da)
{
    /* header, payload and a terminator so text payloads read as C strings */
    MSG_DATA_S *msg_data = static_cast<MSG_DATA_S *>(Malloc(MSG_HEADER_LEN + src_len + 1));
    if (msg_data == nullptr) {
        SF_LOG_ERR("malloc fails :%d", src_len);
        return RC_NO_MEMORY;
    }
    msg_data->serno = sf_get_serial_no();
    msg_data->len = src_len;
    if (src_len != 0) {
        std::memcpy(msg_data->data, src, src_len);
    }
    msg_data->data[src_len] = 0;

    RFC_DATA_S *block = cr_rfc_data(msg_data, src_len + MSG_HEADER_LEN, FALSE, INITIAL_REFS);
    if (block == nullptr) {
        SF_LOG_ERR("cr_rfc_data fails :%d", src_len);
        Free(msg_data);
        return RC_NO_MEMORY;
    }
    *rfc_da = block;
    return RC_OK;
}
