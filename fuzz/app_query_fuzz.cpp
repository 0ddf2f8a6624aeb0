/*
 * The application DP query: any bytes, parsed as JSON. A document that is
 * an array of at least two items gives the device-id array (its first
 * item; JSON null stands for the gateway) and the DP-number array (its
 * second); any other document is passed as the DP-number array alone.
 */
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    sf_fuzz::begin_run(sf_fuzz::Channels{});
    cJSON *doc = sf_fuzz::parse(data, size);
    if (doc != nullptr) {
        const cJSON *cids = nullptr;
        const cJSON *dpids = doc;
        if (cJSON_IsArray(doc) && cJSON_GetArraySize(doc) >= 2) {
            cids = cJSON_GetArrayItem(doc, 0);
            dpids = cJSON_GetArrayItem(doc, 1);
            if (cJSON_IsNull(cids)) {
                cids = nullptr;
            }
        }
        (void)sf_respone_obj_dp_query(cids, dpids);
        cJSON_Delete(doc);
    }
    sf_fuzz::end_run();
    return 0;
}
