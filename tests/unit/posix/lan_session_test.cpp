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

#include "port/posix/lan_session.h"
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

TEST_F(LanSession, CompleteLinesAreSplitAndAPartialLineWaits)
{
    std::vector<std::string> lines;
    const std::string first = "{\"a\":1}\r\n{\"b\"";
    ASSERT_TRUE(session_->take_bytes(first.data(), first.size(), 100, &lines));
    EXPECT_EQ(std::vector<std::string>{"{\"a\":1}"}, lines);
    const std::string rest = ":2}\n\n";
    ASSERT_TRUE(session_->take_bytes(rest.data(), rest.size(), 100, &lines));
    EXPECT_EQ((std::vector<std::string>{"{\"a\":1}", "{\"b\":2}"}), lines);
}

TEST_F(LanSession, ALineLongerThanTheLimitLosesTheFraming)
{
    std::vector<std::string> lines;
    const std::string long_line(101, 'x');
    EXPECT_FALSE(session_->take_bytes(long_line.data(), long_line.size(), 100, &lines));
    EXPECT_TRUE(lines.empty());
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

} // namespace
