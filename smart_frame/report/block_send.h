/*
 * Handing a message block (from __sf_mk_rfc_msg_data, two references) to
 * the LAN channel and to the MQTT client with the reference bookkeeping
 * that both need. These helpers never log: the caller owns the log lines.
 */
#ifndef SF_REPORT_BLOCK_SEND_H
#define SF_REPORT_BLOCK_SEND_H

#include "../../services/mqtt_client.h"
#include "../../services/uni_rfc.h"

namespace sf {

/*
 * Offer block to the LAN clients as a DP report. On RC_OK the channel keeps
 * one of the caller's references and releases it itself; on any other
 * result that reference is dropped here. Returns the channel's result.
 * No lock may be held (the channel is a collaborator).
 */
OPERATE_RET offer_block_to_lan(RFC_DATA_S *block);

/* Whether a LAN result deserves an error log: RC_LAN_NOT_SENT only means nobody listens. */
bool lan_failure_is_error(OPERATE_RET rc);

/*
 * Publish block asynchronously with completion cb. With prv_data NULL the
 * block itself becomes the completion's argument and gets a reference of
 * its own, which the completion drops. The caller's (creator's) reference
 * is always dropped here; when the client refuses, the completion's
 * reference is dropped too. Returns the MQTT client's result.
 * No lock may be held.
 */
OPERATE_RET publish_block_async(RFC_DATA_S *block, UINT_T time_out_s, MQ_PUB_ASYNC_IFM_CB cb, void *prv_data);

/* The payload text of a report block (its MSG_DATA_S, terminated). */
const CHAR_T *block_text(const RFC_DATA_S *block);

} // namespace sf

#endif /* SF_REPORT_BLOCK_SEND_H */
