/*
 * A DP query for the application to answer: the JSON arrays of device ids
 * and DP numbers become one KL_DP_QUERY_S, handed to dev_dp_query_cb once
 * per device id on the caller's thread. Any answer is the application's
 * own report.
 */
#include <cstring>

#include "../../services/uni_memory.h"
#include "../json_type.h"
#include "../sf_log.h"
#include "../sf_raii.h"
#include "../smart_frame.h"

namespace {

void ask_application(KL_DP_QUERY_S *query)
{
    DEV_DP_QUERY_CB cb = get_gw_cntl()->cbs.dev_dp_query_cb;
    if (cb != nullptr) {
        cb(query);
    }
}

} // namespace

extern "C" OPERATE_RET sf_respone_obj_dp_query(const cJSON *pCidArr, const cJSON *pDpIdArr)
{
    if (pDpIdArr == nullptr) {
        SF_LOG_ERR("pDpIdArr is NULL");
        return RC_BAD_PARAM;
    }
    if (sf::json_type(pDpIdArr) != sf::JSON_ARRAY) {
        SF_LOG_ERR("pDpIdArr is not an array");
        return RC_BAD_PARAM;
    }
    /* a JSON null stands for the gateway just like a missing array */
    const bool for_gateway = pCidArr == nullptr || sf::json_type(pCidArr) == sf::JSON_NULL;
    if (!for_gateway && sf::json_type(pCidArr) != sf::JSON_ARRAY) {
        SF_LOG_ERR("pCidArr is not an array");
        return RC_BAD_PARAM;
    }

    const INT_T n = cJSON_GetArraySize(pDpIdArr);
    const size_t size = sizeof(KL_DP_QUERY_S) + static_cast<size_t>(n);
    sf::MallocPtr<KL_DP_QUERY_S> query(static_cast<KL_DP_QUERY_S *>(Malloc(size)));
    if (!query) {
        SF_LOG_ERR("Malloc err");
        return RC_FAIL;
    }
    std::memset(query.get(), 0, size);
    query->cnt = static_cast<UINT_T>(n);
    SF_LOG_PROG("dpid cnt< %d >:", n);
    INT_T i = 0;
    for (const cJSON *item = pDpIdArr->child; item != nullptr && i < n; item = item->next, ++i) {
        query->dpid[i] = static_cast<BYTE_T>(item->valueint); /* DP numbers are one byte: 256 becomes 0 */
        PrintLogRaw("%d ", query->dpid[i]);
    }
    PrintLogRaw("\r\n");

    if (for_gateway) {
        DEV_CNTL_N_S *gw_dev = get_gw_dev_cntl();
        if (gw_dev == nullptr) {
            SF_LOG_ERR("get_gw_dev_cntl err");
            return RC_FAIL;
        }
        query->cid = gw_dev->dev_if.id;
        SF_LOG_PROG("query cid:%s", query->cid);
        ask_application(query.get());
        return RC_OK;
    }
    for (const cJSON *id = pCidArr->child; id != nullptr; id = id->next) {
        if (sf::json_type(id) != sf::JSON_STRING) {
            /* an id that is not text names no device; the others are still asked */
            SF_LOG_ERR("query cid is not a string");
            continue;
        }
        query->cid = id->valuestring;
        SF_LOG_PROG("query cid:%s", query->cid);
        ask_application(query.get());
    }
    return RC_OK;
}
