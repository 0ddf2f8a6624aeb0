/*
 * The gateway description as read (docs/gateway-description.md): each
 * device and DP checked and ready to copy into the registry's records.
 * One model for everyone: the registry builds its nodes from it, the apps
 * take their DP schemas from it, and the DP rules (gateway/rules) work on
 * its DP_DESC_IF_S and limits.
 */
#ifndef GATEWAY_DESCRIPTION_DESC_MODEL_H
#define GATEWAY_DESCRIPTION_DESC_MODEL_H

#include <cjson/cJSON.h>

#include <string>
#include <vector>

#include "../../cloud_defs/gw_intf.h"
#include "desc_reader.h"

namespace gw_desc {

/* One DP as described: schema, limits and flow control ready to copy into a DP_CNTL_S. */
struct DpLayout {
    DP_DESC_IF_S desc{};
    DP_PROP_VALUE_U limits{}; /* value fields zero; enum names are in enum_names, not in limits */
    DP_REPT_CNTL_S flow{};
    bool has_flow = false; /* a "flow" object was given (even one of zeros) */
    std::string name;
    std::vector<std::string> enum_names;
};

struct DeviceLayout {
    std::string id;
    std::string sw_ver;
    std::string schema_id;
    std::string product_key;
    bool bind = true;
    bool preprocess = false;
    std::vector<DpLayout> dps;
};

struct GatewayLayout {
    std::string id;
    std::string local_key;
    DeviceLayout own; /* the gateway's own node: its id, DPs and versions */
    std::vector<DeviceLayout> devices;
};

/*
 * Keys of the same document that another reader owns, left alone here
 * (the apps' "connection" at the top and "sim" in a device object).
 */
struct OtherSections {
    std::vector<std::string> top;
    std::vector<std::string> device;
};

/* Check a whole parsed description into *out; false with *error ("file: path: why"), untouched on success. */
bool parse_gateway(const cJSON *root, const std::string &file, const OtherSections &others, GatewayLayout *out,
                   LoadError *error);

/* Check one device object found at path of file, the same way. */
bool parse_device(const cJSON *node, const std::string &file, const std::string &path, const OtherSections &others,
                  DeviceLayout *out, LoadError *error);

/* The description's names of a DP's mode, type and property type ("rw", "obj", "value"). */
const char *mode_name(DP_MODE_E mode);
const char *type_name(DP_TYPE_E type);
const char *prop_name(DP_PROP_TP_E prop);

/* Whether an id can be written into JSON as it is: no quote, backslash or control character. */
bool id_fits_json(const std::string &id);

/* The id in quotes, as a JSON string, for error texts (it may hold what id_fits_json refuses). */
std::string quoted_id(const std::string &id);

} // namespace gw_desc

#endif /* GATEWAY_DESCRIPTION_DESC_MODEL_H */
