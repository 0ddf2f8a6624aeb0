/*
 * The daemon's one read of its description, for --check and for a start
 * alike: the file is parsed once, the registry's part is checked by the
 * registry's own reader and loaded once to prove it builds, and the apps'
 * sections are read from the same parse.
 */
#ifndef APPS_SFGW_DESCRIPTION_CHECK_H
#define APPS_SFGW_DESCRIPTION_CHECK_H

#include <string>

#include "common/description.h"

namespace sfgw {

/*
 * Read and check file into *out. false with *why = "file: key path: why".
 * Loads the registry and unloads it again: MUST NOT be called while a
 * description is loaded.
 */
bool check_description(const std::string &file, apps::Description *out, std::string *why);

} // namespace sfgw

#endif /* APPS_SFGW_DESCRIPTION_CHECK_H */
