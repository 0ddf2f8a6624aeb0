/*
 * Reference-counted data blocks. The count is changed with atomic
 * read-modify-write steps, so holders on different threads (report path,
 * LAN channel, MQTT client) may get and put concurrently without a lock;
 * the put that takes the count to zero is the only one that can see zero,
 * and it frees. The block's mutex field is not used (NULL): a mutex per
 * block cost an allocation and two lock steps per reference change.
 */
#define SF_LOG_MODULE SF_LOG_MODULE_RUNTIME
#include <cstdlib>
#include <cstring>

#include "services/log_front.h"
#include "services/uni_memory.h"
#include "services/uni_rfc.h"
#include "port/posix/log/log_output.h"

/*
 * malk FALSE: the block wraps data, which passes to the block and is
 * released with Free on the last put.
 * malk TRUE: the block and a copy of the data_len bytes of data are one
 * allocation; data stays the caller's (it was copied). Used where the
 * payload is small and a second allocation is not worth it.
 */
extern "C" RFC_DATA_S *cr_rfc_data(void *data, UINT_T data_len, BOOL_T malk, UINT_T rfc)
{
    if (rfc == 0 || (malk == TRUE && data == nullptr && data_len != 0)) {
        return nullptr;
    }
    const size_t size = sizeof(RFC_DATA_S) + (malk == TRUE ? data_len : 0);
    RFC_DATA_S *block = static_cast<RFC_DATA_S *>(Malloc(size));
    if (block == nullptr) {
        return nullptr;
    }
    block->mutex = nullptr;
    block->malk = malk == TRUE ? TRUE : FALSE;
    block->rfc = rfc;
    block->data_len = data_len;
    if (block->malk == TRUE) {
        block->data = block + 1;
        if (data_len != 0) {
            std::memcpy(block->data, data, data_len);
        }
    } else {
        block->data = data;
    }
    return block;
}

/* The holder already has a reference, so the count cannot reach zero meanwhile: relaxed is enough. */
extern "C" void get_rfc_data(RFC_DATA_S *rfc_data)
{
    if (rfc_data == nullptr) {
        return;
    }
    __atomic_add_fetch(&rfc_data->rfc, 1, __ATOMIC_RELAXED);
}

namespace {

void free_block(RFC_DATA_S *rfc_data)
{
    if (rfc_data->malk != TRUE) {
        Free(rfc_data->data);
    }
    Free(rfc_data);
}

} // namespace

/*
 * Release order on every put, acquire on the last: whatever a holder wrote
 * before its put happens before the free.
 *
 * A count of 1 read by a holder is its own reference, the only one left:
 * nobody else can get (that needs a reference) or put, so the block is
 * freed without the read-modify-write step, which is the costly part of a
 * put. The acquire load reads the value the other holders' release puts
 * left, so their writes still happen before the free.
 */
extern "C" void put_rfc_data(RFC_DATA_S *rfc_data)
{
    if (rfc_data == nullptr) {
        return;
    }
    UINT_T count = __atomic_load_n(&rfc_data->rfc, __ATOMIC_ACQUIRE);
    if (count == 1) {
        free_block(rfc_data);
        return;
    }
    do {
        if (count == 0) {
            /* a put without a reference: the block may already be gone */
            SF_LOG_ERR("put without reference");
            sf_log::flush(std::chrono::milliseconds(1000)); /* the reason must reach the log before the abort */
            std::abort();
        }
    } while (!__atomic_compare_exchange_n(&rfc_data->rfc, &count, count - 1, true, __ATOMIC_ACQ_REL,
                                          __ATOMIC_RELAXED));
    if (count == 1) {
        free_block(rfc_data);
    }
}
