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

} // namespace
} // namespace it
