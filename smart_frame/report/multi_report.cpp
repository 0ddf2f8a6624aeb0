/*
 * Multi-DP reports: a text the caller composed (typically a multi-DP
 * command echoed back to the cloud) published as it stands. No device
 * lookup, no verification, no envelope and no publish state: the block is
 * offered to the LAN clients and published over MQTT, and the completion
 * only logs the outcome.
 */
#include "../sf_log.h"
#include "block_send.h"
#include "report.h"

/*
 * Any thread except the MQTT client's own; does not block. The caller
 * keeps data (len bytes are copied). Pass prv_data NULL: the completion
 * releases its argument as a message block.
 */
extern "C" OPERATE_RET sf_multi_dp_report_async(const CHAR_T *data, INT_T len, UINT_T to_lmt, void *prv_data)
{
    if (data == nullptr || len < 0) {
        SF_LOG_ERR("Invalid Param");
        return RC_BAD_PARAM;
    }
    SF_LOG_PROG("multi reponse:%s length:%d", data, len);
    RFC_DATA_S *block = nullptr;
    OPERATE_RET rc = __sf_mk_rfc_msg_data(reinterpret_cast<const BYTE_T *>(data), static_cast<UINT_T>(len), &block);
    if (rc != RC_OK) {
        SF_LOG_ERR("md rfc fail %d", rc);
        return rc;
    }

    SF_LOG_PROG("Lan Send");
    const OPERATE_RET lan_rc = sf::offer_block_to_lan(block);
    if (sf::lan_failure_is_error(lan_rc)) {
        SF_LOG_ERR("lan_dp_sata_report error:%d", lan_rc);
    }

    SF_LOG_PROG("Mqtt Send");
    rc = sf::publish_block_async(block, to_lmt, __sf_multi_dp_report_async, prv_data);
    if (rc != RC_OK) {
        SF_LOG_ERR("mqtt async send fail %d", rc);
    }
    return rc;
}

/* MQTT client's thread; prv_data is the message block, whose reference is dropped here. */
extern "C" void __sf_multi_dp_report_async(OPERATE_RET op_ret, const void *prv_data)
{
    SF_LOG_PROG("mqtt async dp cb %d", op_ret);
    RFC_DATA_S *block = static_cast<RFC_DATA_S *>(const_cast<void *>(prv_data));
    if (block == nullptr) {
        return;
    }
    SF_LOG_PROG("msg_data:%s , mqtt async dp cb:%d", sf::block_text(block), op_ret);
    put_rfc_data(block);
}
