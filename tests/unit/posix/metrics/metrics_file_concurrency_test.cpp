/*
 * node_exporter reads the metrics file whenever it is scraped: it must
 * find the previous file or the next one, never a part of one.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "port/posix/metrics/metrics_text.h"

namespace {

std::string version(char fill, size_t lines)
{
    std::string text;
    for (size_t i = 0; i < lines; ++i) {
        text += "sf_sample{line=\"" + std::to_string(i) + "\"} " + std::string(40, fill) + "\n";
    }
    return text + "# end\n";
}

TEST(MetricsFileConcurrency, AReaderNeverSeesAHalfWrittenFile)
{
    const std::string path = "/tmp/sf_metrics_atomic_" + std::to_string(getpid()) + ".prom";
    const std::string small = version('a', 50);
    const std::string large = version('b', 5000); /* ~300 KB: many write calls */
    std::string why;
    ASSERT_TRUE(sf_metrics::write_file_atomically(path, small, &why)) << why;
    std::atomic<bool> done{false};
    std::atomic<int> reads{0};
    std::atomic<int> torn{0};
    std::thread reader([&] {
        while (!done.load() || reads.load() < 200) {
            std::ifstream in(path);
            std::stringstream all;
            all << in.rdbuf();
            const std::string seen = all.str();
            if (seen != small && seen != large) {
                torn.fetch_add(1);
            }
            reads.fetch_add(1);
        }
    });
    for (int i = 0; i < 300; ++i) {
        ASSERT_TRUE(sf_metrics::write_file_atomically(path, i % 2 == 0 ? large : small, &why)) << why;
    }
    done = true;
    reader.join();
    EXPECT_EQ(0, torn.load()) << "of " << reads.load() << " reads";
    std::remove(path.c_str());
}

TEST(MetricsFileConcurrency, AFileInAMissingDirectoryIsRefusedWithTheReason)
{
    std::string why;
    EXPECT_FALSE(sf_metrics::write_file_atomically("/nonexistent-dir/m.prom", "x\n", &why));
    EXPECT_EQ("cannot write /nonexistent-dir/m.prom.tmp: No such file or directory", why);
}

} // namespace
