/*
 * Commands arriving faster than the application takes them: memory stays
 * within the documented bounds (the dispatch queue's, the inbound queue's,
 * the largest packet) and no command the broker was told is delivered is
 * lost; they reach the application in order once it takes them again.
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "port/posix/runtime/posix_runtime.h"
#include "port/posix/posix_tunables.h"
#include "smart_frame/smart_frame.h"
#include "support/channel_fixture.h"

namespace it {
namespace {

constexpr int COMMANDS = 5000;

/* A line of /proc/self/status in kB ("VmRSS", "VmHWM"); -1 when missing. */
long status_kb(const std::string &name)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(name + ":", 0) == 0) {
            return std::stol(line.substr(name.size() + 1));
        }
    }
    return -1;
}

CMMOD_QUEUE_STAT_S dispatch_stat()
{
    CMMOD_QUEUE_STAT_S stat{};
    cmmod_get_queue_stat(&stat);
    return stat;
}

MQC_INBOUND_STAT_S inbound_stat()
{
    MQC_INBOUND_STAT_S stat{};
    mqc_get_inbound_stat(&stat);
    return stat;
}

/* MQTT's variable-length "remaining length". */
std::string remaining_length(size_t len)
{
    std::string out;
    do {
        unsigned char byte = len % 128;
        len /= 128;
        if (len > 0) {
            byte |= 0x80;
        }
        out.push_back(static_cast<char>(byte));
    } while (len > 0);
    return out;
}

std::string mqtt_string(const std::string &text)
{
    return std::string{static_cast<char>(text.size() >> 8), static_cast<char>(text.size() & 0xff)} + text;
}

bool send_all(int fd, const char *bytes, size_t len)
{
    size_t sent = 0;
    while (sent < len) {
        const ssize_t n = ::send(fd, bytes + sent, len - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    return true;
}

bool send_all(int fd, const std::string &bytes) { return send_all(fd, bytes.data(), bytes.size()); }

/*
 * Publish, as an MQTT 3.1.1 client of its own, a QoS 0 message of `size`
 * bytes on topic and then the small `after`, streaming the big payload
 * from a small buffer so that this process never holds it.
 */
bool publish_streamed(int port, const std::string &topic, size_t size, const std::string &after)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    bool ok = ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    const std::string connect_body = mqtt_string("MQTT") + std::string{4, 2, 0, 60} + mqtt_string("sf-it-big");
    ok = ok && send_all(fd, std::string{0x10} + remaining_length(connect_body.size()) + connect_body);
    char connack[4] = {};
    ok = ok && ::recv(fd, connack, sizeof connack, MSG_WAITALL) == 4 && connack[3] == 0;
    const std::string name = mqtt_string(topic);
    ok = ok && send_all(fd, std::string{0x30} + remaining_length(name.size() + size) + name);
    // One buffer sent again and again: no allocation per chunk (the sanitizer would keep each freed one).
    const std::string chunk(64 * 1024, 'a');
    for (size_t left = size; ok && left > 0; left -= std::min(left, chunk.size())) {
        ok = send_all(fd, chunk.data(), std::min(left, chunk.size()));
    }
    ok = ok && send_all(fd, std::string{0x30} + remaining_length(name.size() + after.size()) + name + after);
    ok = ok && send_all(fd, std::string{static_cast<char>(0xE0), 0});
    ::close(fd);
    return ok;
}

std::string dp_command(int value)
{
    return "{\"devId\":\"sub01\",\"dps\":{\"2\":" + std::to_string(value) + "}}";
}

class MqttBackpressure : public ChannelTest, public ::testing::WithParamInterface<UINT_T> {
protected:
    void TearDown() override
    {
        set_obj_cmd_hook(nullptr);
        ChannelTest::TearDown();
    }

};

TEST_P(MqttBackpressure, CommandsWaitForABlockedApplicationAndAllArriveInOrder)
{
    protocol_ = GetParam();
    BrokerOptions options;
    options.max_queued_messages = COMMANDS * 2; // the broker holds what we do not read yet
    start({{"sub01", 1, 1}}, options);
    // Shared with the hook, which outlives the test when it fails.
    struct Latch {
        std::atomic<bool> entered{false};
        std::atomic<bool> open{false};
    };
    auto latch = std::make_shared<Latch>();
    set_obj_cmd_hook([latch](const ObjCmd &) {
        latch->entered = true;
        eventually([latch] { return latch->open.load(); }, seconds(120));
    });
    const long rss_before_kb = status_kb("VmRSS");

    for (int i = 1; i <= COMMANDS; ++i) {
        ASSERT_TRUE(cloud_.publish(topic("cmd/dp"), dp_command(i)));
    }
    ASSERT_TRUE(eventually([latch] { return latch->entered.load(); }, seconds(10))) << "no command arrived";
    // Every command is at the broker, and the gateway is backed up: the
    // dispatch queue is full with a poster waiting, the inbound queue at
    // its limit, the socket no longer read.
    CMMOD_QUEUE_STAT_S queue{};
    MQC_INBOUND_STAT_S inbound{};
    long rss_peak_kb = 0;
    const bool backed_up = eventually(
        [&] {
            queue = dispatch_stat();
            inbound = inbound_stat();
            const long rss = status_kb("VmRSS");
            rss_peak_kb = rss > rss_peak_kb ? rss : rss_peak_kb;
            return cloud_.acknowledged() == static_cast<size_t>(COMMANDS) && queue.waiting > 0 &&
                   inbound.depth >= inbound.limit;
        },
        seconds(60));
    ASSERT_TRUE(backed_up) << "acknowledged " << cloud_.acknowledged() << ", dispatch " << queue.depth << "/"
                           << queue.limit << " waiting " << queue.waiting << ", inbound " << inbound.depth;

    EXPECT_EQ(128u, queue.limit);
    EXPECT_LE(queue.peak, queue.limit);
    EXPECT_LE(inbound.depth, inbound.limit + inbound.reserve);
    // 5000 commands parsed and queued would take several MB; what we hold is bounded.
    EXPECT_LT(rss_peak_kb - rss_before_kb, 16 * 1024) << "RSS grew from " << rss_before_kb << " kB";

    latch->open = true;
    ASSERT_TRUE(wait_obj_cmds([](const std::vector<ObjCmd> &all) { return all.size() >= COMMANDS; }, seconds(120)))
        << obj_cmds().size() << " arrived";
    const std::vector<ObjCmd> all = obj_cmds();
    ASSERT_EQ(static_cast<size_t>(COMMANDS), all.size());
    for (int i = 0; i < COMMANDS; ++i) {
        ASSERT_EQ(1u, all[static_cast<size_t>(i)].dps.size());
        ASSERT_EQ(i + 1, all[static_cast<size_t>(i)].dps[0].number) << "command " << i << " out of order";
    }
    EXPECT_LE(dispatch_stat().peak, dispatch_stat().limit);
    EXPECT_EQ(0u, inbound_stat().dropped);
}

// The application reports synchronously from its DP callback while the
// gateway is backed up: the acknowledgement lies behind commands the client
// has stopped reading, so it reads on into its reserve to reach it.
//
// How far the acknowledgement lies behind is the broker's choice: mosquitto
// 2.0 was seen to write far more than its window ahead of it into the
// socket when it holds a large backlog, past any reserve. So the burst here
// is only as large as the back-up needs (the dispatch queue, the inbound
// queue, one command held by the worker and one in the callback) plus 40:
// whatever the broker does, at most 40 commands can lie ahead of the
// acknowledgement, inside the reserve of 64. The keep-alive is long so that
// no ping turn is needed while the client waits.
TEST_P(MqttBackpressure, ASynchronousReportFromABackedUpCallbackGetsItsAcknowledgement)
{
    protocol_ = GetParam();
    keepalive_s_ = 120;
    BrokerOptions options;
    options.max_queued_messages = COMMANDS * 2;
    start({{"sub01", 1, 1}}, options);
    struct State {
        std::atomic<bool> first{true};
        std::atomic<bool> backed_up{false};
        std::atomic<bool> done{false};
        std::atomic<int> result{1};
    };
    auto state = std::make_shared<State>();
    set_obj_cmd_hook([state](const ObjCmd &) {
        if (!state->first.exchange(false)) {
            return;
        }
        state->backed_up = eventually(
            [] { return dispatch_stat().waiting > 0 && inbound_stat().depth >= inbound_stat().limit; }, seconds(60));
        state->result = sf_stat_dp_report_sync("sub01", "{\"1\":true}", nullptr, 60, FALSE);
        state->done = true;
    });
    constexpr int BURST = SF_DISPATCH_QUEUE_LIMIT + SF_MQTT_INBOUND_QUEUE_LIMIT + 2 + 40;
    static_assert(40 < SF_MQTT_INBOUND_RESERVE, "the commands ahead of the acknowledgement fit the reserve");
    for (int i = 1; i <= BURST; ++i) {
        ASSERT_TRUE(cloud_.publish(topic("cmd/dp"), dp_command(i)));
    }

    ASSERT_TRUE(eventually([state] { return state->done.load(); }, seconds(90)));
    EXPECT_TRUE(state->backed_up.load());
    EXPECT_EQ(RC_OK, state->result.load()) << "inbound " << inbound_stat().depth << "/" << inbound_stat().limit
                                           << " + " << inbound_stat().reserve;
    EXPECT_LE(inbound_stat().depth, inbound_stat().limit + inbound_stat().reserve);
    ASSERT_TRUE(wait_obj_cmds([](const std::vector<ObjCmd> &all) { return all.size() >= BURST; }, seconds(60)));
    const std::vector<ObjCmd> all = obj_cmds();
    for (int i = 0; i < BURST; ++i) {
        ASSERT_EQ(i + 1, all[static_cast<size_t>(i)].dps[0].number) << "command " << i << " out of order";
    }
}

INSTANTIATE_TEST_SUITE_P(Protocols, MqttBackpressure, ::testing::Values(0u, 311u),
                         [](const ::testing::TestParamInfo<UINT_T> &info) {
                             return info.param == 0 ? std::string("Mqtt5") : std::string("Mqtt311");
                         });

class MqttPacketLimit : public ChannelTest {};

// Under MQTT 5 the broker knows our maximum packet size and never sends a
// larger one: the client never holds it.
TEST_F(MqttPacketLimit, APayloadOverTheMaximumNeverRaisesMemoryByMoreThanTheBound)
{
    start({{"sub01", 1, 1}});
    cloud_.disconnect(); // the peer would receive the payload too, in this process
    const long peak_before_kb = status_kb("VmHWM");

    ASSERT_TRUE(publish_streamed(broker_->port(), topic("cmd/dp"), 32u << 20, dp_command(7)));
    // The small command after it is delivered after it (or its drop).
    ASSERT_TRUE(wait_obj_cmds([](const std::vector<ObjCmd> &all) { return !all.empty(); }, seconds(30)));

    EXPECT_EQ(7, obj_cmds()[0].dps[0].number);
    // The bound: one packet of the largest accepted size, far below this.
    EXPECT_LT(status_kb("VmHWM") - peak_before_kb, 8 * 1024) << "the 32 MB payload was read";
    EXPECT_EQ(1, get_mqc_conn_stat());
}

} // namespace
} // namespace it
