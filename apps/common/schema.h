/*
 * The DP schemas of a gateway description, as the apps need them: names
 * for people, types and limits to turn a typed-in value into the JSON the
 * smart frame expects, and back into text for display. They are a view of
 * the gateway's model (gateway/description/desc_model.h), which the
 * daemon's registry loads: both read the description through one reader.
 */
#ifndef APPS_COMMON_SCHEMA_H
#define APPS_COMMON_SCHEMA_H

#include <cjson/cJSON.h>

#include <string>
#include <vector>

#include "gateway/description/desc_model.h"

namespace apps {

struct DpSchema {
    int id = 0;
    std::string name;
    std::string mode = "rw"; /* rw, wr, ro */
    std::string type = "obj"; /* obj, raw, file */
    std::string prop;         /* bool, value, str, enum, bitmap; empty for raw and file */
    long long min = 0;
    long long max = 0;
    int step = 1;
    int scale = 0;
    long long max_len = 0; /* str: characters; bitmap: bits */
    std::vector<std::string> range;
    bool passive = false;
    bool has_flow = false;

    /* "switch (1)" or "1" when the DP has no name. */
    std::string label() const;
};

struct DeviceSchema {
    std::string id;
    bool bind = true;
    bool preprocess = false;
    std::vector<DpSchema> dps;

    const DpSchema *find(int dpid) const;
    /* By name, or by number written in decimal. */
    const DpSchema *find(const std::string &name_or_id) const;
};

/* The apps' view of one device of the model. */
DeviceSchema schema_of(const gw_desc::DeviceLayout &device);

/*
 * A value typed by a person ("on", "25", "21.5" for a DP with scale 1,
 * "colour" or its index for an enum) as the JSON value of a command,
 * e.g. true, 25, 215, "colour". false with *why when it does not fit.
 */
bool value_json_from_text(const DpSchema &dp, const std::string &text, std::string *json, std::string *why);

/* Whether a JSON value fits the DP (type, range, enum name, length); *why tells why not. */
bool value_fits(const DpSchema &dp, const cJSON *value, std::string *why);

/* A reported value for people: 21.5 for 215 with scale 1, names and texts as they are. */
std::string display_value(const DpSchema *dp, const cJSON *value);

/* Two JSON values the same (numbers by value, texts byte for byte)? */
bool json_equal(const cJSON *a, const cJSON *b);

/* Unformatted JSON text of a node ("null" for NULL). */
std::string json_text(const cJSON *node);

/* The text between double quotes, with JSON escapes. */
std::string json_quote(const std::string &text);

} // namespace apps

#endif /* APPS_COMMON_SCHEMA_H */
