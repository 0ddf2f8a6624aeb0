/*
 * The application's asynchronous object report: device, channels and
 * force_send chosen as run_report describes; the rest of the input is the
 * report text, handed over as it stands. Publications complete inline,
 * and the DP sync then re-sends whatever a failure left unconfirmed.
 */
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    return sf_fuzz::run_report(data, size, [](const CHAR_T *dev_id, BOOL_T force_send, const std::string &text) {
        (void)sf_obj_dp_report_async(dev_id, text.c_str(), force_send);
    });
}
