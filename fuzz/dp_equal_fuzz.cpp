/*
 * The equality check of a single-DP command: any bytes, parsed as JSON,
 * given to sf_dp_data_is_equl, which must only read the tree.
 */
#include <cstdlib>

#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    sf_fuzz::begin_run(sf_fuzz::Channels{});
    cJSON *cmd = sf_fuzz::parse(data, size);
    const BOOL_T equal = sf_dp_data_is_equl(cmd);
    if (equal != TRUE && equal != FALSE) {
        std::abort();
    }
    cJSON_Delete(cmd);
    sf_fuzz::end_run();
    return 0;
}
