#include "sub_device.h"

#include <cstring>
#include <strings.h>

#include "../../cloud_defs/gw_intf.h"

namespace sf {

OPERATE_RET find_sub_device(const CHAR_T *dev_id, DEV_CNTL_N_S **dev_cntl)
{
    if (dev_id == nullptr) {
        return RC_FAIL;
    }
    const CHAR_T *gw_id = get_gw_cntl()->gw_if.id;
    if (strcasecmp(dev_id, gw_id) == 0 && std::strlen(dev_id) == std::strlen(gw_id)) {
        return RC_FAIL;
    }
    *dev_cntl = get_dev_cntl(dev_id);
    return *dev_cntl != nullptr ? RC_OK : RC_DEV_NOT_FOUND;
}

} // namespace sf
