/*
 * JSON helpers shared by the MQTT client and the LAN channel: the bound
 * on inbound documents and the embedding of outbound texts.
 */
#ifndef GATEWAY_EDGE_WIRE_JSON_H
#define GATEWAY_EDGE_WIRE_JSON_H

#include <cjson/cJSON.h>

#include <cstddef>
#include <initializer_list>
#include <string>

#include "services/uni_rfc.h"
#include "smart_frame/smart_frame.h"

namespace sf_wire {

/*
 * The report message a block carries (MSG_DATA_S), or nullptr when the
 * block is null or too short for the length its message claims.
 */
const MSG_DATA_S *message_of(const RFC_DATA_S *block);

/*
 * Whether text (len bytes, need not be terminated) may be handed to the
 * parser: at most max_bytes long and nested at most max_depth deep
 * (objects and arrays, counted outside strings). cJSON parses
 * recursively, one stack frame per level, and the channels' threads have
 * small stacks, so depth is checked by this flat scan before parsing.
 * On false, *why names the reason for the log.
 */
bool within_bounds(const char *text, size_t len, size_t max_bytes, size_t max_depth, const char **why);

/*
 * Parse text after within_bounds. Returns the document (release with
 * cJSON_Delete) or nullptr; *why as above. The text may contain bytes
 * after the document only as white space. With the edge check on, a
 * string holding a NUL is kept whole as its JSON text (wire_nul.h).
 */
cJSON *parse_bounded(const char *text, size_t len, size_t max_bytes, size_t max_depth, const char **why);

/*
 * The JSON value that carries an outbound text: the text itself when it
 * is one JSON value (every document of the smart frame is), otherwise the
 * text as a JSON string, so the frame around it stays well-formed.
 */
std::string embed_value(const char *text, size_t len);

/*
 * One outbound frame: {"<k1>":<v1>,...,"data":<embed_value(text)>}, the
 * numbers in the order given. Both channels frame what they send this way.
 */
struct NumberField {
    const char *key;
    long long value;
};
std::string wrap_frame(std::initializer_list<NumberField> numbers, const char *text, size_t len);

/* text as a JSON string literal, quotes included. */
std::string quote(const char *text, size_t len);

} // namespace sf_wire

#endif /* GATEWAY_EDGE_WIRE_JSON_H */
