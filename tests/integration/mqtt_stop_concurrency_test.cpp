/*
 * mqc_stop returns whatever the network thread is doing when it is called,
 * in particular while a reconnect to a dead broker is inside connect(): a
 * disconnect that lands there must not be lost (libmosquitto's own
 * reconnect loop lost it and retried for ever).
 */
#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <memory>
#include <thread>

#include "smart_frame/smart_frame.h"
#include "support/channel_fixture.h"

namespace it {
namespace {

// connect() below waits this long first for connects to this port, so a
// test can land a call while the client is inside connect().
std::atomic<int> g_slow_port{0};
std::atomic<int> g_slow_connects{0};
constexpr auto SLOW_CONNECT = std::chrono::milliseconds(800);

void slow_down_connects_to(int port)
{
    g_slow_connects = 0;
    g_slow_port = port;
}

} // namespace
} // namespace it

/*
 * Replaces connect() for the whole executable (libmosquitto included); it
 * only passes the call on unless a test armed it.
 */
extern "C" int connect(int fd, const struct sockaddr *addr, socklen_t len)
{
    using ConnectFn = int (*)(int, const struct sockaddr *, socklen_t);
    static const auto next = reinterpret_cast<ConnectFn>(dlsym(RTLD_NEXT, "connect"));
    const int port = it::g_slow_port.load();
    if (port != 0 && addr != nullptr && addr->sa_family == AF_INET &&
        ntohs(reinterpret_cast<const sockaddr_in *>(addr)->sin_port) == port) {
        it::g_slow_connects.fetch_add(1);
        std::this_thread::sleep_for(it::SLOW_CONNECT);
    }
    return next(fd, addr, len);
}

namespace it {
namespace {

class MqttStop : public ChannelTest {
protected:
    void TearDown() override
    {
        slow_down_connects_to(0);
        ChannelTest::TearDown();
    }

    /* Run mqc_stop on a thread of its own; whether it returned within timeout. */
    static bool stop_returns_within(std::chrono::milliseconds timeout)
    {
        auto stopped = std::make_shared<std::atomic<bool>>(false);
        std::thread stopper([stopped] {
            mqc_stop();
            *stopped = true;
        });
        const bool returned = eventually([stopped] { return stopped->load(); }, timeout);
        if (returned) {
            stopper.join();
        } else {
            stopper.detach(); // stuck for good: the test has failed
        }
        return returned;
    }
};

TEST_F(MqttStop, ReturnsWhileAReconnectToADeadBrokerIsConnecting)
{
    start({});
    const int port = broker_->port();
    broker_->stop();
    ASSERT_TRUE(eventually([] { return get_mqc_conn_stat() == 0; }, seconds(10)));
    slow_down_connects_to(port);
    ASSERT_TRUE(eventually([] { return g_slow_connects.load() > 0; }, seconds(10))) << "no reconnect";

    EXPECT_TRUE(stop_returns_within(seconds(10)));
    EXPECT_EQ(0, get_mqc_conn_stat());
}

TEST_F(MqttStop, ReturnsWhileWaitingToReconnectToADeadBroker)
{
    start({});
    broker_->stop();
    ASSERT_TRUE(eventually([] { return get_mqc_conn_stat() == 0; }, seconds(10)));

    EXPECT_TRUE(stop_returns_within(seconds(10)));
}

TEST_F(MqttStop, ReturnsPromptlyWhileConnected)
{
    start({});
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_TRUE(stop_returns_within(seconds(10)));
    // Not held up by the grace a broker that reads slowly would get.
    EXPECT_LT(std::chrono::steady_clock::now() - begun, milliseconds(1900));
    EXPECT_EQ(0, get_mqc_conn_stat());
}

TEST_F(MqttStop, ReturnsWhileTheQueryCallbackWaitsInASynchronousReport)
{
    start({{"sub01", 1, 1}});
    // Again with a keep-alive that the frozen broker cannot end first.
    mqc_stop();
    MQC_CONFIG_S cfg = mqtt_config();
    cfg.keepalive_s = 120;
    ASSERT_EQ(RC_OK, mqc_start(&cfg));
    ASSERT_TRUE(eventually([] { return get_mqc_conn_stat() == 1; }, seconds(10)));
    // Shared with the hook, which outlives the test when the stop hangs.
    struct State {
        std::atomic<bool> in_hook{false};
        std::atomic<bool> paused{false};
        std::atomic<bool> done{false};
        std::atomic<int> result{1};
    };
    auto state = std::make_shared<State>();
    set_query_hook([state](const std::string &cid) {
        state->in_hook = true;
        eventually([state] { return state->paused.load(); }, seconds(10));
        // Far longer than the test waits: only the stop can end it.
        state->result = sf_stat_dp_report_sync(cid.c_str(), "{\"2\":77}", nullptr, 120, FALSE);
        state->done = true;
    });
    ASSERT_TRUE(cloud_.publish(topic("cmd/query"), "{\"cids\":[\"sub01\"],\"dpids\":[2]}"));
    ASSERT_TRUE(eventually([state] { return state->in_hook.load(); }, seconds(10))) << "no query callback";
    broker_->pause(); // the report's acknowledgement never comes
    state->paused = true;
    ASSERT_TRUE(eventually([] { return pv_stat("sub01", 2) == PV_STAT_SENDING; }, seconds(10)));
    // Fill the socket towards the frozen broker, so that not even the
    // DISCONNECT gets out and no loss of the connection completes the report.
    const std::string blob = "\"" + std::string(256 * 1024, 'x') + "\"";
    for (int i = 0; i < 96; ++i) {
        ASSERT_EQ(RC_OK, mqc_prot_data_rept_seq(MQC_PRO_PRESENCE, blob.c_str(), 0, 0, nullptr, nullptr));
    }

    EXPECT_TRUE(stop_returns_within(seconds(10)));
    broker_->resume();
    EXPECT_TRUE(eventually([state] { return state->done.load(); }, seconds(10)));
    EXPECT_EQ(MQC_RC_STOPPED, state->result.load());
    set_query_hook(nullptr);
}

} // namespace
} // namespace it
