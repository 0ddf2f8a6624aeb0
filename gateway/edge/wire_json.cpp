/*
 * Bounds and embedding of the channels' JSON documents.
 */
#include "wire_json.h"

#include "wire_nul.h"
#include "wire_validate.h"

#include <cstdio>

namespace sf_wire {

namespace {

bool only_space(const char *from, const char *to)
{
    for (; from < to; ++from) {
        if (*from != ' ' && *from != '\t' && *from != '\r' && *from != '\n' && *from != '\0') {
            return false;
        }
    }
    return true;
}

} // namespace

const MSG_DATA_S *message_of(const RFC_DATA_S *block)
{
    if (block == nullptr || block->data == nullptr || block->data_len < sizeof(MSG_DATA_S)) {
        return nullptr;
    }
    const auto *msg = static_cast<const MSG_DATA_S *>(block->data);
    /* subtracted, not added: len + 8 wraps where size_t is 32 bits */
    return msg->len <= block->data_len - sizeof(MSG_DATA_S) ? msg : nullptr;
}

bool within_bounds(const char *text, size_t len, size_t max_bytes, size_t max_depth, const char **why)
{
    if (text == nullptr || len == 0) {
        *why = "empty document";
        return false;
    }
    if (len > max_bytes) {
        *why = "document too large";
        return false;
    }
    size_t depth = 0;
    bool in_string = false;
    bool escaped = false;
    for (size_t i = 0; i < len; ++i) {
        const char c = text[i];
        if (in_string) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                in_string = false;
            }
            continue;
        }
        if (c == '"') {
            in_string = true;
        } else if (c == '{' || c == '[') {
            if (++depth > max_depth) {
                *why = "document nested too deep";
                return false;
            }
        } else if ((c == '}' || c == ']') && depth > 0) {
            --depth;
        }
    }
    return true;
}

cJSON *parse_bounded(const char *text, size_t len, size_t max_bytes, size_t max_depth, const char **why)
{
    if (!within_bounds(text, len, max_bytes, max_depth, why)) {
        return nullptr;
    }
    const char *end = nullptr;
    cJSON *doc = cJSON_ParseWithLengthOpts(text, len, &end, false);
    if (doc == nullptr) {
        *why = "not JSON";
        return nullptr;
    }
    if (end == nullptr || !only_space(end, text + len)) {
        cJSON_Delete(doc);
        *why = "bytes after the document";
        return nullptr;
    }
    if (wire_command_checks() != FALSE) {
        keep_nul_strings_whole(text, len, doc); /* refused by the edge check; off, commands go on as they come */
    }
    return doc;
}

std::string quote(const char *text, size_t len)
{
    std::string out;
    out.reserve(len + 2);
    out += '"';
    for (size_t i = 0; i < len; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char esc[8];
                std::snprintf(esc, sizeof esc, "\\u%04x", c);
                out += esc;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    out += '"';
    return out;
}

std::string embed_value(const char *text, size_t len)
{
    if (text != nullptr && len > 0) {
        const char *end = nullptr;
        cJSON *doc = cJSON_ParseWithLengthOpts(text, len, &end, false);
        const bool whole = doc != nullptr && end != nullptr && only_space(end, text + len);
        cJSON_Delete(doc);
        if (whole) {
            size_t used = len;
            while (used > 0 && text[used - 1] == '\0') {
                --used;
            }
            // A valid document has line breaks only as white space between
            // tokens; blanks keep the LAN's one-frame-per-line framing.
            std::string out(text, used);
            for (char &c : out) {
                if (c == '\n' || c == '\r') {
                    c = ' ';
                }
            }
            return out;
        }
    }
    return quote(text == nullptr ? "" : text, text == nullptr ? 0 : len);
}

std::string wrap_frame(std::initializer_list<NumberField> numbers, const char *text, size_t len)
{
    std::string out = "{";
    for (const NumberField &field : numbers) {
        out += '"';
        out += field.key;
        out += "\":";
        out += std::to_string(field.value);
        out += ',';
    }
    out += "\"data\":";
    out += embed_value(text, len);
    out += '}';
    return out;
}

} // namespace sf_wire
