#include "sfcloud/web_files.h"

#include <gtest/gtest.h>

namespace {

std::string path_of(const std::string &target)
{
    std::string path;
    return sfcloud::web_file_path("/srv/dist", target, &path) ? path : "(refused)";
}

TEST(WebFiles, MapsTheRootAndPlainPathsIntoTheFolderWithoutTheQuery)
{
    EXPECT_EQ(path_of("/"), "/srv/dist/index.html");
    EXPECT_EQ(path_of("/assets/index-3f2a.js?v=1#top"), "/srv/dist/assets/index-3f2a.js");
    EXPECT_EQ(path_of("/assets/"), "/srv/dist/assets/index.html");
}

TEST(WebFiles, RefusesEveryPathThatCouldLeaveTheFolder)
{
    EXPECT_EQ(path_of("/../etc/passwd"), "(refused)");
    EXPECT_EQ(path_of("/assets/../../etc/passwd"), "(refused)");
    EXPECT_EQ(path_of("/assets/.."), "(refused)");
    EXPECT_EQ(path_of("/./index.html"), "(refused)");
    EXPECT_EQ(path_of("/%2e%2e/etc/passwd"), "(refused)");
    EXPECT_EQ(path_of("/a\\b"), "(refused)");
    EXPECT_EQ(path_of(std::string("/a\0b", 4)), "(refused)");
    EXPECT_EQ(path_of("index.html"), "(refused)");
    EXPECT_EQ(path_of(""), "(refused)");
}

TEST(WebFiles, NamesTheMediaTypeOfThePageFiles)
{
    EXPECT_STREQ(sfcloud::media_type_of("/x/index.html"), "text/html; charset=utf-8");
    EXPECT_STREQ(sfcloud::media_type_of("/x/a.js"), "text/javascript; charset=utf-8");
    EXPECT_STREQ(sfcloud::media_type_of("/x/a.css"), "text/css; charset=utf-8");
    EXPECT_STREQ(sfcloud::media_type_of("/x/a.png"), "image/png");
    EXPECT_STREQ(sfcloud::media_type_of("/x/a.bin"), "application/octet-stream");
    EXPECT_STREQ(sfcloud::media_type_of("js"), "application/octet-stream");
}

} // namespace
