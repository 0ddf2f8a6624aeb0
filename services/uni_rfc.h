/*
 * Reference-counted data blocks: one payload shared by several holders
 * (the report path, the LAN channel, the MQTT client); each holder
 * releases its own reference and the last release frees the payload.
 */
#ifndef UNI_RFC_H
#define UNI_RFC_H

#include "../cloud_defs/kelo_cloud_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
    MUTEX_HANDLE mutex;    /* the backend's guard of rfc, if it uses one (POSIX: NULL, atomic rfc) */
    BOOL_T       malk;     /* data and block are one allocation */
    UINT_T       rfc;      /* current reference count */
    UINT_T       data_len;
    void        *data;
} RFC_DATA_S;

/*
 * Wrap data with rfc initial references (rfc MUST be at least 1).
 * malk FALSE: ownership of data passes to the block; it is released with
 * Free on the last put. malk TRUE: the block holds a copy of the data_len
 * bytes of data in the same allocation, and data stays the caller's.
 * NULL (there is no result code) when the block cannot be allocated, rfc
 * is 0, or malk is TRUE with data NULL and data_len non-zero; data is then
 * still the caller's. Any thread.
 */
RFC_DATA_S *cr_rfc_data(void *data, UINT_T data_len, BOOL_T malk, UINT_T rfc);

/* Add a reference. Any thread. */
void get_rfc_data(RFC_DATA_S *rfc_data);

/* Drop a reference; the last one frees the block and its data. A put without a
 * reference left is a programming error. Any thread. */
void put_rfc_data(RFC_DATA_S *rfc_data);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* UNI_RFC_H */
