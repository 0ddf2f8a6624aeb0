#include "registry_index.h"

#include <cstring>

namespace gw_registry {
namespace detail {

namespace {

constexpr size_t kFirstCapacity = 16;

constexpr uint64_t kMix = 0x9E3779B97F4A7C15ull;

/*
 * Eight bytes at a time: a byte-wise hash is a chain of multiplies as long
 * as the id, and every report hashes its device's id twice. Only compared
 * within this process, so the byte order of the words does not matter.
 */
uint32_t hash_of(const char *id, size_t len)
{
    uint64_t hash = len * kMix;
    size_t at = 0;
    for (; at + 8 <= len; at += 8) {
        uint64_t word;
        std::memcpy(&word, id + at, 8);
        hash = (hash ^ word) * kMix;
        hash ^= hash >> 32;
    }
    uint64_t tail = 0;
    for (size_t i = 0; at + i < len; ++i) {
        tail |= static_cast<uint64_t>(static_cast<unsigned char>(id[at + i])) << (8 * i);
    }
    hash = (hash ^ tail) * kMix;
    return static_cast<uint32_t>(hash >> 32);
}

} // namespace

size_t DeviceIndex::probe(const char *id, size_t len, uint32_t hash) const
{
    const size_t mask = slots_.size() - 1;
    size_t i = hash & mask;
    /* len + 1 bytes: the terminator too, so a longer indexed id does not match its prefix */
    while (slots_[i].node != nullptr &&
           (slots_[i].hash != hash || std::memcmp(slots_[i].node->dev_if.id, id, len + 1) != 0)) {
        i = (i + 1) & mask;
    }
    return i;
}

DEV_CNTL_N_S *DeviceIndex::find(const char *id) const
{
    if (id == nullptr || used_ == 0) {
        return nullptr;
    }
    const size_t len = std::strlen(id);
    if (len > DEV_ID_LEN) {
        return nullptr; /* longer than any indexed id (the node's array), and not to be compared past it */
    }
    return slots_[probe(id, len, hash_of(id, len))].node;
}

void DeviceIndex::insert(DEV_CNTL_N_S *node)
{
    if ((used_ + 1) * 2 > slots_.size()) {
        grow();
    }
    const char *id = node->dev_if.id;
    const size_t len = std::strlen(id);
    const uint32_t hash = hash_of(id, len);
    Slot &slot = slots_[probe(id, len, hash)];
    used_ += slot.node == nullptr ? 1 : 0;
    slot = Slot{node, hash};
}

/*
 * Backward-shift deletion: the entries after the hole move up unless their
 * own probe starts after the hole, so every probe still ends at its key
 * or at an empty slot, without tombstones.
 */
void DeviceIndex::erase(const DEV_CNTL_N_S *node)
{
    if (used_ == 0) {
        return;
    }
    const char *id = node->dev_if.id;
    const size_t len = std::strlen(id);
    size_t hole = probe(id, len, hash_of(id, len));
    if (slots_[hole].node != node) {
        return;
    }
    const size_t mask = slots_.size() - 1;
    for (size_t next = (hole + 1) & mask; slots_[next].node != nullptr; next = (next + 1) & mask) {
        const size_t home = slots_[next].hash & mask;
        /* does `home` lie cyclically in (hole, next]? then the entry is reachable where it is */
        const bool stays = hole <= next ? (hole < home && home <= next) : (hole < home || home <= next);
        if (!stays) {
            slots_[hole] = slots_[next];
            hole = next;
        }
    }
    slots_[hole] = Slot{nullptr, 0};
    --used_;
}

/* The table's memory goes too: an unloaded registry keeps no heap. */
void DeviceIndex::clear()
{
    std::vector<Slot>().swap(slots_);
    used_ = 0;
}

void DeviceIndex::grow()
{
    std::vector<Slot> old(slots_.empty() ? kFirstCapacity : slots_.size() * 2, Slot{nullptr, 0});
    old.swap(slots_);
    const size_t mask = slots_.size() - 1;
    for (const Slot &slot : old) {
        if (slot.node != nullptr) {
            size_t i = slot.hash & mask;
            while (slots_[i].node != nullptr) {
                i = (i + 1) & mask;
            }
            slots_[i] = slot;
        }
    }
}

} // namespace detail
} // namespace gw_registry
