/*
 * Counts the parses of one text through cJSON's public parse functions,
 * which this test program defines over the library's own (the calls are
 * passed on to the library). A nested call (cJSON_Parse calls
 * cJSON_ParseWithOpts inside the library) counts once.
 */
#ifndef TESTS_APPS_PARSE_COUNT_CJSON_PARSE_COUNTER_H
#define TESTS_APPS_PARSE_COUNT_CJSON_PARSE_COUNTER_H

#include <string>

namespace parse_counter {

/* Start counting the parses of a text equal to watched (and of any text). */
void watch(const std::string &watched);
/* Parses of the watched text since watch(). */
int watched_parses();
/* Parses of any text since watch(). */
int all_parses();

} // namespace parse_counter

#endif
