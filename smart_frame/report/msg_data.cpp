/*
 * The unit handed to the MQTT client and the LAN channel: a copy of the
 * payload with a fresh serial number, in a reference-counted block that
 * starts with two references (one for the LAN offer, one for MQTT).
 */
#include <cstring>

#include "../../services/uni_memory.h"
#include "../sf_log.h"
#include "msg_block.h"
#include "report.h"

namespace {
constexpr UINT_T MSG_HEADER_LEN = sizeof(MSG_DATA_S); /* serno and len */
constexpr UINT_T INITIAL_REFS = 2;
} // namespace

namespace sf {

MSG_DATA_S *alloc_msg_data(UINT_T len)
{
    /* header, payload and a terminator so text payloads read as C strings */
    return static_cast<MSG_DATA_S *>(Malloc(MSG_HEADER_LEN + len + 1));
}

OPERATE_RET wrap_msg_data(MSG_DATA_S *msg_data, UINT_T len, RFC_DATA_S **rfc_da)
{
    msg_data->serno = sf_get_serial_no();
    msg_data->len = len;
    msg_data->data[len] = 0;
    RFC_DATA_S *block = cr_rfc_data(msg_data, len + MSG_HEADER_LEN, FALSE, INITIAL_REFS);
    if (block == nullptr) {
        SF_LOG_AS("__sf_mk_rfc_msg_data", LOG_LEVEL_ERROR, "cr_rfc_data fails :%d", len);
        Free(msg_data);
        return RC_NO_MEMORY;
    }
    *rfc_da = block;
    return RC_OK;
}

} // namespace sf

extern "C" OPERATE_RET __sf_mk_rfc_msg_data(const BYTE_T *src, UINT_T src_len, RFC_DATA_S **rfc_da)
{
    MSG_DATA_S *msg_data = sf::alloc_msg_data(src_len);
    if (msg_data == nullptr) {
        SF_LOG_ERR("malloc fails :%d", src_len);
        return RC_NO_MEMORY;
    }
    if (src_len != 0) {
        std::memcpy(msg_data->data, src, src_len);
    }
    return sf::wrap_msg_data(msg_data, src_len, rfc_da);
}
