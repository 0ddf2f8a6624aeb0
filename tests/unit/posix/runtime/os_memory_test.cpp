#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <cstring>

#include "port/posix/runtime/posix_runtime.h"
#include "services/uni_memory.h"

namespace {

TEST(Memory, ZeroBytesStillGivesABlockSoNullAlwaysMeansExhaustion)
{
    void *block = Malloc(0);
    EXPECT_NE(nullptr, block);
    Free(block);
    Free(nullptr);
}

TEST(Memory, BlocksAreUsableForTheirWholeSize)
{
    char *block = static_cast<char *>(Malloc(100));
    ASSERT_NE(nullptr, block);
    std::memset(block, 0x5a, 100); /* ASan proves the size */
    Free(block);
}

TEST(Memory, TextsPrintedByCjsonAreReleasedWithFree)
{
    uni_memory_install_json_hooks(); /* a second installation is harmless */
    cJSON *doc = cJSON_Parse(R"({"1":true,"2":25})");
    ASSERT_NE(nullptr, doc);
    char *text = cJSON_PrintUnformatted(doc);
    ASSERT_NE(nullptr, text);
    EXPECT_STREQ(R"({"1":true,"2":25})", text);
    Free(text);
    cJSON_Delete(doc);
}

} // namespace
