/*
 * One LAN connection: line framing in, the bounded frame queue out, and the
 * release of every queued block reference.
 */
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "port/posix/lan/lan_session.h"
#include "tests/integration/support/blocks.h"

namespace {

using sf_lan::Clock;
using sf_lan::Session;

class LanSession : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds_));
        session_ = std::make_unique<Session>(fds_[0], "peer", Clock::now());
    }
    void TearDown() override
    {
        session_.reset();
        close(fds_[1]);
    }

    std::string read_peer()
    {
        char buf[4096];
        const ssize_t got = recv(fds_[1], buf, sizeof buf, MSG_DONTWAIT);
        return got > 0 ? std::string(buf, static_cast<size_t>(got)) : std::string();
    }

    int fds_[2] = {-1, -1};
    std::unique_ptr<Session> session_;
};

TEST_F(LanSession, HalfFrameClockStartsWithTheUnfinishedLine)
{
    const Clock::time_point t0 = Clock::now();
    session_->take_bytes("{\"a\"", 4, t0 + std::chrono::seconds(1));
    EXPECT_TRUE(session_->input().partial());
    EXPECT_EQ(t0 + std::chrono::seconds(1), session_->partial_since());
    session_->take_bytes(":1", 2, t0 + std::chrono::seconds(2));
    EXPECT_EQ(t0 + std::chrono::seconds(1), session_->partial_since());
    EXPECT_EQ(t0 + std::chrono::seconds(2), session_->last_input());
    session_->take_bytes("}\n{", 3, t0 + std::chrono::seconds(3));
    EXPECT_EQ(t0 + std::chrono::seconds(3), session_->partial_since());
}

TEST_F(LanSession, HoldingRestartsTheInputClocks)
{
    const Clock::time_point t0 = Clock::now();
    session_->take_bytes("{", 1, t0);
    session_->hold(t0 + std::chrono::seconds(7));
    EXPECT_EQ(t0 + std::chrono::seconds(7), session_->partial_since());
    EXPECT_EQ(t0 + std::chrono::seconds(7), session_->last_input());
}

TEST_F(LanSession, WaitingCommandsNeverGoBelowZero)
{
    session_->add_waiting_commands(3);
    session_->remove_waiting_commands(2);
    EXPECT_EQ(1u, session_->waiting_commands());
    session_->remove_waiting_commands(5);
    EXPECT_EQ(0u, session_->waiting_commands());
}

TEST_F(LanSession, BlockIsFormattedWhenWrittenAndReleasedAfterwards)
{
    RFC_DATA_S *block = it::make_block("{\"dps\":{\"1\":true}}", 42);
    ASSERT_TRUE(session_->queue_block(block, 4, 8));
    EXPECT_EQ(2u, it::references(block));
    ASSERT_TRUE(session_->flush());
    EXPECT_EQ("{\"type\":4,\"serno\":42,\"data\":{\"dps\":{\"1\":true}}}\n", read_peer());
    EXPECT_EQ(1u, it::references(block));
    EXPECT_FALSE(session_->has_output());
    put_rfc_data(block);
}

TEST_F(LanSession, FullQueueRefusesWithoutTakingAReference)
{
    RFC_DATA_S *block = it::make_block("{}", 1);
    ASSERT_TRUE(session_->queue_block(block, 4, 2));
    ASSERT_TRUE(session_->queue_text("x\n", 2));
    EXPECT_FALSE(session_->queue_block(block, 4, 2));
    EXPECT_FALSE(session_->queue_text("y\n", 2));
    EXPECT_EQ(2u, it::references(block));
    session_->close_soon("too slow");
    EXPECT_EQ(1u, it::references(block));
    EXPECT_TRUE(session_->closing());
    EXPECT_EQ("too slow", session_->close_reason());
    EXPECT_FALSE(session_->queue_text("z\n", 2));
    put_rfc_data(block);
}

TEST_F(LanSession, DestroyingASessionReleasesWhatIsStillQueued)
{
    RFC_DATA_S *block = it::make_block("{}", 1);
    ASSERT_TRUE(session_->queue_block(block, 4, 8));
    ASSERT_TRUE(session_->queue_block(block, 4, 8));
    EXPECT_EQ(3u, it::references(block));
    session_.reset();
    EXPECT_EQ(1u, it::references(block));
    put_rfc_data(block);
}

TEST_F(LanSession, WritingToAClosedPeerReportsTheLoss)
{
    ASSERT_TRUE(session_->queue_text("hello\n", 8));
    close(fds_[1]);
    fds_[1] = socket(AF_UNIX, SOCK_STREAM, 0); // something for TearDown to close
    EXPECT_FALSE(session_->flush());
}

TEST(LanSessionWrites, QueuedFramesGoOutInOneWrite)
{
    // A packet socket keeps each write apart: one packet is one write.
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds));
    {
        Session session(fds[0], "peer", Clock::now());
        RFC_DATA_S *block = it::make_block("{\"dps\":{\"1\":true}}", 7);
        ASSERT_TRUE(session.queue_text("first\n", 8));
        ASSERT_TRUE(session.queue_block(block, 4, 8));
        ASSERT_TRUE(session.queue_text("last\n", 8));
        ASSERT_TRUE(session.flush());
        char buf[4096];
        const ssize_t got = recv(fds[1], buf, sizeof buf, MSG_DONTWAIT);
        ASSERT_GT(got, 0);
        EXPECT_EQ("first\n{\"type\":4,\"serno\":7,\"data\":{\"dps\":{\"1\":true}}}\nlast\n",
                  std::string(buf, static_cast<size_t>(got)));
        EXPECT_EQ(-1, recv(fds[1], buf, sizeof buf, MSG_DONTWAIT)); // nothing else was written
        EXPECT_FALSE(session.has_output());
        EXPECT_EQ(1u, it::references(block));
        put_rfc_data(block);
    }
    close(fds[1]);
}

TEST_F(LanSession, AFullSocketKeepsThePartlyWrittenFrameAndTheRestFollowsInOrder)
{
    const int small = 4096;
    ASSERT_EQ(0, setsockopt(fds_[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small));
    std::string expected;
    std::vector<RFC_DATA_S *> blocks;
    for (int i = 0; i < 40; ++i) {
        if (i % 2 == 0) {
            const std::string line = std::to_string(i) + ":" + std::string(900, 'x') + "\n";
            ASSERT_TRUE(session_->queue_text(line, 64));
            expected += line;
        } else {
            const std::string data = "{\"dps\":{\"1\":\"" + std::string(700, 'y') + "\"}}";
            RFC_DATA_S *block = it::make_block(data.c_str(), static_cast<unsigned>(i));
            ASSERT_TRUE(session_->queue_block(block, 4, 64));
            blocks.push_back(block);
            expected += "{\"type\":4,\"serno\":" + std::to_string(i) + ",\"data\":" + data + "}\n";
        }
    }
    std::string received;
    int rounds = 0;
    for (; session_->has_output() && rounds < 10000; ++rounds) {
        ASSERT_TRUE(session_->flush());
        received += read_peer();
    }
    received += read_peer();
    EXPECT_GT(rounds, 1); // the socket did fill up on the way
    EXPECT_EQ(expected, received);
    for (RFC_DATA_S *block : blocks) {
        EXPECT_EQ(1u, it::references(block));
        put_rfc_data(block);
    }
}

} // namespace
