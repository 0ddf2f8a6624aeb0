#include "dp_scan.h"

#include <cstring>
#include "../sf_tunables.h"

namespace {

constexpr size_t MAX_NUMBER_LEN = SF_SCAN_NUMBER_MAX;

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

class Scanner {
public:
    explicit Scanner(const char *text) : p_(text) {}

    bool eat(char c)
    {
        if (*p_ != c) {
            return false;
        }
        ++p_;
        return true;
    }

    bool at_end() const { return *p_ == '\0'; }
    char peek() const { return *p_; }

    /* A string without escapes or control characters; [*s, *s + *len) is its content. */
    bool string(const char **s, size_t *len)
    {
        if (!eat('"')) {
            return false;
        }
        const char *begin = p_;
        for (;; ++p_) {
            const unsigned char c = static_cast<unsigned char>(*p_);
            if (c == '"') {
                break;
            }
            if (c < 0x20 || c == '\\') { /* the terminator too */
                return false;
            }
        }
        *s = begin;
        *len = static_cast<size_t>(p_ - begin);
        ++p_;
        return true;
    }

    /* A string, a number, true, false or null. */
    bool scalar()
    {
        const char *s;
        size_t len;
        switch (*p_) {
        case '"':
            return string(&s, &len);
        case 't':
            return word("true");
        case 'f':
            return word("false");
        case 'n':
            return word("null");
        default:
            return number();
        }
    }

    /* A scalar, or an object of scalars. */
    bool flat_value()
    {
        if (*p_ != '{') {
            return scalar();
        }
        ++p_;
        if (eat('}')) {
            return true;
        }
        do {
            const char *s;
            size_t len;
            if (!string(&s, &len) || !eat(':') || !scalar()) {
                return false;
            }
        } while (eat(','));
        return eat('}');
    }

    /* The members of a DP object (after its '{') up to and with its '}'. */
    bool dp_members(sf::ScannedDps *out)
    {
        size_t used = 0;
        if (eat('}')) {
            return true;
        }
        do {
            const char *key;
            size_t len;
            if (!string(&key, &len) || !eat(':') || !scalar()) {
                return false;
            }
            if (out->count == sf::SCAN_MAX_MEMBERS || len + 1 > sf::SCAN_KEY_BYTES - used) {
                return false;
            }
            char *copy = out->keys + used;
            std::memcpy(copy, key, len);
            copy[len] = '\0';
            used += len + 1;
            cJSON &member = out->members[out->count];
            member = cJSON{};
            member.string = copy;
            if (out->count != 0) {
                out->members[out->count - 1].next = &member;
            }
            ++out->count;
        } while (eat(','));
        return eat('}');
    }

private:
    /* A literal, compared a character at a time: nothing is read past a terminator. */
    template <size_t N>
    bool word(const char (&w)[N])
    {
        for (size_t i = 0; i + 1 < N; ++i) {
            if (p_[i] != w[i]) {
                return false;
            }
        }
        p_ += N - 1;
        return true;
    }

    /* JSON's number grammar: -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)? */
    bool number()
    {
        const char *begin = p_;
        eat('-');
        if (!eat('0')) {
            if (!is_digit(*p_)) {
                return false;
            }
            while (is_digit(*p_)) {
                ++p_;
            }
        }
        if (eat('.')) {
            if (!is_digit(*p_)) {
                return false;
            }
            while (is_digit(*p_)) {
                ++p_;
            }
        }
        if (*p_ == 'e' || *p_ == 'E') {
            ++p_;
            if (*p_ == '+' || *p_ == '-') {
                ++p_;
            }
            if (!is_digit(*p_)) {
                return false;
            }
            while (is_digit(*p_)) {
                ++p_;
            }
        }
        return static_cast<size_t>(p_ - begin) <= MAX_NUMBER_LEN;
    }

    const char *p_;
};

template <size_t N>
bool named(const char *key, size_t len, const char (&name)[N])
{
    return len == N - 1 && std::memcmp(key, name, N - 1) == 0;
}

} // namespace

namespace sf {

bool scan_dp_object(const CHAR_T *text, ScannedDps *out)
{
    out->count = 0;
    out->has_cid = false;
    Scanner scan(text);
    return scan.eat('{') && scan.dp_members(out) && scan.at_end();
}

bool scan_envelope(const CHAR_T *text, ScannedDps *out)
{
    out->count = 0;
    out->has_cid = false;
    Scanner scan(text);
    bool seen_dps = false;
    bool seen_cid = false;
    if (!scan.eat('{')) {
        return false;
    }
    if (!scan.eat('}')) {
        do {
            const char *key;
            size_t len;
            if (!scan.string(&key, &len) || !scan.eat(':')) {
                return false;
            }
            if (!seen_dps && named(key, len, "dps")) {
                seen_dps = true;
                if (!scan.eat('{') || !scan.dp_members(out)) {
                    return false;
                }
            } else if (!seen_cid && named(key, len, "cid") && scan.peek() == '"') {
                seen_cid = true;
                const char *id;
                size_t id_len;
                if (!scan.string(&id, &id_len) || id_len + 1 > SCAN_CID_BYTES) {
                    return false;
                }
                std::memcpy(out->cid, id, id_len);
                out->cid[id_len] = '\0';
                out->has_cid = true;
            } else {
                seen_cid = seen_cid || named(key, len, "cid"); /* a cid that is not a string names no device */
                if (!scan.flat_value()) {
                    return false;
                }
            }
        } while (scan.eat(','));
        if (!scan.eat('}')) {
            return false;
        }
    }
    return seen_dps && scan.at_end();
}

} // namespace sf
