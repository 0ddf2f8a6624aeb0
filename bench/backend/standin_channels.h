/*
 * Bench-only stand-ins for the MQTT client and the LAN channel, so that a
 * benchmark measures the smart frame and not a network.
 *
 * MQTT: mqc_dp_report_async takes its own reference on the block and keeps
 * the completion; standin_complete_pending() then runs every kept
 * completion with the chosen result on the calling thread (the benchmark
 * calls it right after the report returns: a publication "that completes at
 * once"), outside any lock of the smart frame, as the real client would do
 * on its own thread. mqc_prot_data_rept_seq and mqc_obj_dp_query are
 * accepted and counted; their completions are kept the same way.
 *
 * LAN: one client is assumed; the channel takes the offered reference and
 * writes the block at once (releases the reference).
 *
 * Not thread-safe beyond one reporting thread plus the dispatch thread: a
 * mutex guards the pending list, nothing more is needed by the benchmarks.
 */
#ifndef BENCH_STANDIN_CHANNELS_H
#define BENCH_STANDIN_CHANNELS_H

#include <cstddef>

#include "cloud_defs/kelo_cloud_types.h"

namespace bench {

/* Run every kept completion with op_ret; returns how many ran. */
size_t standin_complete_pending(OPERATE_RET op_ret = RC_OK);

/* What get_mqc_conn_stat answers (1 connected, the default). */
void standin_set_connected(bool connected);

/* Publications accepted so far (DP reports, protocol data, query answers). */
size_t standin_published();

/* Bytes of the last DP report block's text, for checks. */
size_t standin_last_report_len();

} // namespace bench

#endif /* BENCH_STANDIN_CHANNELS_H */
