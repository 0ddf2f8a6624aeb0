/*
 * The whole gateway under concurrent load on the POSIX runtime: four
 * application threads reporting, DP commands arriving from the cloud and
 * from a LAN client, heartbeats and presence changes, sub-devices added
 * and removed, completions on the MQTT client's thread, all at once: a
 * bounded first round of each, then slower rounds until the heartbeat
 * supervision pass (every 8 s) has run among them, at most 30 s. Run under
 * ThreadSanitizer (label
 * "concurrency") and AddressSanitizer: no report, no deadlock, and in the
 * end every device's published value is the last value its application
 * thread reported, confirmed by the broker (pv_stat 3).
 */
#include <atomic>
#include <map>
#include <thread>

#include "gateway/registry/gw_registry.h"
#include "services/uni_mutex.h"
#include "smart_frame/smart_frame.h"
#include "support/channel_fixture.h"
#include "support/lan_peer.h"

namespace it {
namespace {

constexpr int APP_THREADS = 4;
constexpr int DEVICES_PER_THREAD = 2;
constexpr int REPORTS_PER_DEVICE = 150;
constexpr int CLOUD_COMMANDS = 100;
constexpr int LAN_COMMANDS = 100;
constexpr int PRESENCE_CHANGES = 100;
constexpr int CHURN_ROUNDS = 20;
constexpr int COMMAND_BURST = 20;
/* After their first bounded round, the reporting, presence and churn loops go on, slower, until a supervision pass ran. */
constexpr auto PASS_DEADLINE = std::chrono::seconds(30);
constexpr auto SLOW_STEP = std::chrono::milliseconds(5);

std::string owned_id(int n) { return "own" + std::to_string(n); }

/* The value of DP dpid of device id as the registry holds it, read under dev_mutex; -1 when absent. */
long long stored_value(const std::string &id, BYTE_T dpid, int *pv_stat)
{
    GW_CNTL_S *gw = get_gw_cntl();
    DP_CNTL_S *dp = get_dev_dp_cntl(id.c_str(), dpid);
    if (dp == nullptr) {
        return -1;
    }
    MutexLock(gw->dev_mutex);
    const long long value = dp->prop.prop_value.value;
    *pv_stat = dp->pv_stat;
    MutexUnLock(gw->dev_mutex);
    return value;
}

/* The last value of DP "2" published for each device, in arrival order. */
std::map<std::string, long long> last_published(const std::vector<Received> &all, const std::string &up_topic)
{
    std::map<std::string, long long> last;
    for (const Received &one : all) {
        if (one.topic != up_topic) {
            continue;
        }
        cJSON *doc = cJSON_Parse(one.payload.c_str());
        const cJSON *pro = cJSON_GetObjectItemCaseSensitive(doc, "pro");
        const cJSON *data = cJSON_GetObjectItemCaseSensitive(doc, "data");
        const cJSON *cid = cJSON_GetObjectItemCaseSensitive(data, "cid");
        const cJSON *dp2 = cJSON_GetObjectItemCaseSensitive(cJSON_GetObjectItemCaseSensitive(data, "dps"), "2");
        if (cJSON_IsNumber(pro) && pro->valueint == MQC_PRO_DP_REPORT && cJSON_IsString(cid) && cJSON_IsNumber(dp2)) {
            last[cid->valuestring] = static_cast<long long>(dp2->valuedouble);
        }
        cJSON_Delete(doc);
    }
    return last;
}

/*
 * Set once the supervision pass (every 8 s on the dispatch thread) probed
 * the device that never sends a heartbeat: from then on a pass has run
 * while everything else was going on. The probe runs with dos_mutex held,
 * so it only records.
 */
std::atomic<bool> g_pass_ran{false};
constexpr char SILENT_DEVICE[] = "silent";

void record_probe(const CHAR_T *dev_id)
{
    if (std::string(dev_id) == SILENT_DEVICE) {
        g_pass_ran = true;
    }
}

/* Commands received for own<first> .. own<first + 3>. */
int commands_to(const std::vector<ObjCmd> &all, int first)
{
    int count = 0;
    for (const ObjCmd &cmd : all) {
        for (int n = first; n < first + 4; ++n) {
            count += cmd.cid == owned_id(n) ? 1 : 0;
        }
    }
    return count;
}

class GatewayStress : public ChannelTest {};

TEST_F(GatewayStress, EveryThreadAtOnceEndsWithTheLastValuesPublishedAndConfirmed)
{
    std::vector<DeviceShape> subs;
    for (int n = 0; n < APP_THREADS * DEVICES_PER_THREAD; ++n) {
        subs.push_back(DeviceShape{owned_id(n), 1, 2});
    }
    std::vector<DeviceShape> all = subs;
    all.push_back(DeviceShape{SILENT_DEVICE, 1, 1});
    start(all);
    /*
     * Four reporters flood the LAN client with frames; on a loaded machine
     * its reader can fall 256 frames behind and be dropped as slow, which
     * would lose the commands it sends. That drop is tested elsewhere.
     */
    start_lan(0, 65536);
    authenticate(&lan_);
    gw_registry::set_grace_period(std::chrono::milliseconds(2000));
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    for (const DeviceShape &sub : all) {
        /* the silent device's first probe falls 0 to 14 s after this, at the next pass */
        ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout(sub.id.c_str(), sub.id == SILENT_DEVICE ? 60 : 600, 2));
    }
    const auto deadline = std::chrono::steady_clock::now() + PASS_DEADLINE;
    /* whether a loop that has done `done` steps of its first `first` goes on */
    const auto keep_going = [&](int done, int first) {
        if (done < first) {
            return true;
        }
        if (g_pass_ran.load() || std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(SLOW_STEP);
        return true;
    };

    std::atomic<bool> lan_done{false};
    std::atomic<int> lan_frames{0};
    long long last_value[APP_THREADS * DEVICES_PER_THREAD] = {};
    std::atomic<int> refused_reports{0};
    std::vector<std::thread> threads;

    /* application threads: each owns its devices, so "last value" is well defined */
    for (int t = 0; t < APP_THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 1; keep_going(i - 1, REPORTS_PER_DEVICE); ++i) {
                for (int k = 0; k < DEVICES_PER_THREAD; ++k) {
                    const int n = t * DEVICES_PER_THREAD + k;
                    const long long v = 1000 * n + i;
                    const std::string text = "{\"1\":" + std::string(i % 2 ? "true" : "false") +
                                             ",\"2\":" + std::to_string(v) + ",\"3\":" + std::to_string(i) + "}";
                    if (sf_obj_dp_report_async(owned_id(n).c_str(), text.c_str(), FALSE) != RC_OK) {
                        refused_reports.fetch_add(1);
                    }
                    last_value[n] = v;
                    if (i % 25 == 0) {
                        sf_refresh_dev_hb(owned_id(n).c_str());
                    }
                }
            }
        });
    }
    /*
     * The cloud's commands to own0..own3, the LAN client's to own4..own7.
     * Each side sends in bursts of COMMAND_BURST and waits until they have
     * reached the application: the channels drop commands beyond a bounded
     * backlog by design (64 for MQTT), which this test does not measure.
     */
    threads.emplace_back([&] {
        for (int i = 0; i < CLOUD_COMMANDS; ++i) {
            const std::string cmd = "{\"devId\":\"" + owned_id(i % 4) + "\",\"dps\":{\"1\":" +
                                    (i % 2 ? "true" : "false") + ",\"3\":" + std::to_string(i) + "}}";
            cloud_.publish(topic("cmd/dp"), cmd);
            if ((i + 1) % COMMAND_BURST == 0) {
                EXPECT_TRUE(wait_obj_cmds([&](const std::vector<ObjCmd> &all) { return commands_to(all, 0) >= i + 1; },
                                          seconds(30)));
            }
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; i < LAN_COMMANDS; ++i) {
            lan_.send_line("{\"cmd\":\"dp\",\"data\":{\"devId\":\"" + owned_id(4 + i % 4) + "\",\"dps\":{\"1\":" +
                           (i % 2 ? "true" : "false") + "}}}");
            if ((i + 1) % COMMAND_BURST == 0) {
                EXPECT_TRUE(wait_obj_cmds([&](const std::vector<ObjCmd> &all) { return commands_to(all, 4) >= i + 1; },
                                          seconds(30)));
            }
        }
    });
    std::thread lan_reader([&] {
        std::string line;
        while (!lan_done.load()) {
            if (lan_.read_line(&line, milliseconds(100))) {
                lan_frames.fetch_add(1);
            }
        }
    });
    /* heartbeats and presence changes */
    threads.emplace_back([&] {
        for (int i = 0; keep_going(i, PRESENCE_CHANGES); ++i) {
            const std::string id = owned_id(i % 8);
            sf_dev_online_stat_update(id.c_str(), i % 3 != 0 ? TRUE : FALSE);
            sf_refresh_dev_hb(id.c_str());
        }
    });
    /* sub-devices added, reported to, and removed */
    threads.emplace_back([&] {
        for (int r = 0; keep_going(r, CHURN_ROUNDS); ++r) {
            const std::string id = "tmp" + std::to_string(r);
            gw_registry::LoadError error;
            if (gw_registry::add_device("{\"id\":\"" + id +
                                            "\",\"dps\":[{\"id\":1,\"prop\":\"bool\"},"
                                            "{\"id\":2,\"prop\":\"value\",\"min\":0,\"max\":100000}]}",
                                        &error) != RC_OK) {
                ADD_FAILURE() << error.text();
                continue;
            }
            sf_obj_dp_report_async(id.c_str(), "{\"1\":true,\"2\":7}", FALSE);
            sf_dev_online_stat_update(id.c_str(), TRUE);
            sf_refresh_dev_hb(id.c_str());
            EXPECT_EQ(RC_OK, gw_registry::remove_device(id));
            /* a report racing the removal finds the device or not; both are answers */
            const OPERATE_RET late = sf_obj_dp_report_async(id.c_str(), "{\"2\":8}", FALSE);
            EXPECT_TRUE(late == RC_DEV_NOT_FOUND || late == RC_OK) << late;
        }
    });
    for (std::thread &thread : threads) {
        thread.join();
    }

    EXPECT_TRUE(g_pass_ran.load()) << "no supervision pass ran within " << PASS_DEADLINE.count() << " s";
    EXPECT_EQ(0, refused_reports.load());
    /* the DP sync re-sends whatever was not confirmed, until the broker confirmed every DP */
    EXPECT_TRUE(eventually(
        [&] {
            for (int n = 0; n < APP_THREADS * DEVICES_PER_THREAD; ++n) {
                for (BYTE_T dpid = 1; dpid <= 3; ++dpid) {
                    int pv_stat = -1;
                    stored_value(owned_id(n), dpid, &pv_stat);
                    if (pv_stat != PV_STAT_CLOUD) {
                        return false;
                    }
                }
            }
            return true;
        },
        seconds(30)))
        << "a DP was never confirmed";
    for (int n = 0; n < APP_THREADS * DEVICES_PER_THREAD; ++n) {
        int pv_stat = -1;
        EXPECT_EQ(last_value[n], stored_value(owned_id(n), 2, &pv_stat)) << owned_id(n);
    }
    const std::string up = topic("up");
    EXPECT_TRUE(cloud_.wait_until(
        [&](const std::vector<Received> &all) {
            const std::map<std::string, long long> last = last_published(all, up);
            for (int n = 0; n < APP_THREADS * DEVICES_PER_THREAD; ++n) {
                const auto found = last.find(owned_id(n));
                if (found == last.end() || found->second != last_value[n]) {
                    return false;
                }
            }
            return true;
        },
        seconds(30)))
        << "the cloud's last value of a device is not the device's last value";
    /* every command reached the application, once */
    EXPECT_EQ(CLOUD_COMMANDS, commands_to(obj_cmds(), 0));
    EXPECT_EQ(LAN_COMMANDS, commands_to(obj_cmds(), 4));
    EXPECT_GT(lan_frames.load(), 0);

    lan_done = true;
    lan_reader.join();
}

} // namespace
} // namespace it
