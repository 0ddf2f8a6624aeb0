#include "json_reader.h"

#include <cstdlib>

namespace apps {

bool parse_int(const std::string &text, long lo, long hi, int *out)
{
    char *end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || value < lo || value > hi) {
        return false;
    }
    *out = static_cast<int>(value);
    return true;
}

} // namespace apps
