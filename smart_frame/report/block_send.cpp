#include "block_send.h"

#include "../../services/lan_channel.h"
#include "../smart_frame.h"

namespace sf {

OPERATE_RET offer_block_to_lan(RFC_DATA_S *block)
{
    const OPERATE_RET rc = lan_dp_sata_report(block, LAN_FRAME_DP_REPORT);
    if (rc != RC_OK) {
        put_rfc_data(block); /* the channel took nothing */
    }
    return rc;
}

bool lan_failure_is_error(OPERATE_RET rc)
{
    return rc != RC_OK && rc != RC_LAN_NOT_SENT;
}

OPERATE_RET publish_block_async(RFC_DATA_S *block, UINT_T time_out_s, MQ_PUB_ASYNC_IFM_CB cb, void *prv_data)
{
    bool completion_ref = false;
    if (prv_data == nullptr) {
        prv_data = block;
        get_rfc_data(block);
        completion_ref = true;
    }
    const OPERATE_RET rc = mqc_dp_report_async(block, time_out_s, cb, prv_data);
    put_rfc_data(block); /* the creator's reference */
    if (rc != RC_OK && completion_ref) {
        put_rfc_data(block); /* the completion will never run */
    }
    return rc;
}

const CHAR_T *block_text(const RFC_DATA_S *block)
{
    return reinterpret_cast<const CHAR_T *>(static_cast<const MSG_DATA_S *>(block->data)->data);
}

} // namespace sf
