/*
 * A LAN client that sends faster than the application handles commands
 * costs the gateway a bounded amount of memory: the channel stops reading
 * it while its quota of commands waits, TCP holds the rest back, and once
 * the application catches up every command arrives, in order.
 */
#include <sys/socket.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <thread>

#include "support/channel_fixture.h"
#include "support/lan_peer.h"

#include "port/posix/posix_tunables.h"

namespace it {
namespace {

constexpr int LINES = 5000;
constexpr long RSS_GROWTH_LIMIT_KB = 8 * 1024;

/* Resident memory of this process in KiB, from /proc/self/status. */
long rss_kb()
{
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word) {
        if (word == "VmRSS:") {
            long kb = 0;
            status >> kb;
            return kb;
        }
    }
    return -1;
}

/* The application's DP callback waits here until the test opens it. */
class Latch {
public:
    void wait()
    {
        std::unique_lock<std::mutex> hold(mutex_);
        ++waiters_;
        changed_.notify_all();
        changed_.wait(hold, [this] { return open_; });
    }
    bool wait_for_waiter(std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> hold(mutex_);
        return changed_.wait_for(hold, timeout, [this] { return waiters_ > 0; });
    }
    void open()
    {
        std::lock_guard<std::mutex> hold(mutex_);
        open_ = true;
        changed_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
    int waiters_ = 0;
};

class LanCommandBound : public ChannelTest {};

TEST_F(LanCommandBound, BlockedApplicationHoldsTheClientBackAndGetsEveryCommandInOrderLater)
{
    start({{"sub01", 1, 1}}, {}, false);
    start_lan();
    LanPeer client;
    authenticate(&client);
    // Each command carries 4 KiB the application never looks at: 20 MB in all.
    const std::string pad(4000, 'p');
    const int small = 64 * 1024;
    setsockopt(client.fd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);

    Latch latch;
    set_obj_cmd_hook([&](const ObjCmd &) { latch.wait(); });
    struct Unhook {
        Latch *latch;
        ~Unhook()
        {
            latch->open();
            set_obj_cmd_hook(nullptr);
        }
    } unhook{&latch};
    const long rss_before = rss_kb();

    std::atomic<int> sent{0};
    std::thread sender([&] {
        // One buffer for every line: the sender's own garbage must not
        // count against the gateway's memory.
        std::string line;
        line.reserve(pad.size() + 128);
        for (int i = 0; i < LINES; ++i) {
            line.assign("{\"cmd\":\"dp\",\"data\":{\"devId\":\"sub01\",\"dps\":{\"2\":");
            line.append(std::to_string(i)).append("},\"pad\":\"").append(pad).append("\"}}\n");
            if (!client.send_bytes(line)) {
                return;
            }
            sent.fetch_add(1);
        }
    });
    ASSERT_TRUE(latch.wait_for_waiter(seconds(30))) << "no command reached the application";
    // The client has sent all it could: everything, or as much as TCP took
    // before the channel stopped reading it (no progress over 25 polls).
    int last = -1;
    int unchanged = 0;
    ASSERT_TRUE(eventually(
        [&] {
            const int now = sent.load();
            unchanged = now == last ? unchanged + 1 : 0;
            last = now;
            return now == LINES || unchanged >= 25;
        },
        seconds(30)));
    const long rss_held = rss_kb();
    const LAN_STATS_S held = lan_stats_now();
    RecordProperty("rss_growth_kb", std::to_string(rss_held - rss_before));

    latch.open();
    sender.join();
    ASSERT_EQ(LINES, sent.load());
    ASSERT_TRUE(wait_obj_cmds([](const std::vector<ObjCmd> &all) { return all.size() >= LINES; }, seconds(60)))
        << obj_cmds().size() << " commands arrived";
    const std::vector<ObjCmd> all = obj_cmds();
    ASSERT_EQ(static_cast<size_t>(LINES), all.size());
    for (int i = 0; i < LINES; ++i) {
        ASSERT_EQ(1u, all[i].dps.size()) << i;
        ASSERT_EQ(i, all[i].dps[0].number) << "command " << i << " out of order";
    }
    EXPECT_TRUE(eventually([] { return lan_stats_now().queued_commands == 0; }, seconds(10)));

    EXPECT_LE(held.queued_commands, static_cast<UINT_T>(SF_LAN_MAX_CLIENT_COMMANDS));
    EXPECT_LE(lan_stats_now().queued_commands_peak, static_cast<UINT_T>(SF_LAN_MAX_CLIENT_COMMANDS));
    EXPECT_GE(lan_stats_now().queued_commands_peak, 1u);
    EXPECT_LT(rss_held - rss_before, RSS_GROWTH_LIMIT_KB)
        << "RSS grew from " << rss_before << " KiB to " << rss_held << " KiB while the application was blocked";
}

} // namespace
} // namespace it
