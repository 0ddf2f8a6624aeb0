/*
 * The report document: {"dps":<data>} for the gateway's own DPs, with
 * ,"cid":"<id>" for a sub-device and ,"t":<time> when a time is given,
 * always in that key order. <data> and <time> are inserted as they stand.
 */
#include <strings.h>

#include <cstring>

#include "../../services/uni_memory.h"
#include "../sf_log.h"
#include "report.h"
#include "../sf_tunables.h"

namespace {
constexpr size_t ENVELOPE_SLACK = SF_ENVELOPE_SLACK;

CHAR_T *append(CHAR_T *to, const CHAR_T *text, size_t len)
{
    std::memcpy(to, text, len);
    return to + len;
}

/* The pieces of one envelope. */
struct Pieces {
    const CHAR_T *data;
    size_t data_len;
    const CHAR_T *id; /* NULL for the gateway's own DPs: no "cid" */
    size_t id_len;
    const CHAR_T *time; /* may be NULL */
    size_t time_len;

    Pieces(const CHAR_T *data_text, const CHAR_T *time_text)
        : data(data_text), data_len(std::strlen(data_text)), id(nullptr), id_len(0), time(time_text),
          time_len(time_text != nullptr ? std::strlen(time_text) : 0)
    {
    }

    /*
     * The "cid" to write, if any. It reads the gateway's record from the
     * registry, which the envelope does after its allocation.
     */
    void name_device(const DEV_CNTL_N_S *dev_cntl)
    {
        /* a device whose id is the gateway's, in any letter case, reports the gateway's own DPs */
        if (strcasecmp(dev_cntl->dev_if.id, get_gw_cntl()->gw_if.id) != 0) {
            id = dev_cntl->dev_if.id;
            while (id_len < sizeof dev_cntl->dev_if.id && id[id_len] != '\0') {
                ++id_len;
            }
        }
    }

    /* what the envelope's buffer is allocated for: the text always fits it */
    size_t buffer_size() const { return data_len + time_len + ENVELOPE_SLACK; }

    /*
     * Copied piece by piece rather than formatted: the pieces are known and
     * formatting cost more than the rest of the envelope. The id is at most
     * its array's size (DEV_ID_LEN and a terminator), so the text fits the
     * slack.
     */
    void write(CHAR_T *to) const
    {
        to = append(to, "{\"dps\":", 7);
        to = append(to, data, data_len);
        if (id != nullptr) {
            to = append(to, ",\"cid\":\"", 8);
            to = append(to, id, id_len);
            to = append(to, "\"", 1);
        }
        if (time != nullptr) {
            to = append(to, ",\"t\":", 5);
            to = append(to, time, time_len);
        }
        to[0] = '}';
        to[1] = '\0';
    }
};

} // namespace

extern "C" OPERATE_RET __sf_add_devid_time_to_dpstr(const DEV_CNTL_N_S *dev_cntl, const CHAR_T *data,
                                                    const CHAR_T *time, CHAR_T **pp_out)
{
    if (dev_cntl == nullptr || data == nullptr || pp_out == nullptr) {
        SF_LOG_ERR("Invalid Param");
        return RC_BAD_PARAM;
    }
    Pieces pieces(data, time);
    const size_t size = pieces.buffer_size();
    CHAR_T *buf = static_cast<CHAR_T *>(Malloc(size));
    if (buf == nullptr) {
        SF_LOG_ERR("Malloc Fails %d", static_cast<INT_T>(size));
        return RC_NO_MEMORY;
    }
    /*
     * Cleared whole, not just terminated: the caller owns all `size` bytes,
     * and what it finds past the text is defined (zeros), not whatever the
     * heap left there.
     */
    std::memset(buf, 0, size);
    pieces.name_device(dev_cntl);
    pieces.write(buf);

    SF_LOG_DETAIL("added buf:%s", buf);
    *pp_out = buf;
    return RC_OK;
}
