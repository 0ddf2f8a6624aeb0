#include "output_text.h"

#include <cstring>

#include "../json_helpers.h"
#include "../sf_tunables.h"

namespace {

constexpr int TEXT_ANCHOR = 1 << 20; /* a type cJSON never gives a node */
constexpr size_t INT_TEXT_MAX = SF_INT_TEXT_MAX;

/* Length of text as cJSON prints a string, quotes included. */
size_t escaped_length(const CHAR_T *text)
{
    size_t len = 2;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p != 0; ++p) {
        switch (*p) {
        case '"':
        case '\\':
        case '\b':
        case '\f':
        case '\n':
        case '\r':
        case '\t':
            len += 2;
            break;
        default:
            len += *p < 32 ? 6 : 1;
            break;
        }
    }
    return len;
}

char *write_escaped(char *to, const CHAR_T *text)
{
    static const char HEX[] = "0123456789abcdef";
    *to++ = '"';
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p != 0; ++p) {
        char letter = 0;
        switch (*p) {
        case '"': letter = '"'; break;
        case '\\': letter = '\\'; break;
        case '\b': letter = 'b'; break;
        case '\f': letter = 'f'; break;
        case '\n': letter = 'n'; break;
        case '\r': letter = 'r'; break;
        case '\t': letter = 't'; break;
        default: break;
        }
        if (letter != 0) {
            *to++ = '\\';
            *to++ = letter;
        } else if (*p < 32) {
            *to++ = '\\';
            *to++ = 'u';
            *to++ = '0';
            *to++ = '0';
            *to++ = HEX[*p >> 4];
            *to++ = HEX[*p & 0xF];
        } else {
            *to++ = static_cast<char>(*p);
        }
    }
    *to++ = '"';
    return to;
}

char *write_int(char *to, INT_T value)
{
    char digits[INT_TEXT_MAX];
    size_t n = 0;
    /* in unsigned arithmetic, so the most negative value has a magnitude too */
    unsigned int magnitude = value < 0 ? 0u - static_cast<unsigned int>(value) : static_cast<unsigned int>(value);
    do {
        digits[n++] = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (value < 0) {
        *to++ = '-';
    }
    while (n != 0) {
        *to++ = digits[--n];
    }
    return to;
}

cJSON *make_item(const sf::OutputValue &value)
{
    switch (value.kind) {
    case sf::OutputValue::BOOL:
        return cJSON_CreateBool(value.number);
    case sf::OutputValue::INT:
        return cJSON_CreateNumber(value.number);
    default:
        return cJSON_CreateString(value.text);
    }
}

} // namespace

namespace sf {

void output_begin(OutputText *out, CHAR_T *buf)
{
    out->anchor = cJSON{};
    out->anchor.type = TEXT_ANCHOR;
    out->buf = buf;
    out->buf[0] = '{';
    out->len = 1;
}

void output_end(OutputText *out)
{
    out->buf[out->len++] = '}';
    out->buf[out->len] = '\0';
}

size_t output_bound(const cJSON *report)
{
    size_t bound = 3; /* braces and terminator */
    for (const cJSON *member = report->child; member != nullptr; member = member->next) {
        const size_t key = member->string != nullptr ? escaped_length(member->string) : 2;
        size_t value = INT_TEXT_MAX; /* also "true", "false" */
        if (cJSON_IsString(member) && member->valuestring != nullptr) {
            const size_t text = escaped_length(member->valuestring);
            value = text > value ? text : value;
        }
        bound += key + 1 + value + 1; /* colon and comma */
    }
    return bound;
}

bool add_output(cJSON *object, const CHAR_T *key, const OutputValue &value)
{
    if (object == nullptr || object->type != TEXT_ANCHOR) {
        return add_member(object, key, make_item(value));
    }
    if (key == nullptr || (value.kind == OutputValue::STRING && value.text == nullptr)) {
        return false;
    }
    OutputText *out = reinterpret_cast<OutputText *>(object);
    char *to = out->buf + out->len;
    if (out->len > 1) {
        *to++ = ',';
    }
    to = write_escaped(to, key);
    *to++ = ':';
    switch (value.kind) {
    case OutputValue::BOOL:
        std::memcpy(to, value.number != 0 ? "true" : "false", value.number != 0 ? 4 : 5);
        to += value.number != 0 ? 4 : 5;
        break;
    case OutputValue::INT:
        to = write_int(to, value.number);
        break;
    default:
        to = write_escaped(to, value.text);
        break;
    }
    out->len = static_cast<size_t>(to - out->buf);
    return true;
}

} // namespace sf
