/*
 * Report blocks made by a test, as the smart frame makes them (MSG_DATA_S
 * in an RFC_DATA_S). Header-only: the POSIX unit tests use it too.
 */
#ifndef IT_BLOCKS_H
#define IT_BLOCKS_H

#include <cstring>
#include <string>

#include "services/uni_memory.h"
#include "services/uni_mutex.h"
#include "services/uni_rfc.h"
#include "smart_frame/smart_frame.h"

namespace it {

/* A block holding text with serial number serno and one reference (the test's). */
inline RFC_DATA_S *make_block(const std::string &text, UINT_T serno)
{
    auto *msg = static_cast<MSG_DATA_S *>(Malloc(sizeof(MSG_DATA_S) + text.size() + 1));
    msg->serno = serno;
    msg->len = static_cast<UINT_T>(text.size());
    std::memcpy(msg->data, text.c_str(), text.size() + 1);
    return cr_rfc_data(msg, static_cast<UINT_T>(sizeof(MSG_DATA_S) + text.size()), FALSE, 1);
}

/* The block's reference count (the POSIX backend changes it with atomic steps, without a lock). */
inline UINT_T references(RFC_DATA_S *block)
{
    return __atomic_load_n(&block->rfc, __ATOMIC_ACQUIRE);
}

} // namespace it

#endif /* IT_BLOCKS_H */
