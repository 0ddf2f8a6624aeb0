/*
 * Heap of the OS layer. Every heap byte of the smart frame goes through
 * this pair, and the backend installs it as cJSON's allocator, so texts
 * printed by cJSON are released with Free too.
 */
#ifndef UNI_MEMORY_H
#define UNI_MEMORY_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* size bytes, contents undefined; NULL on exhaustion (there is no result code). Any thread. */
void *Malloc(size_t size);

/* Release a block from Malloc or a text printed by cJSON; NULL is ignored. Any thread. */
void Free(void *ptr);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* UNI_MEMORY_H */
