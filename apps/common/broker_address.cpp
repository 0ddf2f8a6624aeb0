#include "broker_address.h"

#include "json_reader.h"

namespace apps {

bool parse_broker_address(const std::string &text, std::string *host, int *port)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return false;
    }
    std::string name = text.substr(0, colon);
    if (name.front() == '[') {
        if (name.size() < 3 || name.back() != ']') {
            return false;
        }
        name = name.substr(1, name.size() - 2);
    } else if (name.find(':') != std::string::npos) {
        return false; // an IPv6 address needs its brackets, or its last group reads as the port
    }
    int number = 0;
    if (!parse_int(text.substr(colon + 1), 1, 65535, &number)) {
        return false;
    }
    *host = name;
    *port = number;
    return true;
}

} // namespace apps
