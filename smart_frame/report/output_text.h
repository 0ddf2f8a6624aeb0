/*
 * The filter's reduced object, written as text while the filter runs
 * instead of built as a cJSON object and printed afterwards: the same
 * bytes that cJSON_PrintUnformatted would print for the object (members in
 * the order they are added, names and strings escaped as cJSON escapes
 * them, numbers from an int as "%d", booleans as true/false), without an
 * allocation per member and without the printer's buffers.
 *
 * __append_send_json keeps its cJSON object argument: the filter passes
 * the text's anchor node in its place, which add_output recognises; any
 * other object (a caller's own) gets cJSON members exactly as before.
 */
#ifndef SF_REPORT_OUTPUT_TEXT_H
#define SF_REPORT_OUTPUT_TEXT_H

#include <cjson/cJSON.h>

#include <cstddef>

#include "../../cloud_defs/kelo_cloud_types.h"

namespace sf {

/* One member value of the reduced object. */
struct OutputValue {
    enum Kind { BOOL, INT, STRING } kind;
    INT_T number;       /* BOOL: 0 or 1; INT: the value */
    const CHAR_T *text; /* STRING; NULL cannot be added (as cJSON_CreateString(NULL) fails) */
};

/* The text being written. The buffer is the caller's (see output_bound). */
struct OutputText {
    cJSON anchor; /* first: passed where the output object is expected */
    CHAR_T *buf;
    size_t len;
};

/* Start an empty object text in buf. */
void output_begin(OutputText *out, CHAR_T *buf);

/* Close the object and terminate it; the text is then out->buf. */
void output_end(OutputText *out);

/*
 * Bytes the output of the report can take at most, terminator included:
 * every member of the parsed report added once, with the longest text its
 * value can have in the output.
 */
size_t output_bound(const cJSON *report);

/*
 * Add "key":value to object: to the text when object is an OutputText's
 * anchor, otherwise as a new cJSON member. False when the member cannot be
 * made (a NULL string, or a cJSON allocation).
 */
bool add_output(cJSON *object, const CHAR_T *key, const OutputValue &value);

} // namespace sf

#endif /* SF_REPORT_OUTPUT_TEXT_H */
