/*
 * Base64 coding, standard alphabet with '=' padding.
 */
#ifndef KELO_BASE64_H
#define KELO_BASE64_H

#include "../cloud_defs/kelo_cloud_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Encode len bytes of src into dst: 4 * ceil(len / 3) characters and a terminator. No result; any thread. */
void kelo_base64_encode(const BYTE_T *src, CHAR_T *dst, UINT_T len);

/*
 * Decode the NUL-terminated text into dst (room for 3 * strlen(text) / 4
 * bytes is enough). Returns the number of bytes written, or -1 when the
 * text is not well-formed base64, or text or dst is NULL (dst contents are
 * then undefined).
 * No other result. Any thread.
 */
INT_T kelo_base64_decode(const CHAR_T *text, BYTE_T *dst);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* KELO_BASE64_H */
