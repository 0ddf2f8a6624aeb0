#include "standin_channels.h"

#include <atomic>
#include <mutex>
#include <vector>

#include "services/lan_channel.h"
#include "services/mqtt_client.h"
#include "smart_frame/smart_frame.h"

namespace {

struct Pending {
    MQ_PUB_ASYNC_IFM_CB cb;
    const void *prv_data;
    RFC_DATA_S *block; /* the stand-in's own reference, or NULL */
};

std::mutex g_lock;
std::vector<Pending> g_pending;
std::atomic<bool> g_connected{true};
std::atomic<size_t> g_published{0};
std::atomic<size_t> g_last_len{0};

void keep(MQ_PUB_ASYNC_IFM_CB cb, const void *prv_data, RFC_DATA_S *block)
{
    std::lock_guard<std::mutex> hold(g_lock);
    if (g_pending.capacity() == 0) {
        g_pending.reserve(64); /* one allocation for the whole run, not one per report */
    }
    g_pending.push_back(Pending{cb, prv_data, block});
}

} // namespace

namespace bench {

size_t standin_complete_pending(OPERATE_RET op_ret)
{
    Pending local[64];
    size_t ran = 0;
    for (;;) {
        size_t n = 0;
        {
            std::lock_guard<std::mutex> hold(g_lock);
            while (!g_pending.empty() && n < 64) {
                local[n++] = g_pending.back();
                g_pending.pop_back();
            }
        }
        if (n == 0) {
            return ran;
        }
        for (size_t i = 0; i < n; ++i) {
            if (local[i].cb != nullptr) {
                local[i].cb(op_ret, local[i].prv_data);
            }
            if (local[i].block != nullptr) {
                put_rfc_data(local[i].block);
            }
        }
        ran += n;
    }
}

void standin_set_connected(bool connected) { g_connected = connected; }

size_t standin_published() { return g_published.load(); }

size_t standin_last_report_len() { return g_last_len.load(); }

} // namespace bench

extern "C" OPERATE_RET mqc_dp_report_async(RFC_DATA_S *rfc_data, UINT_T, MQ_PUB_ASYNC_IFM_CB cb, void *prv_data)
{
    if (rfc_data == nullptr) {
        return RC_BAD_PARAM;
    }
    get_rfc_data(rfc_data); /* the client's own reference while it keeps the block */
    g_last_len = static_cast<const MSG_DATA_S *>(rfc_data->data)->len;
    ++g_published;
    keep(cb, prv_data, rfc_data);
    return RC_OK;
}

extern "C" OPERATE_RET mqc_obj_dp_query(RFC_DATA_S *rfc_data)
{
    if (rfc_data == nullptr) {
        return RC_BAD_PARAM;
    }
    ++g_published;
    return RC_OK; /* "sent" at once: nothing kept, so no reference taken */
}

extern "C" OPERATE_RET mqc_prot_data_rept_seq(UINT_T, const CHAR_T *data, BYTE_T, UINT_T, MQ_PUB_ASYNC_IFM_CB cb,
                                              void *prv_data)
{
    if (data == nullptr) {
        return RC_BAD_PARAM;
    }
    ++g_published;
    if (cb != nullptr) {
        keep(cb, prv_data, nullptr);
    }
    return RC_OK;
}

extern "C" BOOL_T get_mqc_conn_stat(void) { return g_connected ? 1 : 0; }

extern "C" OPERATE_RET lan_dp_sata_report(RFC_DATA_S *rfc_data, UINT_T)
{
    if (rfc_data == nullptr) {
        return RC_BAD_PARAM;
    }
    put_rfc_data(rfc_data); /* taken and written at once */
    return RC_OK;
}

extern "C" OPERATE_RET lan_data_report_cb(UINT_T, UINT_T, const CHAR_T *, UINT_T) { return RC_OK; }
