/*
 * The end-of-scenario check shared by the unit tests (sf_fixture.h) and
 * the fuzz targets, which run without GoogleTest.
 */
#ifndef SF_TEST_UNCLEAN_H
#define SF_TEST_UNCLEAN_H

#include <string>

#include "fakes.h"

namespace fake {

/*
 * What a finished scenario left behind, one line per problem; empty when
 * clean. The LAN channel first writes (releases) what it holds and the
 * MQTT completion threads are joined.
 */
inline std::string unclean()
{
    mqtt::join_threads();
    lan::release_held();
    std::string problems;
    if (mqtt::pending() != 0) {
        problems += std::to_string(mqtt::pending()) + " publications accepted but never completed\n";
    }
    if (msgq::pending() != 0) {
        problems += std::to_string(msgq::pending()) + " posted messages never handled\n";
    }
    if (rfc::live() != 0) {
        problems += std::to_string(rfc::live()) + " message blocks still referenced\n";
    }
    if (mem::live_blocks() != 0) {
        problems += std::to_string(mem::live_blocks()) + " leaked blocks:\n" + mem::leak_report();
    }
    for (const std::string &v : contract::violations()) {
        problems += "contract broken: " + v + "\n";
    }
    return problems;
}

} // namespace fake

#endif /* SF_TEST_UNCLEAN_H */
