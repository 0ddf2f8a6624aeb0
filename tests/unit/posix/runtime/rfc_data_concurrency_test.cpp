#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "services/uni_memory.h"
#include "services/uni_rfc.h"

namespace {

TEST(RfcData, WrapsTheDataWithTheInitialReferencesAndFreesItOnTheLastPut)
{
    char *text = static_cast<char *>(Malloc(6));
    std::memcpy(text, "hello", 6);
    RFC_DATA_S *block = cr_rfc_data(text, 5, FALSE, 2);
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(2u, block->rfc);
    EXPECT_EQ(text, block->data);
    EXPECT_EQ(5u, block->data_len);
    EXPECT_EQ(FALSE, block->malk);
    get_rfc_data(block);
    EXPECT_EQ(3u, block->rfc);
    put_rfc_data(block);
    put_rfc_data(block);
    EXPECT_EQ(1u, block->rfc);
    EXPECT_STREQ("hello", static_cast<char *>(block->data));
    put_rfc_data(block); /* frees text and block: the leak check and ASan prove it */
}

TEST(RfcData, OneAllocationBlockCopiesTheDataAndLeavesTheCallersCopyAlone)
{
    char text[] = "abc";
    RFC_DATA_S *block = cr_rfc_data(text, 4, TRUE, 1);
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(TRUE, block->malk);
    EXPECT_NE(static_cast<void *>(text), block->data);
    EXPECT_STREQ("abc", static_cast<char *>(block->data));
    text[0] = 'x';
    EXPECT_STREQ("abc", static_cast<char *>(block->data));
    put_rfc_data(block);
}

TEST(RfcData, ZeroInitialReferencesIsRefusedAndTheDataStaysTheCallers)
{
    char *text = static_cast<char *>(Malloc(4));
    EXPECT_EQ(nullptr, cr_rfc_data(text, 4, FALSE, 0));
    Free(text);
    get_rfc_data(nullptr);
    put_rfc_data(nullptr);
}

TEST(RfcData, ConcurrentGetsAndPutsFreeExactlyOnceAfterTheLast)
{
    for (int round = 0; round < 20; ++round) {
        void *payload = Malloc(64);
        RFC_DATA_S *block = cr_rfc_data(payload, 64, FALSE, 1);
        ASSERT_NE(nullptr, block);
        constexpr int kThreads = 4;
        constexpr int kEach = 500;
        /* each thread holds one reference taken up front, churns, then drops it */
        for (int i = 0; i < kThreads; ++i) {
            get_rfc_data(block);
        }
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([block] {
                for (int i = 0; i < kEach; ++i) {
                    get_rfc_data(block);
                    put_rfc_data(block);
                }
                put_rfc_data(block);
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        EXPECT_EQ(1u, block->rfc);
        put_rfc_data(block);
    }
}

TEST(RfcDataDeath, APutWithoutAReferenceAborts)
{
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            RFC_DATA_S *block = cr_rfc_data(nullptr, 0, TRUE, 1);
            block->rfc = 0; /* simulate a count already used up */
            put_rfc_data(block);
        },
        "put without reference");
}

} // namespace
