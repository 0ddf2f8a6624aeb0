/*
 * Line framing of the LAN channel: lines are taken one at a time, what is
 * not taken waits, and a line beyond the limit loses the framing.
 */
#include <gtest/gtest.h>

#include <string>

#include "port/posix/lan/lan_line_buffer.h"

namespace {

using sf_lan::LineBuffer;

TEST(LanLineBuffer, CompleteLinesAreTakenOneAtATimeAndAPartialLineWaits)
{
    LineBuffer buffer;
    const std::string first = "{\"a\":1}\r\n\n{\"b\"";
    buffer.append(first.data(), first.size());
    std::string line;
    EXPECT_TRUE(buffer.has_line());
    ASSERT_EQ(LineBuffer::Next::Line, buffer.next(100, &line));
    EXPECT_EQ("{\"a\":1}", line);
    EXPECT_TRUE(buffer.has_line()); // the empty line
    EXPECT_EQ(LineBuffer::Next::None, buffer.next(100, &line));
    EXPECT_FALSE(buffer.has_line());
    EXPECT_TRUE(buffer.partial());
    const std::string rest = ":2}\n{\"c\":3}\n";
    buffer.append(rest.data(), rest.size());
    EXPECT_FALSE(buffer.partial());
    ASSERT_EQ(LineBuffer::Next::Line, buffer.next(100, &line));
    EXPECT_EQ("{\"b\":2}", line);
    ASSERT_EQ(LineBuffer::Next::Line, buffer.next(100, &line));
    EXPECT_EQ("{\"c\":3}", line);
    EXPECT_EQ(LineBuffer::Next::None, buffer.next(100, &line));
    EXPECT_FALSE(buffer.partial());
}

TEST(LanLineBuffer, ACompleteLineLongerThanTheLimitLosesTheFraming)
{
    LineBuffer buffer;
    const std::string bytes = std::string(101, 'x') + "\n";
    buffer.append(bytes.data(), bytes.size());
    std::string line;
    EXPECT_EQ(LineBuffer::Next::TooLong, buffer.next(100, &line));
}

TEST(LanLineBuffer, AnUnfinishedLineLongerThanTheLimitLosesTheFraming)
{
    LineBuffer buffer;
    const std::string bytes(101, 'x');
    buffer.append(bytes.data(), bytes.size());
    std::string line;
    EXPECT_EQ(LineBuffer::Next::TooLong, buffer.next(100, &line));
    EXPECT_TRUE(line.empty());
}

TEST(LanLineBuffer, ALineOfExactlyTheLimitIsTaken)
{
    LineBuffer buffer;
    const std::string bytes = std::string(100, 'x') + "\r\n";
    buffer.append(bytes.data(), bytes.size());
    std::string line;
    ASSERT_EQ(LineBuffer::Next::Line, buffer.next(100, &line));
    EXPECT_EQ(std::string(100, 'x'), line);
}

} // namespace
