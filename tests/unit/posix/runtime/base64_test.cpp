#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "services/kelo_base64.h"

namespace {

std::string encode(const std::string &bytes)
{
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '?');
    kelo_base64_encode(reinterpret_cast<const BYTE_T *>(bytes.data()), &out[0], static_cast<UINT_T>(bytes.size()));
    EXPECT_EQ('\0', out.back());
    out.pop_back();
    return out;
}

std::string decode(const char *text, INT_T *count)
{
    BYTE_T buf[64];
    std::memset(buf, 0, sizeof(buf));
    *count = kelo_base64_decode(text, buf);
    return *count > 0 ? std::string(reinterpret_cast<char *>(buf), static_cast<size_t>(*count)) : std::string();
}

TEST(Base64, EncodesTheRfc4648Vectors)
{
    EXPECT_EQ("", encode(""));
    EXPECT_EQ("Zg==", encode("f"));
    EXPECT_EQ("Zm8=", encode("fo"));
    EXPECT_EQ("Zm9v", encode("foo"));
    EXPECT_EQ("Zm9vYg==", encode("foob"));
    EXPECT_EQ("Zm9vYmE=", encode("fooba"));
    EXPECT_EQ("Zm9vYmFy", encode("foobar"));
    EXPECT_EQ("AQIDBA==", encode(std::string("\x01\x02\x03\x04", 4)));
    EXPECT_EQ("+/8=", encode(std::string("\xfb\xff", 2)));
}

TEST(Base64, DecodesTheRfc4648Vectors)
{
    INT_T n = 0;
    EXPECT_EQ("", decode("", &n));
    EXPECT_EQ(0, n);
    EXPECT_EQ("f", decode("Zg==", &n));
    EXPECT_EQ(1, n);
    EXPECT_EQ("fo", decode("Zm8=", &n));
    EXPECT_EQ("foobar", decode("Zm9vYmFy", &n));
    EXPECT_EQ(6, n);
    EXPECT_EQ(std::string("\x01\x02\x03\x04", 4), decode("AQIDBA==", &n));
    EXPECT_EQ(4, n);
}

TEST(Base64, RejectsMalformedText)
{
    INT_T n = 0;
    decode("Zg=", &n);
    EXPECT_EQ(-1, n) << "length not a multiple of four";
    decode("Zm9*", &n);
    EXPECT_EQ(-1, n) << "character outside the alphabet";
    decode("Zg==Zm8=", &n);
    EXPECT_EQ(-1, n) << "padding before the end";
    decode("Z===", &n);
    EXPECT_EQ(-1, n) << "padding in the second position";
    decode("Zm=v", &n);
    EXPECT_EQ(-1, n) << "data after padding";
    EXPECT_EQ(-1, kelo_base64_decode(nullptr, reinterpret_cast<BYTE_T *>(&n)));
}

} // namespace
