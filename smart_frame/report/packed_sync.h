/*
 * The DP sync re-publishes packed values through the ordinary report path,
 * whose filter stores what it sends. Packing and filtering are two holds
 * of dev_mutex, so a report of the application can store a newer value in
 * between; the filter must then not write the older, packed value back
 * over it nor publish it after the newer one.
 *
 * The filter cannot tell a packed text from a report by its content, and
 * the report path's signatures are fixed, so the sync marks its call: a
 * count of the values the filter has stored (under dev_mutex) is taken in
 * the packing's hold, and a scope on the sync's thread names the packed
 * text for the duration of its report. When the count has moved by the
 * time the filter holds dev_mutex again, a packed value that differs from
 * the one held is a superseded one, and is left out. When it has not
 * moved, nothing was stored in between and the filter runs exactly as for
 * any report.
 */
#ifndef SF_REPORT_PACKED_SYNC_H
#define SF_REPORT_PACKED_SYNC_H

#include "../../cloud_defs/gw_intf.h"

namespace sf {

/* The filter stored a value. dev_mutex held. */
void note_value_stored();

/* Values stored by the filter so far (wraps). dev_mutex held. */
UINT_T stored_values();

/*
 * sf_pack_local_obj_dp_data (same locking, logs and result), and in the
 * same hold of dev_mutex *stored = stored_values().
 */
CHAR_T *pack_for_sync(DEV_CNTL_N_S *dev_cntl, UINT_T max_len, BOOL_T addDevId, BOOL_T *p_all_data_packed,
                      BOOL_T reset_flow_ctl, UINT_T *stored);

/* For its lifetime, text (packed when stored_values() was stored) is this thread's packed report. */
class PackedReport {
public:
    PackedReport(const CHAR_T *text, UINT_T stored);
    ~PackedReport();
    PackedReport(const PackedReport &) = delete;
    PackedReport &operator=(const PackedReport &) = delete;

private:
    const PackedReport *outer_;
    const CHAR_T *text_;
    UINT_T stored_;
    friend bool packed_values_may_be_stale(const CHAR_T *data);
};

/* Whether data is this thread's packed report and a value has been stored since it was packed. dev_mutex held. */
bool packed_values_may_be_stale(const CHAR_T *data);

} // namespace sf

#endif /* SF_REPORT_PACKED_SYNC_H */
