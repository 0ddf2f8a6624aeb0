/*
 * Reference-counted blocks that really free their payload on the last
 * release, and that the test can inspect while they live. The block
 * record itself comes from Malloc, so allocation sweeps reach it.
 */
#include <cstdio>
#include <cstdlib>
#include <set>

#include "../../smart_frame/smart_frame.h"
#include "fake_internal.h"

namespace {

std::set<const RFC_DATA_S *> &live_blocks()
{
    static std::set<const RFC_DATA_S *> &blocks = *new std::set<const RFC_DATA_S *>();
    return blocks;
}

} // namespace

extern "C" RFC_DATA_S *cr_rfc_data(void *data, UINT_T data_len, BOOL_T malk, UINT_T rfc)
{
    RFC_DATA_S *block = static_cast<RFC_DATA_S *>(Malloc(sizeof(RFC_DATA_S)));
    if (block == nullptr) {
        return nullptr;
    }
    block->mutex = nullptr;
    block->malk = malk;
    block->rfc = rfc;
    block->data_len = data_len;
    block->data = data;
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    live_blocks().insert(block);
    return block;
}

extern "C" void get_rfc_data(RFC_DATA_S *block)
{
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    if (live_blocks().count(block) == 0) {
        std::fprintf(stderr, "fake get_rfc_data: block %p already freed\n", static_cast<void *>(block));
        std::abort();
    }
    ++block->rfc;
}

extern "C" void put_rfc_data(RFC_DATA_S *block)
{
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    if (live_blocks().count(block) == 0) {
        std::fprintf(stderr, "fake put_rfc_data: block %p already freed (one put too many)\n",
                     static_cast<void *>(block));
        std::abort();
    }
    if (--block->rfc == 0) {
        live_blocks().erase(block);
        Free(block->data);
        Free(block);
    }
}

namespace fake {
namespace rfc {

size_t live()
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    return live_blocks().size();
}

bool is_live(const RFC_DATA_S *block)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    return live_blocks().count(block) != 0;
}

UINT_T count(const RFC_DATA_S *block)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    return live_blocks().count(block) != 0 ? block->rfc : 0;
}

std::string text(const RFC_DATA_S *block)
{
    return is_live(block) ? detail::block_text(block) : std::string();
}

UINT_T serno(const RFC_DATA_S *block)
{
    return is_live(block) ? static_cast<const MSG_DATA_S *>(block->data)->serno : 0;
}

} // namespace rfc

namespace detail {

std::string block_text(const RFC_DATA_S *block)
{
    const MSG_DATA_S *msg = static_cast<const MSG_DATA_S *>(block->data);
    return std::string(reinterpret_cast<const char *>(msg->data), msg->len);
}

void reset_rfc()
{
    std::lock_guard<std::recursive_mutex> guard(records_lock());
    live_blocks().clear();
}

} // namespace detail
} // namespace fake
