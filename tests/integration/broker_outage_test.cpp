/*
 * Reports keep flowing for 200 DPs while the broker goes away and comes
 * back: afterwards the cloud has every DP's last value and every DP is
 * confirmed (pv_stat 3), with no help from the application.
 */
#include <map>
#include <utility>

#include "support/channel_fixture.h"

#include "smart_frame/smart_frame.h"

namespace it {
namespace {

constexpr int DEVICES = 10;
constexpr int DPS = 20;

std::string device_id(int i) { return "dev" + std::to_string(10 + i); }

std::string report_text(int round)
{
    std::string text = "{";
    for (int dp = 1; dp <= DPS; ++dp) {
        text += "\"" + std::to_string(dp) + "\":" + std::to_string(round * 100 + dp) + (dp < DPS ? "," : "}");
    }
    return text;
}

void report_round(int round)
{
    for (int i = 0; i < DEVICES; ++i) {
        // Refused or failed publications are the smart frame's to re-send.
        sf_obj_dp_report_async(device_id(i).c_str(), report_text(round).c_str(), FALSE);
    }
}

/* The last value the cloud received for each (device, DP), in arrival order. */
std::map<std::pair<std::string, int>, int> last_values(const std::vector<Received> &all)
{
    std::map<std::pair<std::string, int>, int> last;
    for (const Received &one : all) {
        cJSON *doc = cJSON_Parse(one.payload.c_str());
        const cJSON *pro = cJSON_GetObjectItemCaseSensitive(doc, "pro");
        const cJSON *data = cJSON_GetObjectItemCaseSensitive(doc, "data");
        const cJSON *cid = cJSON_GetObjectItemCaseSensitive(data, "cid");
        const cJSON *dps = cJSON_GetObjectItemCaseSensitive(data, "dps");
        if (cJSON_IsNumber(pro) && pro->valueint == MQC_PRO_DP_REPORT && cJSON_IsString(cid) && cJSON_IsObject(dps)) {
            for (const cJSON *dp = dps->child; dp != nullptr; dp = dp->next) {
                last[{cid->valuestring, std::atoi(dp->string)}] = dp->valueint;
            }
        }
        cJSON_Delete(doc);
    }
    return last;
}

class BrokerOutage : public ChannelTest {};

TEST_F(BrokerOutage, EveryDpsLastValueArrivesAndEndsConfirmedAfterTheBrokerReturns)
{
    std::vector<DeviceShape> devices;
    for (int i = 0; i < DEVICES; ++i) {
        devices.push_back(DeviceShape{device_id(i), 0, DPS});
    }
    BrokerOptions options;
    options.persistence = true; // the cloud's session and its queue survive the outage
    start(devices, options);

    for (int round = 1; round <= 3; ++round) {
        report_round(round);
    }
    broker_->stop(true);
    for (int round = 4; round <= 6; ++round) {
        report_round(round);
    }
    ASSERT_TRUE(eventually([] { return get_mqc_conn_stat() == 0; }, seconds(10)));
    for (int round = 7; round <= 9; ++round) {
        report_round(round);
    }
    std::string why;
    ASSERT_TRUE(broker_->start(&why)) << why;

    auto all_final = [](const std::vector<Received> &all) {
        const auto last = last_values(all);
        for (int i = 0; i < DEVICES; ++i) {
            for (int dp = 1; dp <= DPS; ++dp) {
                auto found = last.find({device_id(i), dp});
                if (found == last.end() || found->second != 900 + dp) {
                    return false;
                }
            }
        }
        return true;
    };
    EXPECT_TRUE(cloud_.wait_until(all_final, seconds(60)));
    EXPECT_TRUE(eventually(
        [] {
            for (int i = 0; i < DEVICES; ++i) {
                for (int dp = 1; dp <= DPS; ++dp) {
                    if (pv_stat(device_id(i).c_str(), dp) != PV_STAT_CLOUD) {
                        return false;
                    }
                }
            }
            return true;
        },
        seconds(30)));
}

} // namespace
} // namespace it
