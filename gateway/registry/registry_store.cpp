/*
 * The registry's store: device nodes (built in registry_node.cpp), the id
 * index beside the list, loading, adding and removing devices, and the
 * deferred free of removed nodes (lifetime rule in gw_registry.h).
 */
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "services/uni_mutex.h"
#include "registry_internal.h"
#include "registry_node.h"

namespace gw_registry {
namespace detail {

Store &store()
{
    static Store &s = *[] {
        Store *created = new Store();
        if (CreateMutexAndInit(&created->gw.dev_mutex) != RC_OK) {
            std::abort(); /* no registry can work without its lock */
        }
        return created;
    }();
    return s;
}

DEV_CNTL_N_S *find_locked(Store &s, const char *id)
{
    return s.index.find(id);
}

/* Mutations hold dev_mutex as well as index_lock, so dev_mutex alone orders this read after them. */
DEV_CNTL_N_S *find_under_dev_mutex(Store &s, const char *id) SF_NO_THREAD_SAFETY_ANALYSIS
{
    return s.index.find(id);
}

namespace {

/* Holds dev_mutex and then the index lock, the order every mutation uses. */
class SF_SCOPED_CAPABILITY MutationLock {
public:
    explicit MutationLock(Store &s) SF_ACQUIRE(s.dev_mutex_name, s.index_lock) : s_(s)
    {
        MutexLock(s_.gw.dev_mutex);
        s_.index_lock.lock();
    }
    ~MutationLock() SF_RELEASE()
    {
        s_.index_lock.unlock();
        MutexUnLock(s_.gw.dev_mutex);
    }
    MutationLock(const MutationLock &) = delete;
    MutationLock &operator=(const MutationLock &) = delete;

private:
    Store &s_;
};

} // namespace

namespace {

void copy_text(CHAR_T *dst, size_t room, const std::string &text)
{
    std::strncpy(dst, text.c_str(), room - 1);
    dst[room - 1] = '\0';
}

/*
 * Append at the end of the list. The node is complete before the store
 * that publishes it, so a walker without dev_mutex never sees it half-made.
 * Both locks held.
 */
void link_node(Store &s, DEV_CNTL_N_S *node) SF_REQUIRES(s.dev_mutex_name, s.index_lock)
{
    DEV_CNTL_N_S **slot = s.tail != nullptr ? &s.tail->next : &s.gw.dev;
    __atomic_store_n(slot, node, __ATOMIC_RELEASE);
    s.tail = node;
    ++s.gw.dev_num;
    s.index.insert(node);
}

/* Unlink, flag and retire; the node's own next is kept for walkers standing on it. Both locks held. */
void retire_node(Store &s, DEV_CNTL_N_S *node) SF_REQUIRES(s.dev_mutex_name, s.index_lock)
{
    DEV_CNTL_N_S *prev = nullptr;
    for (DEV_CNTL_N_S *cur = s.gw.dev; cur != nullptr && cur != node; cur = cur->next) {
        prev = cur;
    }
    /* read without dev_mutex by the smart frame's walkers (the rule in gw_intf.h) */
    __atomic_store_n(&node->dev_delete, static_cast<BYTE_T>(1), __ATOMIC_RELEASE);
    DEV_CNTL_N_S **slot = prev != nullptr ? &prev->next : &s.gw.dev;
    __atomic_store_n(slot, node->next, __ATOMIC_RELEASE);
    if (s.tail == node) {
        s.tail = prev;
    }
    --s.gw.dev_num;
    s.index.erase(node);
    s.retired.push_back({node, std::chrono::steady_clock::now(), ++s.retire_epoch});
}

void set_gateway_record(Store &s, const GatewayLayout &layout) SF_REQUIRES(s.index_lock)
{
    copy_text(s.gw.gw_if.id, sizeof(s.gw.gw_if.id), layout.id);
    copy_text(s.gw.gw_if.sw_ver, sizeof(s.gw.gw_if.sw_ver), layout.own.sw_ver);
    copy_text(s.gw.gw_if.product_key, sizeof(s.gw.gw_if.product_key), layout.own.product_key);
    s.local_key = layout.local_key;
}

/*
 * The gateway's own node is in the list (so the DP sync re-sends its
 * values too) but is no sub-device: it starts online and reported, and
 * never times out, so presence batches and heartbeat passes leave it alone.
 */
void mark_as_gateway(DEV_CNTL_N_S *node)
{
    node->attr.stat = DOS_ONLINE;
    node->attr.dosm = DOSM_REPORTED;
    node->attr.hb_timeout_time = 0xFFFFFFFFu;
}

} // namespace
} // namespace detail

using detail::Store;

namespace {

/* The error the caller asked for, or a scratch one: the readers always record where they stopped. */
LoadError *error_or(LoadError *error, LoadError *scratch) { return error != nullptr ? error : scratch; }

} // namespace

bool load_text(const std::string &json, const std::string &file_label, LoadError *error)
{
    LoadError scratch;
    const gw_desc::Json root = gw_desc::parse_text(json, file_label, error_or(error, &scratch));
    return root != nullptr && load_document(root.get(), file_label, {}, error);
}

bool load_document(const cJSON *root, const std::string &file_label, const gw_desc::OtherSections &others,
                   LoadError *error)
{
    LoadError scratch;
    detail::GatewayLayout layout;
    return gw_desc::parse_gateway(root, file_label, others, &layout, error_or(error, &scratch)) &&
           load_layout(layout, file_label, error);
}

bool load_layout(const gw_desc::GatewayLayout &layout, const std::string &file_label, LoadError *error)
{
    /* build every node before touching the store: a failure leaves it as it was */
    std::vector<DEV_CNTL_N_S *> nodes;
    std::vector<const detail::DeviceLayout *> layouts{&layout.own};
    for (const detail::DeviceLayout &device : layout.devices) {
        layouts.push_back(&device);
    }
    for (const detail::DeviceLayout *device : layouts) {
        DEV_CNTL_N_S *node = detail::build_node(*device);
        if (node == nullptr) {
            for (DEV_CNTL_N_S *built : nodes) {
                detail::free_node(built);
            }
            return detail::fail(error, file_label, "", "out of memory");
        }
        nodes.push_back(node);
    }
    detail::mark_as_gateway(nodes[0]);

    Store &s = detail::store();
    {
        detail::MutationLock locks(s);
        if (!s.loaded) {
            detail::set_gateway_record(s, layout);
            for (size_t i = 0; i < nodes.size(); ++i) {
                detail::link_node(s, nodes[i]);
            }
            s.own_node = nodes[0];
            s.loaded = true;
            return true;
        }
    }
    for (DEV_CNTL_N_S *built : nodes) {
        detail::free_node(built);
    }
    return detail::fail(error, file_label, "", "a gateway is already loaded");
}

bool load_file(const std::string &file, LoadError *error)
{
    LoadError scratch;
    std::string text;
    return gw_desc::read_file(file, &text, error_or(error, &scratch)) && load_text(text, file, error);
}

bool loaded()
{
    Store &s = detail::store();
    sf_sync::Guard guard(s.index_lock);
    return s.loaded;
}

OPERATE_RET add_device(const std::string &device_json, LoadError *error)
{
    static const std::string kLabel = "device";
    LoadError scratch;
    LoadError *why = error_or(error, &scratch);
    const gw_desc::Json root = gw_desc::parse_text(device_json, kLabel, why);
    detail::DeviceLayout layout;
    if (root == nullptr || !gw_desc::parse_device(root.get(), kLabel, "", {}, &layout, why)) {
        return RC_BAD_PARAM;
    }
    DEV_CNTL_N_S *node = detail::build_node(layout);
    if (node == nullptr) {
        detail::fail(error, kLabel, "", "out of memory");
        return RC_NO_MEMORY;
    }
    OPERATE_RET result = RC_OK;
    Store &s = detail::store();
    {
        detail::MutationLock locks(s);
        if (!s.loaded) {
            detail::fail(error, kLabel, "", "no gateway loaded");
            result = RC_FAIL;
        } else if (detail::find_locked(s, layout.id.c_str()) != nullptr ||
                   strcasecmp(layout.id.c_str(), s.gw.gw_if.id) == 0) {
            detail::fail(error, kLabel, "id", "device id \"" + layout.id + "\" is taken");
            result = RC_BAD_PARAM;
        } else {
            detail::link_node(s, node);
        }
    }
    if (result != RC_OK) {
        detail::free_node(node);
    }
    reclaim();
    return result;
}

OPERATE_RET remove_device(const std::string &id)
{
    OPERATE_RET result = RC_OK;
    Store &s = detail::store();
    {
        detail::MutationLock locks(s);
        DEV_CNTL_N_S *node = detail::find_locked(s, id.c_str());
        if (node == nullptr) {
            result = RC_DEV_NOT_FOUND;
        } else if (node == s.own_node) {
            result = RC_BAD_PARAM;
        } else {
            detail::retire_node(s, node);
        }
    }
    if (result == RC_OK) {
        detail::watch_dispatch();
    }
    reclaim();
    return result;
}

void set_grace_period(std::chrono::milliseconds grace)
{
    Store &s = detail::store();
    sf_sync::Guard guard(s.index_lock);
    s.grace = grace;
}

size_t retired_count()
{
    Store &s = detail::store();
    sf_sync::Guard guard(s.index_lock);
    return s.retired.size();
}

size_t device_count()
{
    Store &s = detail::store();
    sf_sync::Guard guard(s.index_lock);
    return s.index.size();
}

std::string local_key()
{
    Store &s = detail::store();
    sf_sync::Guard guard(s.index_lock);
    return s.local_key;
}

std::string dp_name(const std::string &id, BYTE_T dpid)
{
    Store &s = detail::store();
    sf_sync::Guard guard(s.index_lock);
    const DEV_CNTL_N_S *node = detail::find_locked(s, id.c_str());
    if (node == nullptr) {
        return std::string();
    }
    const std::vector<std::string> &names = detail::dp_names_of(node);
    for (BYTE_T i = 0; i < node->dp_num && i < names.size(); ++i) {
        if (node->dp[i].dp_desc.dp_id == dpid) {
            return names[i];
        }
    }
    return std::string();
}

void unload()
{
    Store &s = detail::store();
    std::vector<DEV_CNTL_N_S *> nodes;
    {
        detail::MutationLock locks(s);
        for (DEV_CNTL_N_S *node = s.gw.dev; node != nullptr; node = node->next) {
            nodes.push_back(node);
        }
        for (const detail::Retired &retired : s.retired) {
            nodes.push_back(retired.node);
        }
        s.retired.clear();
        s.index.clear();
        s.gw.dev = nullptr;
        s.gw.dev_num = 0;
        std::memset(&s.gw.gw_if, 0, sizeof(s.gw.gw_if));
        s.tail = nullptr;
        s.own_node = nullptr;
        s.local_key.clear();
        s.loaded = false;
    }
    for (DEV_CNTL_N_S *node : nodes) {
        detail::free_node(node);
    }
}

} // namespace gw_registry
