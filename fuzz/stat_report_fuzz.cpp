/*
 * The synchronous status report: device, channels and automatic
 * re-transmission chosen as run_report describes; the rest of the input
 * is the DP text, and what follows its first newline, if any, the time
 * text. Publications complete inline, so the wait returns at once.
 */
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    return sf_fuzz::run_report(data, size, [](const CHAR_T *dev_id, BOOL_T retrans, const std::string &text) {
        const size_t newline = text.find('\n');
        const std::string dp_str = text.substr(0, newline);
        const std::string time_str = newline == std::string::npos ? std::string() : text.substr(newline + 1);
        (void)sf_stat_dp_report_sync(dev_id, dp_str.c_str(), newline == std::string::npos ? nullptr : time_str.c_str(),
                                     5, retrans);
    });
}
