/*
 * The message block of a report, built in two steps so that a text can be
 * written straight into its MSG_DATA_S instead of being copied there
 * (__sf_mk_rfc_msg_data is alloc + copy + wrap; the object report writes
 * its envelope in place, see envelope_block).
 */
#ifndef SF_REPORT_MSG_BLOCK_H
#define SF_REPORT_MSG_BLOCK_H

#include "../../services/uni_rfc.h"
#include "../smart_frame.h"

namespace sf {

/* A MSG_DATA_S with room for len payload bytes and the terminator (one Malloc), or NULL. No log. */
MSG_DATA_S *alloc_msg_data(UINT_T len);

/*
 * Give msg_data (its len payload bytes written) a fresh serial number,
 * its length and terminator, and wrap it in a block of two references
 * (cr_rfc_data). RC_NO_MEMORY when the block cannot be made: logged as
 * __sf_mk_rfc_msg_data logs it, and msg_data freed.
 */
OPERATE_RET wrap_msg_data(MSG_DATA_S *msg_data, UINT_T len, RFC_DATA_S **rfc_da);

/* Outcome of envelope_block. */
enum class EnvelopeBlock { DONE, NO_ENVELOPE, NO_BLOCK };

/*
 * The envelope of data for dev_cntl (as __sf_add_devid_time_to_dpstr
 * writes it) written straight into a message block (as
 * __sf_mk_rfc_msg_data makes it of that text): one allocation and no copy
 * of the envelope. Each failure is logged as the step it stands for logs
 * it: NO_ENVELOPE (its allocation, "Malloc Fails" with the envelope's
 * size), NO_BLOCK (cr_rfc_data). *rc is the code of that step.
 */
EnvelopeBlock envelope_block(const DEV_CNTL_N_S *dev_cntl, const CHAR_T *data, const CHAR_T *time,
                             RFC_DATA_S **rfc_da, OPERATE_RET *rc);

} // namespace sf

#endif /* SF_REPORT_MSG_BLOCK_H */
