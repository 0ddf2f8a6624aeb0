#include "harness.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/fakes/every_dp_gateway.h"
#include "tests/fakes/fakes.h"
#include "tests/fakes/unclean.h"

namespace sf_fuzz {

namespace {

fake::every_dp::Snapshot &snapshot()
{
    static fake::every_dp::Snapshot snap;
    return snap;
}

/* Application callbacks read every byte they are given, so a bad record shows under ASan. */
volatile size_t sink;

void touch(const void *bytes, size_t len)
{
    const uint8_t *p = static_cast<const uint8_t *>(bytes);
    size_t sum = 0;
    for (size_t i = 0; i < len; ++i) {
        sum += p[i];
    }
    sink = sink + sum;
}

void touch_text(const char *text)
{
    if (text != nullptr) {
        touch(text, std::strlen(text) + 1);
    }
}

void on_obj(const KL_RECV_OBJ_DP_S *rec)
{
    touch_text(rec->cid);
    touch_text(rec->mb_id);
    for (UINT_T i = 0; i < rec->dps_cnt; ++i) {
        touch(&rec->dps[i], sizeof rec->dps[i]);
        if (rec->dps[i].type == PROP_STR) {
            touch_text(rec->dps[i].value.dp_str);
        }
    }
}

void on_raw(const KL_RECV_RAW_DP_S *rec)
{
    touch_text(rec->cid);
    touch_text(rec->mb_id);
    touch(rec->data, rec->len);
}

void on_query(const KL_DP_QUERY_S *rec)
{
    touch_text(rec->cid);
    touch(rec->dpid, rec->cnt);
}

/* A result the application gives for a device: spread over 0, 1..4, other codes, from its id. */
OPERATE_RET app_result(const CHAR_T *dev_id)
{
    touch_text(dev_id);
    return dev_id != nullptr && dev_id[0] != '\0' ? static_cast<OPERATE_RET>(dev_id[0] % 8) - 1 : RC_OK;
}

OPERATE_RET on_group(GRP_ACTION_E, const CHAR_T *dev_id, const CHAR_T *grp_id)
{
    touch_text(grp_id);
    return app_result(dev_id);
}

OPERATE_RET on_scene(SCE_ACTION_E, const CHAR_T *dev_id, const CHAR_T *grp_id, const CHAR_T *sce_id)
{
    touch_text(grp_id);
    touch_text(sce_id);
    return app_result(dev_id) == 3 ? -7 : RC_OK;
}

[[noreturn]] void fail(const std::string &what)
{
    std::fprintf(stderr, "smart frame fuzz: %s\n%s", what.c_str(), fake::log::dump().c_str());
    std::abort();
}

} // namespace

Channels channels_from(uint8_t bits)
{
    Channels c;
    c.lan_takes = (bits & 0x01) != 0;
    c.lan_broken = (bits & 0x02) != 0;
    c.mqtt_refuses = (bits & 0x04) != 0;
    c.mqtt_fails = (bits & 0x08) != 0;
    c.net_down = (bits & 0x10) != 0;
    return c;
}

void start_once()
{
    static bool started = false;
    if (started) {
        return;
    }
    started = true;
    fake::reset_all();
    fake::every_dp::build();
    if (smart_frame_init() != RC_OK) {
        fail("smart_frame_init failed");
    }
    GW_CNTL_S *gw = fake::registry::gw();
    gw->cbs.dev_obj_dp_cb = on_obj;
    gw->cbs.dev_raw_dp_cb = on_raw;
    gw->cbs.dev_dp_query_cb = on_query;
    gw->gw_cbs.gw_dev_grp_cb = on_group;
    gw->gw_cbs.gw_dev_scene_cb = on_scene;
    snapshot().take();
}

void begin_run(const Channels &channels)
{
    start_once();
    snapshot().restore();
    fake::lan::set_result(channels.lan_broken ? RC_FAIL : channels.lan_takes ? RC_OK : RC_LAN_NOT_SENT);
    fake::lan::set_frame_result(channels.lan_broken ? RC_FAIL : RC_OK);
    fake::mqtt::set_dp_report_result(channels.mqtt_refuses ? RC_FAIL : RC_OK);
    fake::mqtt::set_prot_result(channels.mqtt_refuses ? RC_FAIL : RC_OK);
    fake::mqtt::set_query_result(channels.mqtt_refuses ? RC_FAIL : RC_OK);
    fake::mqtt::set_auto_complete(fake::mqtt::AutoComplete::Inline, channels.mqtt_fails ? RC_FAIL : RC_OK);
    fake::registry::set_nw_status(channels.net_down ? GW_NW_NONE : GW_NW_CLOUD);
}

void end_run()
{
    fake::msgq::run_all();
    /* the DP sync re-sends what a failed report left; with the network back it publishes */
    fake::registry::set_nw_status(GW_NW_CLOUD);
    fake::mqtt::set_dp_report_result(RC_OK);
    fake::timers::advance(2100);
    fake::msgq::run_all();
    fake::mqtt::complete_all(RC_OK);
    const std::string problems = fake::unclean();
    if (!problems.empty()) {
        fail(problems);
    }
    fake::forget_history();
}

int run_report(const uint8_t *data, size_t size, ReportBody body)
{
    if (size < 1) {
        return 0;
    }
    static const CHAR_T *const devices[] = {nullptr, fake::every_dp::SUB_ID, fake::every_dp::UNBOUND_ID, "nobody",
                                            "GW0001"};
    begin_run(channels_from(static_cast<uint8_t>(data[0] >> 3)));
    body(devices[(data[0] & 7) % 5], (size & 1) != 0 ? TRUE : FALSE, as_text(data + 1, size - 1));
    end_run();
    return 0;
}

std::string as_text(const uint8_t *data, size_t size)
{
    return std::string(reinterpret_cast<const char *>(data), size);
}

cJSON *parse(const uint8_t *data, size_t size)
{
    return cJSON_ParseWithLength(reinterpret_cast<const char *>(data), size);
}

} // namespace sf_fuzz
