/*
 * Strings that hold a NUL ("\u0000"). cJSON decodes the escape into the
 * string's bytes, and every reader after it (the module, the application)
 * takes the string as C text, up to the NUL: "on\u0000off" would reach the
 * device as "on". So that no reader can take such a string for a shorter
 * one, the edge keeps it whole as its JSON text: a string value becomes a
 * raw node holding the value as sent (quotes and escapes included), which
 * is no string to any reader, and the edge check refuses it with the code
 * "nul_in_string" (docs/wire-protocol.md, "Refused commands"); a key keeps
 * its escapes as text ("1\u0000" stays those seven characters), so it
 * never names the key before the NUL.
 */
#ifndef GATEWAY_EDGE_WIRE_NUL_H
#define GATEWAY_EDGE_WIRE_NUL_H

#include <cjson/cJSON.h>

#include <cstddef>

namespace sf_wire {

/*
 * doc is the tree parsed from text (len bytes): rewrite its strings that
 * hold a NUL as above. Returns how many were rewritten; 0 leaves the tree
 * untouched (and costs one scan of the text for the escape).
 */
size_t keep_nul_strings_whole(const char *text, size_t len, cJSON *doc);

} // namespace sf_wire

#endif /* GATEWAY_EDGE_WIRE_NUL_H */
