/*
 * Reference-counted data blocks. The count is guarded by the block's own
 * mutex, so holders on different threads (report path, LAN channel, MQTT
 * client) may get and put concurrently; the put that reaches zero is the
 * only one that can see zero, and it frees.
 */
#include <cstdlib>
#include <cstring>

#include "../../services/uni_log.h"
#include "../../services/uni_memory.h"
#include "../../services/uni_mutex.h"
#include "../../services/uni_rfc.h"

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
    if (CreateMutexAndInit(&block->mutex) != RC_OK) {
        Free(block);
        return nullptr;
    }
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

extern "C" void get_rfc_data(RFC_DATA_S *rfc_data)
{
    if (rfc_data == nullptr) {
        return;
    }
    MutexLock(rfc_data->mutex);
    ++rfc_data->rfc;
    MutexUnLock(rfc_data->mutex);
}

extern "C" void put_rfc_data(RFC_DATA_S *rfc_data)
{
    if (rfc_data == nullptr) {
        return;
    }
    MutexLock(rfc_data->mutex);
    if (rfc_data->rfc == 0) {
        /* a put without a reference: the block may already be gone */
        MutexUnLock(rfc_data->mutex);
        PrintLog(0, LOG_LEVEL_ERROR, "rfc_data.cpp", __LINE__, __func__, "put without reference");
        std::abort();
    }
    const bool last = --rfc_data->rfc == 0;
    MutexUnLock(rfc_data->mutex);
    if (last) {
        ReleaseMutex(rfc_data->mutex);
        if (rfc_data->malk != TRUE) {
            Free(rfc_data->data);
        }
        Free(rfc_data);
    }
}
