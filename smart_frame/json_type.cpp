#include "json_type.h"

namespace sf {

INT_T json_type(const cJSON *node)
{
    if (node == nullptr) {
        return -1;
    }
    /* Low byte holds exactly one type bit; the bits above are reference flags. */
    const unsigned bits = static_cast<unsigned>(node->type) & 0xFFu;
    INT_T classic = 0;
    while (classic < JSON_RAW && (bits & (1u << classic)) == 0) {
        ++classic;
    }
    return classic;
}

} // namespace sf
