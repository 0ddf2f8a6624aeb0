/*
 * The protocol level of the CONNECT: MQTT 5 by default, falling back to
 * 3.1.1 when the broker refuses 5 the way a 3.1.1 broker does (CONNACK 1)
 * or closes MQTT 5 connections without an answer (as RabbitMQ's plugin
 * does), and exactly what the `protocol` setting says otherwise. The
 * broker here is a stand-in that records each CONNECT's level and refuses
 * it, or closes the connection without an answer.
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "support/channel_fixture.h"
#include "support/stderr_capture.h"

namespace it {
namespace {

/* Accepts connections on a free loopback port, reads each CONNECT, answers CONNACK 1 (or nothing) and closes. */
class RefusingBroker {
public:
    void answer_nothing() { silent_ = true; }

    RefusingBroker()
    {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener_, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
        socklen_t len = sizeof addr;
        ::getsockname(listener_, reinterpret_cast<sockaddr *>(&addr), &len);
        port_ = ntohs(addr.sin_port);
        ::listen(listener_, 4);
        thread_ = std::thread([this] { serve(); });
    }
    ~RefusingBroker()
    {
        stop_ = true;
        ::shutdown(listener_, SHUT_RDWR);
        ::close(listener_);
        thread_.join();
    }

    int port() const { return port_; }
    std::vector<int> levels()
    {
        std::lock_guard<std::mutex> hold(mutex_);
        return levels_;
    }

private:
    void serve()
    {
        while (!stop_) {
            const int fd = ::accept(listener_, nullptr, nullptr);
            if (fd < 0) {
                return;
            }
            // Fixed header, a one-byte remaining length (a short CONNECT), then the body:
            // protocol name "MQTT" (2 + 4 bytes) and the level.
            unsigned char head[2] = {};
            unsigned char body[127] = {};
            if (::recv(fd, head, 2, MSG_WAITALL) == 2 && head[0] == 0x10 && head[1] < 128 &&
                ::recv(fd, body, head[1], MSG_WAITALL) == head[1] && head[1] > 6) {
                std::lock_guard<std::mutex> hold(mutex_);
                levels_.push_back(body[6]);
            }
            const unsigned char refused[4] = {0x20, 0x02, 0x00, 0x01}; // unacceptable protocol version
            if (!silent_) {
                ::send(fd, refused, sizeof refused, MSG_NOSIGNAL);
            }
            ::close(fd);
        }
    }

    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<bool> silent_{false};
    std::mutex mutex_;
    std::vector<int> levels_;
    std::thread thread_;
};

class MqttProtocol : public ::testing::Test {
protected:
    void TearDown() override { mqc_stop(); }

    /* Start the client against the stand-in; the levels of its first `count` CONNECTs. */
    std::vector<int> first_levels(UINT_T protocol, size_t count)
    {
        MQC_CONFIG_S cfg{};
        cfg.port = broker_.port();
        cfg.gw_id = GW_ID;
        cfg.reconnect_min_s = 1;
        cfg.reconnect_max_s = 1;
        cfg.protocol = protocol;
        EXPECT_EQ(RC_OK, mqc_start(&cfg));
        EXPECT_TRUE(eventually([&] { return broker_.levels().size() >= count; }, seconds(15)));
        std::vector<int> levels = broker_.levels();
        levels.resize(count);
        return levels;
    }

    RefusingBroker broker_;
};

TEST_F(MqttProtocol, ByDefaultMqtt5IsTriedAndA311RefusalFallsBackTo311)
{
    StderrCapture log;
    EXPECT_EQ((std::vector<int>{5, 4, 4}), first_levels(0, 3));
    EXPECT_TRUE(log.wait_for("MQTT broker 127.0.0.1:" + std::to_string(broker_.port()) +
                                 " does not accept MQTT 5; using MQTT 3.1.1",
                             seconds(5)))
        << log.text();
}

TEST_F(MqttProtocol, ByDefaultTwoMqtt5ConnectionsClosedWithoutAnAnswerFallBackTo311)
{
    broker_.answer_nothing();
    StderrCapture log;
    EXPECT_EQ((std::vector<int>{5, 5, 4, 4}), first_levels(0, 4));
    EXPECT_TRUE(log.wait_for("MQTT broker 127.0.0.1:" + std::to_string(broker_.port()) +
                                 " closed 2 MQTT 5 connections without an answer; using MQTT 3.1.1",
                             seconds(5)))
        << log.text();
}

TEST_F(MqttProtocol, Protocol5NeverFallsBack)
{
    EXPECT_EQ((std::vector<int>{5, 5}), first_levels(5, 2));
}

TEST_F(MqttProtocol, Protocol5NeverFallsBackEvenWhenTheBrokerNeverAnswers)
{
    broker_.answer_nothing();
    EXPECT_EQ((std::vector<int>{5, 5, 5}), first_levels(5, 3));
}

TEST_F(MqttProtocol, Protocol311Speaks311FromTheStart)
{
    EXPECT_EQ((std::vector<int>{4, 4}), first_levels(311, 2));
}

TEST_F(MqttProtocol, AnUnknownProtocolIsRefusedAtStart)
{
    MQC_CONFIG_S cfg{};
    cfg.gw_id = GW_ID;
    cfg.protocol = 4;
    EXPECT_EQ(RC_BAD_PARAM, mqc_start(&cfg));
}

} // namespace
} // namespace it
