#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "gateway/registry/gw_registry.h"

namespace {

/* A file in the test's temporary folder holding `text`; its path. */
std::string write_file(const char *name, const std::string &text)
{
    const std::string path = ::testing::TempDir() + name;
    FILE *f = std::fopen(path.c_str(), "w");
    EXPECT_NE(nullptr, f);
    if (f != nullptr) {
        std::fputs(text.c_str(), f);
        std::fclose(f);
    }
    return path;
}

TEST(RegistryCApi, LoadsTheDescriptionAndUnloadsIt)
{
    const std::string path = write_file("c_api_ok.json", R"({"gateway":{"id":"cgw"},"devices":[{"id":"lamp01"}]})");
    CHAR_T why[64] = "untouched";
    ASSERT_EQ(RC_OK, gw_registry_load_file(path.c_str(), why, sizeof why));
    EXPECT_STREQ("untouched", why);
    EXPECT_TRUE(gw_registry::loaded());
    EXPECT_STREQ("cgw", get_gw_cntl()->gw_if.id);
    EXPECT_EQ(2u, gw_registry::device_count()); // the gateway itself and lamp01
    gw_registry_unload();
    EXPECT_FALSE(gw_registry::loaded());
}

TEST(RegistryCApi, RefusalGivesTheSameTextAsTheCppLoader)
{
    const std::string path = write_file("c_api_bad.json", R"({"gateway":{"id":"cgw","colour":1}})");
    gw_registry::LoadError error;
    ASSERT_FALSE(gw_registry::load_file(path, &error));
    CHAR_T why[256];
    EXPECT_EQ(RC_BAD_PARAM, gw_registry_load_file(path.c_str(), why, sizeof why));
    EXPECT_EQ(error.text(), why);
    EXPECT_FALSE(gw_registry::loaded());
}

TEST(RegistryCApi, RefusalTextIsCutToTheBuffer)
{
    const std::string path = write_file("c_api_cut.json", "not json");
    gw_registry::LoadError error;
    ASSERT_FALSE(gw_registry::load_file(path, &error));
    CHAR_T why[8] = "xxxxxxx";
    EXPECT_EQ(RC_BAD_PARAM, gw_registry_load_file(path.c_str(), why, sizeof why));
    EXPECT_EQ(error.text().substr(0, 7), why);
    EXPECT_EQ(RC_BAD_PARAM, gw_registry_load_file(path.c_str(), nullptr, 0));
}

TEST(RegistryCApi, NoFileIsRefused)
{
    CHAR_T why[32];
    EXPECT_EQ(RC_BAD_PARAM, gw_registry_load_file(nullptr, why, sizeof why));
    EXPECT_STREQ("no file given", why);
    EXPECT_FALSE(gw_registry::loaded());
}

} // namespace
