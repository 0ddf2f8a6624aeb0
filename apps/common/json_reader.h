/*
 * The apps' side of reading JSON: the description's reader lives in the
 * gateway layer (gateway/description/desc_reader.h), shared with the
 * registry; these are the few names the apps use from it, plus the
 * command line's number reader.
 */
#ifndef APPS_COMMON_JSON_READER_H
#define APPS_COMMON_JSON_READER_H

#include <cjson/cJSON.h>

#include <string>

#include "gateway/description/desc_reader.h"

namespace apps {

/* Owner of a parsed or built cJSON tree. */
using Json = gw_desc::Json;

/* Whether node is a number with an integral value. */
using gw_desc::is_integer;

/* Whole decimal text within lo..hi into *out; false (and *out untouched) otherwise. */
bool parse_int(const std::string &text, long lo, long hi, int *out);

} // namespace apps

#endif /* APPS_COMMON_JSON_READER_H */
