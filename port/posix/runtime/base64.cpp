/*
 * Base64 with the standard alphabet and '=' padding. Decoding rejects
 * anything that is not well-formed (wrong length, foreign characters,
 * padding in the middle), so a corrupt command never becomes bytes.
 */
#include <cstring>

#include "services/kelo_base64.h"

namespace {

constexpr char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int sextet(char c)
{
    if (c >= 'A' && c <= 'Z') {
        return c - 'A';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 26;
    }
    if (c >= '0' && c <= '9') {
        return c - '0' + 52;
    }
    if (c == '+') {
        return 62;
    }
    if (c == '/') {
        return 63;
    }
    return -1;
}

} // namespace

extern "C" void kelo_base64_encode(const BYTE_T *src, CHAR_T *dst, UINT_T len)
{
    UINT_T out = 0;
    UINT_T i = 0;
    for (; i + 2 < len; i += 3) {
        const UINT_T v = (UINT_T(src[i]) << 16) | (UINT_T(src[i + 1]) << 8) | src[i + 2];
        dst[out++] = ALPHABET[(v >> 18) & 63];
        dst[out++] = ALPHABET[(v >> 12) & 63];
        dst[out++] = ALPHABET[(v >> 6) & 63];
        dst[out++] = ALPHABET[v & 63];
    }
    if (i < len) {
        const bool two = (i + 1 < len);
        const UINT_T v = (UINT_T(src[i]) << 16) | (two ? UINT_T(src[i + 1]) << 8 : 0);
        dst[out++] = ALPHABET[(v >> 18) & 63];
        dst[out++] = ALPHABET[(v >> 12) & 63];
        dst[out++] = two ? ALPHABET[(v >> 6) & 63] : '=';
        dst[out++] = '=';
    }
    dst[out] = '\0';
}

extern "C" INT_T kelo_base64_decode(const CHAR_T *text, BYTE_T *dst)
{
    if (text == nullptr || dst == nullptr) {
        return -1;
    }
    const size_t len = std::strlen(text);
    if (len % 4 != 0) {
        return -1;
    }
    INT_T out = 0;
    for (size_t i = 0; i < len; i += 4) {
        const bool last = (i + 4 == len);
        int v[4];
        int pad = 0;
        for (int k = 0; k < 4; ++k) {
            const char c = text[i + k];
            if (c == '=' && last && k >= 2) {
                v[k] = 0;
                ++pad;
                continue;
            }
            if (pad > 0) {
                return -1; /* data after padding */
            }
            v[k] = sextet(c);
            if (v[k] < 0) {
                return -1;
            }
        }
        const UINT_T bits = (UINT_T(v[0]) << 18) | (UINT_T(v[1]) << 12) | (UINT_T(v[2]) << 6) | UINT_T(v[3]);
        dst[out++] = static_cast<BYTE_T>(bits >> 16);
        if (pad < 2) {
            dst[out++] = static_cast<BYTE_T>(bits >> 8);
        }
        if (pad < 1) {
            dst[out++] = static_cast<BYTE_T>(bits);
        }
    }
    return out;
}
