/*
 * Device nodes in one block each, with interned name tables and shared
 * empty membership records (registry_node.h).
 */
#include "registry_node.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>

#include "gateway/sync/annotated_lock.h"
#include "registry_internal.h"

namespace gw_registry {
namespace detail {

namespace {

using Names = std::vector<std::string>;

/* Before the node in its block: what the node's ABI has no field for. Keeps the node max-aligned. */
struct alignas(alignof(std::max_align_t)) Header {
    const Names *dp_names;
};

/* An interned enum name table: the names and the CHAR_T* array handed out as pp_enum. */
struct EnumTable {
    std::vector<CHAR_T *> pointers;
    size_t users = 0;
};

/*
 * The interned tables, keyed by their content. std::map: its keys do not
 * move, so pointers into them (names, and the enum names' characters) stay
 * valid while the entry lives. A leaf lock: nothing is called under it.
 */
struct Interned {
    sf_sync::Mutex lock;
    std::map<Names, size_t> dp_names SF_GUARDED_BY(lock); /* table -> nodes using it */
    std::map<Names, EnumTable> enums SF_GUARDED_BY(lock);
};

Interned &interned()
{
    static Interned &i = *new Interned(); /* never destroyed: nodes may be freed at exit */
    return i;
}

/* What a device without memberships points at; only read (writers take their own record first). */
GRP_MAG_S g_no_groups;
SCENE_MAG_S g_no_scenes;

Header *header_of(const DEV_CNTL_N_S *node)
{
    return reinterpret_cast<Header *>(reinterpret_cast<char *>(const_cast<DEV_CNTL_N_S *>(node)) - sizeof(Header));
}

bool is_typed(const DP_CNTL_S &dp, DP_PROP_TP_E prop_tp)
{
    return dp.dp_desc.type == DP_TYPE_OBJ && dp.dp_desc.prop_tp == prop_tp;
}

bool is_typed(const DpLayout &dp, DP_PROP_TP_E prop_tp)
{
    return dp.desc.type == DP_TYPE_OBJ && dp.desc.prop_tp == prop_tp;
}

void copy_text(CHAR_T *dst, size_t room, const std::string &text)
{
    std::strncpy(dst, text.c_str(), room - 1);
    dst[room - 1] = '\0';
}

/* Take a share of the table equal to names; nullptr on exhaustion. */
const Names *share_dp_names(const Names &names)
{
    Interned &in = interned();
    sf_sync::Guard guard(in.lock);
    try {
        auto entry = in.dp_names.find(names); /* most devices share a table: no copy for them */
        if (entry == in.dp_names.end()) {
            entry = in.dp_names.emplace(names, 0).first;
        }
        ++entry->second;
        return &entry->first;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

void release_dp_names(const Names *names)
{
    if (names == nullptr) {
        return;
    }
    Interned &in = interned();
    sf_sync::Guard guard(in.lock);
    auto entry = in.dp_names.find(*names);
    if (entry != in.dp_names.end() && --entry->second == 0) {
        in.dp_names.erase(entry);
    }
}

/* Take a share of the enum table equal to names; its pp_enum array, or nullptr on exhaustion. */
CHAR_T **share_enum(const Names &names)
{
    Interned &in = interned();
    sf_sync::Guard guard(in.lock);
    try {
        auto entry = in.enums.find(names);
        if (entry == in.enums.end()) {
            entry = in.enums.emplace(names, EnumTable{}).first;
        }
        EnumTable &table = entry->second;
        if (table.users == 0) {
            table.pointers.clear();
            for (const std::string &name : entry->first) {
                table.pointers.push_back(const_cast<CHAR_T *>(name.c_str()));
            }
            table.pointers.push_back(nullptr); /* a table of no names still has an address */
        }
        ++table.users;
        return table.pointers.data();
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

void release_enum(const DP_PROP_ENUM_S &prop)
{
    if (prop.pp_enum == nullptr) {
        return;
    }
    Names names;
    for (INT_T n = 0; n < prop.cnt; ++n) {
        names.emplace_back(prop.pp_enum[n]);
    }
    Interned &in = interned();
    sf_sync::Guard guard(in.lock);
    auto entry = in.enums.find(names);
    if (entry != in.enums.end() && entry->second.pointers.data() == prop.pp_enum && --entry->second.users == 0) {
        in.enums.erase(entry);
    }
}

/* Bytes of the string DPs' buffers: max_len characters and a terminator each. */
size_t string_bytes(const DeviceLayout &layout)
{
    size_t bytes = 0;
    for (const DpLayout &dp : layout.dps) {
        if (is_typed(dp, PROP_STR)) {
            bytes += static_cast<size_t>(dp.limits.prop_str.max_len) + 1;
        }
    }
    return bytes;
}

/* Fill one DP from its layout: every DP starts without a value (pv_stat 0). False on exhaustion. */
bool fill_dp(DP_CNTL_S &dp, const DpLayout &layout, CHAR_T **strings)
{
    dp.dp_desc = layout.desc;
    dp.prop = layout.limits;
    dp.rept_cntl = layout.flow;
    dp.pv_stat = PV_STAT_INVALID;
    if (is_typed(dp, PROP_STR)) {
        dp.prop.prop_str.value = *strings; /* zeroed with the block */
        *strings += static_cast<size_t>(layout.limits.prop_str.max_len) + 1;
    } else if (is_typed(dp, PROP_ENUM)) {
        /* cnt 0 until the table is shared, so a half-built node releases only what it took */
        dp.prop.prop_enum.cnt = 0;
        dp.prop.prop_enum.pp_enum = share_enum(layout.enum_names);
        if (dp.prop.prop_enum.pp_enum == nullptr) {
            return false;
        }
        dp.prop.prop_enum.cnt = static_cast<INT_T>(layout.enum_names.size());
    }
    return true;
}

} // namespace

DEV_CNTL_N_S *build_node(const DeviceLayout &layout)
{
    const size_t dp_num = layout.dps.size();
    const size_t node_bytes = sizeof(DEV_CNTL_N_S) + dp_num * sizeof(DP_CNTL_S);
    char *block = static_cast<char *>(std::calloc(1, sizeof(Header) + node_bytes + string_bytes(layout)));
    if (block == nullptr) {
        return nullptr;
    }
    DEV_CNTL_N_S *node = reinterpret_cast<DEV_CNTL_N_S *>(block + sizeof(Header));
    copy_text(node->dev_if.id, sizeof(node->dev_if.id), layout.id);
    copy_text(node->dev_if.sw_ver, sizeof(node->dev_if.sw_ver), layout.sw_ver);
    copy_text(node->dev_if.schema_id, sizeof(node->dev_if.schema_id), layout.schema_id);
    copy_text(node->dev_if.product_key, sizeof(node->dev_if.product_key), layout.product_key);
    node->dev_if.bind = layout.bind ? TRUE : FALSE;
    node->attr.preprocess = layout.preprocess ? TRUE : FALSE;
    node->attr.grp = &g_no_groups;
    node->attr.scene = &g_no_scenes;
    Names names;
    for (const DpLayout &dp : layout.dps) {
        names.push_back(dp.name);
    }
    header_of(node)->dp_names = share_dp_names(names);
    bool ok = header_of(node)->dp_names != nullptr;
    CHAR_T *strings = block + sizeof(Header) + node_bytes;
    for (size_t i = 0; ok && i < dp_num; ++i) {
        node->dp_num = static_cast<BYTE_T>(i + 1); /* what free_node must release so far */
        ok = fill_dp(node->dp[i], layout.dps[i], &strings);
    }
    if (!ok) {
        free_node(node);
        return nullptr;
    }
    return node;
}

void free_node(DEV_CNTL_N_S *node)
{
    if (node == nullptr) {
        return;
    }
    for (BYTE_T i = 0; i < node->dp_num; ++i) {
        if (is_typed(node->dp[i], PROP_ENUM)) {
            release_enum(node->dp[i].prop.prop_enum);
        }
    }
    release_dp_names(header_of(node)->dp_names);
    if (node->attr.grp != &g_no_groups) {
        std::free(node->attr.grp);
    }
    if (node->attr.scene != &g_no_scenes) {
        std::free(node->attr.scene);
    }
    std::free(header_of(node));
}

const std::vector<std::string> &dp_names_of(const DEV_CNTL_N_S *node)
{
    static const Names none;
    const Names *names = header_of(node)->dp_names;
    return names != nullptr ? *names : none;
}

namespace {

/* The node's own record in *slot, calloc'ed in place of the shared empty one; nullptr on exhaustion. */
template <typename Record>
Record *own_record(Record **slot, Record *shared)
{
    if (*slot == shared) {
        Record *own = static_cast<Record *>(std::calloc(1, sizeof(Record)));
        if (own == nullptr) {
            return nullptr;
        }
        *slot = own;
    }
    return *slot;
}

} // namespace

GRP_MAG_S *own_groups(DEV_CNTL_N_S *node)
{
    return own_record(&node->attr.grp, &g_no_groups);
}

SCENE_MAG_S *own_scenes(DEV_CNTL_N_S *node)
{
    return own_record(&node->attr.scene, &g_no_scenes);
}

} // namespace detail
} // namespace gw_registry
