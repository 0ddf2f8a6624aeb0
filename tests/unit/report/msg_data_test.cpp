#include <gtest/gtest.h>

#include <cstring>

#include "smart_frame/report/report.h"
#include "tests/fakes/sf_fixture.h"

namespace {

class MsgData : public SfStartedTest {};

TEST_F(MsgData, CopiesThePayloadWithSerialNumberLengthAndTerminatorUnderTwoReferences)
{
    const char text[] = "{\"dps\":{\"1\":true}}";
    RFC_DATA_S *block = nullptr;
    ASSERT_EQ(RC_OK, __sf_mk_rfc_msg_data(reinterpret_cast<const BYTE_T *>(text), std::strlen(text), &block));

    ASSERT_NE(nullptr, block);
    EXPECT_EQ(2u, fake::rfc::count(block));
    EXPECT_EQ(FALSE, block->malk);
    EXPECT_EQ(std::strlen(text) + 8, block->data_len);
    const MSG_DATA_S *msg = static_cast<const MSG_DATA_S *>(block->data);
    EXPECT_EQ(0u, msg->serno);
    EXPECT_EQ(std::strlen(text), msg->len);
    EXPECT_STREQ(text, reinterpret_cast<const char *>(msg->data));

    put_rfc_data(block);
    put_rfc_data(block);
}

TEST_F(MsgData, ZeroLengthPayloadIsANineByteMessage)
{
    const size_t bytes_before = fake::mem::alloc_bytes();
    RFC_DATA_S *block = nullptr;
    ASSERT_EQ(RC_OK, __sf_mk_rfc_msg_data(reinterpret_cast<const BYTE_T *>(""), 0, &block));

    const MSG_DATA_S *msg = static_cast<const MSG_DATA_S *>(block->data);
    EXPECT_EQ(0u, msg->len);
    EXPECT_EQ(0, msg->data[0]);
    EXPECT_EQ(8u, block->data_len);
    /* the message (9 bytes) and the block record of the fake */
    EXPECT_EQ(9u + sizeof(RFC_DATA_S), fake::mem::alloc_bytes() - bytes_before);

    put_rfc_data(block);
    put_rfc_data(block);
}

TEST_F(MsgData, ConsecutiveMessagesCarryConsecutiveSerialNumbers)
{
    RFC_DATA_S *first = nullptr;
    RFC_DATA_S *second = nullptr;
    ASSERT_EQ(RC_OK, __sf_mk_rfc_msg_data(reinterpret_cast<const BYTE_T *>("a"), 1, &first));
    ASSERT_EQ(RC_OK, __sf_mk_rfc_msg_data(reinterpret_cast<const BYTE_T *>("b"), 1, &second));
    EXPECT_EQ(fake::rfc::serno(first) + 1, fake::rfc::serno(second));
    for (RFC_DATA_S *block : {first, first, second, second}) {
        put_rfc_data(block);
    }
}

TEST_F(MsgData, MessageAllocationFailureIsLoggedAndReturnsNoMemory)
{
    RFC_DATA_S *block = nullptr;
    fake::mem::fail_nth(1);
    EXPECT_EQ(RC_NO_MEMORY, __sf_mk_rfc_msg_data(reinterpret_cast<const BYTE_T *>("abc"), 3, &block));
    EXPECT_EQ(nullptr, block);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_mk_rfc_msg_data", "malloc fails :3"));
}

TEST_F(MsgData, BlockCreationFailureFreesTheMessage)
{
    RFC_DATA_S *block = nullptr;
    fake::mem::fail_nth(2); /* the fake's block record comes second */
    EXPECT_EQ(RC_NO_MEMORY, __sf_mk_rfc_msg_data(reinterpret_cast<const BYTE_T *>("abc"), 3, &block));
    EXPECT_EQ(nullptr, block);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_mk_rfc_msg_data", "cr_rfc_data fails :3"));
}

} // namespace
