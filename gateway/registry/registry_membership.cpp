/*
 * Group and scene tables of the devices (56 entries each).
 *
 * Adding a membership the device already has succeeds and changes nothing;
 * removing one it does not have succeeds too, so a repeated command gives
 * the same answer as the first. A full table refuses with
 * RC_MEMBERSHIP_FULL. Entries keep their order; a removal closes the gap.
 * A device's tables are made on its first membership (registry_node.h);
 * RC_NO_MEMORY when that fails.
 * Guarded by the registry's leaf lock, not dev_mutex, so these may be
 * called with or without dev_mutex held.
 */
#include <cstring>

#include "registry_internal.h"
#include "registry_node.h"

using gw_registry::detail::Store;

namespace {

bool valid_id(const CHAR_T *id, size_t max_len)
{
    if (id == nullptr) {
        return false;
    }
    const size_t len = std::strlen(id);
    return len >= 1 && len <= max_len;
}

/*
 * Add or remove one record of a table of `cnt` records; `matches(i)` tells
 * whether record i is the one meant, `write(i)` fills record i.
 */
template <typename Record, typename Matches, typename Write>
OPERATE_RET update_table(Record *records, BYTE_T *cnt, bool add, Matches matches, Write write)
{
    BYTE_T found = 0;
    while (found < *cnt && !matches(records[found])) {
        ++found;
    }
    const bool present = found < *cnt;
    if (add) {
        if (present) {
            return RC_OK;
        }
        if (*cnt >= GRP_SCENE_MAX) {
            return RC_MEMBERSHIP_FULL;
        }
        write(records[*cnt]);
        ++*cnt;
        return RC_OK;
    }
    if (present) {
        std::memmove(&records[found], &records[found + 1], (*cnt - found - 1) * sizeof(Record));
        --*cnt;
        std::memset(&records[*cnt], 0, sizeof(Record));
    }
    return RC_OK;
}

/* Run update on the node of dev_id under the registry's leaf lock; RC_DEV_NOT_FOUND when there is none. */
template <typename Update>
OPERATE_RET with_device(const CHAR_T *dev_id, Update update)
{
    Store &s = gw_registry::detail::store();
    sf_sync::Guard guard(s.index_lock);
    DEV_CNTL_N_S *node = gw_registry::detail::find_locked(s, dev_id);
    return node != nullptr ? update(node) : RC_DEV_NOT_FOUND;
}

} // namespace

extern "C" OPERATE_RET dev_update_grp_info(GRP_ACTION_E action, const CHAR_T *dev_id, const CHAR_T *grp_id)
{
    if ((action != GRP_ADD && action != GRP_DEL) || dev_id == nullptr || !valid_id(grp_id, GRP_ID_LEN)) {
        return RC_BAD_PARAM;
    }
    return with_device(dev_id, [action, grp_id](DEV_CNTL_N_S *node) {
        /* a device without groups shares one empty record: it takes its own before the first is added */
        GRP_MAG_S *grp = action == GRP_ADD ? gw_registry::detail::own_groups(node) : node->attr.grp;
        if (grp == nullptr) {
            return RC_NO_MEMORY;
        }
        return update_table(
        grp->g_rec, &grp->cnt, action == GRP_ADD,
            [grp_id](const GRP_REC_S &rec) { return std::strcmp(rec.gid, grp_id) == 0; },
            [grp_id](GRP_REC_S &rec) { std::strncpy(rec.gid, grp_id, GRP_ID_LEN); });
    });
}

extern "C" OPERATE_RET dev_update_scene_info(SCE_ACTION_E action, const CHAR_T *dev_id, const CHAR_T *grp_id,
                                             const CHAR_T *sce_id)
{
    if ((action != SCE_ADD && action != SCE_DEL) || dev_id == nullptr || !valid_id(grp_id, GRP_ID_LEN) ||
        !valid_id(sce_id, SCENE_ID_LEN)) {
        return RC_BAD_PARAM;
    }
    return with_device(dev_id, [action, grp_id, sce_id](DEV_CNTL_N_S *node) {
        SCENE_MAG_S *scene = action == SCE_ADD ? gw_registry::detail::own_scenes(node) : node->attr.scene;
        if (scene == nullptr) {
            return RC_NO_MEMORY;
        }
        return update_table(
            scene->s_rec, &scene->cnt, action == SCE_ADD,
            [grp_id, sce_id](const SCENE_REC_S &rec) {
                return std::strcmp(rec.s_id, sce_id) == 0 && std::strcmp(rec.g_id, grp_id) == 0;
            },
            [grp_id, sce_id](SCENE_REC_S &rec) {
                std::strncpy(rec.s_id, sce_id, SCENE_ID_LEN);
                std::strncpy(rec.g_id, grp_id, GRP_ID_LEN);
            });
    });
}

namespace gw_registry {

std::vector<std::string> groups_of(const std::string &id)
{
    std::vector<std::string> groups;
    Store &s = detail::store();
    sf_sync::Guard guard(s.index_lock);
    const DEV_CNTL_N_S *node = detail::find_locked(s, id.c_str());
    for (BYTE_T i = 0; node != nullptr && i < node->attr.grp->cnt; ++i) {
        groups.push_back(node->attr.grp->g_rec[i].gid);
    }
    return groups;
}

std::vector<std::pair<std::string, std::string>> scenes_of(const std::string &id)
{
    std::vector<std::pair<std::string, std::string>> scenes;
    Store &s = detail::store();
    sf_sync::Guard guard(s.index_lock);
    const DEV_CNTL_N_S *node = detail::find_locked(s, id.c_str());
    for (BYTE_T i = 0; node != nullptr && i < node->attr.scene->cnt; ++i) {
        scenes.emplace_back(node->attr.scene->s_rec[i].s_id, node->attr.scene->s_rec[i].g_id);
    }
    return scenes;
}

} // namespace gw_registry
