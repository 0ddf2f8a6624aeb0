/*
 * Which device ids a description may hold. The backends and the module write
 * ids into JSON texts (reports, presence batches, answers) as they are,
 * without escaping, so an id with a quote, a backslash or a control
 * character would break every document it appears in. Such ids are refused
 * when a device is loaded or added, never escaped later.
 */
#include <cstdio>

#include "desc_model.h"

namespace gw_desc {

namespace {

bool needs_escape(unsigned char c)
{
    return c == '"' || c == '\\' || c < 0x20 || c == 0x7f;
}

} // namespace

bool id_fits_json(const std::string &id)
{
    for (const char c : id) {
        if (needs_escape(static_cast<unsigned char>(c))) {
            return false;
        }
    }
    return true;
}

std::string quoted_id(const std::string &id)
{
    std::string text = "\"";
    for (const char c : id) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte == '"' || byte == '\\') {
            text += '\\';
            text += c;
        } else if (needs_escape(byte)) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            text += escaped;
        } else {
            text += c;
        }
    }
    return text + "\"";
}

} // namespace gw_desc
