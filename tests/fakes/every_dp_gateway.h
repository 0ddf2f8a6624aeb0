/*
 * One gateway description that holds a DP of every kind the module knows,
 * with values already confirmed, for tests that drive every path at once
 * (fuzz targets, allocation-failure sweeps). Built on the registry fake.
 */
#ifndef SF_TEST_EVERY_DP_GATEWAY_H
#define SF_TEST_EVERY_DP_GATEWAY_H

#include <string>
#include <vector>

#include "fakes.h"

namespace fake {
namespace every_dp {

/* DP numbers, the same on every device */
constexpr BYTE_T DP_BOOL = 1;       /* bool, known true */
constexpr BYTE_T DP_VALUE = 2;      /* value -100..100, known 25 */
constexpr BYTE_T DP_STR = 3;        /* string of at most 16, known "abc" */
constexpr BYTE_T DP_ENUM = 4;       /* enum low/mid/high, known "mid" */
constexpr BYTE_T DP_BITMAP = 5;     /* bitmap of 31 bits, known 5 */
constexpr BYTE_T DP_RAW = 6;        /* raw */
constexpr BYTE_T DP_FILE = 7;       /* file: never accepted */
constexpr BYTE_T DP_PASSIVE = 8;    /* passive bool (held on a preprocessing device), known false */
constexpr BYTE_T DP_WRITE_ONLY = 9; /* write-only bool */
constexpr BYTE_T DP_ALWAYS = 10;    /* bool reported on every call, known false */
constexpr BYTE_T DP_FLOW = 11;      /* value 0..1000, one report per 60 s, known 7 */
constexpr BYTE_T DP_STR_UNSET = 12; /* string DP whose value buffer is NULL */
constexpr BYTE_T DP_BAD_PROP = 13;  /* object DP with a property type the module does not know */

extern const char *const GW_ID;      /* the gateway's own node: "gw0001" */
extern const char *const SUB_ID;     /* bound sub-device with preprocessing: "sub01" */
extern const char *const UNBOUND_ID; /* unbound sub-device: "sub02" */

/* Set the gateway and its two sub-devices on the registry fake, every DP at its known value. */
void build();

/* The DP tables (schema, values, string texts, publish states, cycles) of every device, to put back later. */
class Snapshot {
public:
    void take();
    void restore() const;

private:
    struct Device {
        DEV_CNTL_N_S *node;
        DEV_ACTV_ATTR_S attr;
        std::vector<DP_CNTL_S> dps;
        std::vector<std::string> texts; /* string DP contents, by DP index */
    };
    std::vector<Device> devices_;
};

} // namespace every_dp
} // namespace fake

#endif /* SF_TEST_EVERY_DP_GATEWAY_H */
