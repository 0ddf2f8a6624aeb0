/*
 * DP text composition from the application's typed records: the input is
 * cut into 8-byte records (DP number, property type, 32-bit value, 16-bit
 * time stamp); a string record points at the text that follows the
 * records (up to the first NUL). The first byte picks the device and
 * whether the time text is asked for. A composed text must be valid to
 * print and is released as the application would.
 */
#include <cstring>
#include <vector>

#include "harness.h"

#include "tests/fakes/every_dp_gateway.h"

namespace {

constexpr size_t RECORD_BYTES = 8;
constexpr size_t MAX_RECORDS = 64;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    static const CHAR_T *const devices[] = {fake::every_dp::SUB_ID, fake::every_dp::GW_ID, "nobody", nullptr};
    sf_fuzz::begin_run(sf_fuzz::Channels{});
    const uint8_t control = data[0];
    const uint8_t count = static_cast<uint8_t>(data[1] % (MAX_RECORDS + 1));
    size_t at = 2;
    std::vector<KL_OBJ_DP_S> records;
    for (uint8_t i = 0; i < count && at + RECORD_BYTES <= size; ++i, at += RECORD_BYTES) {
        KL_OBJ_DP_S rec{};
        rec.dpid = data[at];
        rec.type = static_cast<DP_PROP_TP_E>(data[at + 1] % 7);
        UINT_T value = 0;
        std::memcpy(&value, data + at + 2, sizeof value);
        rec.value.dp_bitmap = value;
        rec.time_stamp = static_cast<UINT_T>(data[at + 6] | data[at + 7] << 8) * 65537u;
        records.push_back(rec);
    }
    const std::string text = sf_fuzz::as_text(data + at, size - at);
    for (KL_OBJ_DP_S &rec : records) {
        if (rec.type == PROP_STR) {
            rec.value.dp_str = const_cast<CHAR_T *>(text.c_str());
        }
    }
    CHAR_T *out = nullptr;
    CHAR_T *time = nullptr;
    const OPERATE_RET rc = sf_dp_data_composition(devices[control & 3], records.empty() ? nullptr : records.data(),
                                                  static_cast<UINT_T>(records.size()), &out,
                                                  (control & 4) != 0 ? &time : nullptr);
    if (rc == RC_OK) {
        if (out == nullptr || out[0] != '{' || out[std::strlen(out) - 1] != '}') {
            __builtin_trap();
        }
        Free(out);
        Free(time);
    }
    sf_fuzz::end_run();
    return 0;
}
