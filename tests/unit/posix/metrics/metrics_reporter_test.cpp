/*
 * The reporter's outputs over its life: a file at start, and at a clean
 * stop one last file that says the gateway is down.
 */
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "port/posix/metrics/metrics_reporter.h"

namespace {

std::string read_all(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

bool has_line(const std::string &text, const std::string &line)
{
    return text.find(line + "\n") != std::string::npos;
}

class MetricsReporter : public ::testing::Test {
protected:
    void TearDown() override
    {
        sf_metrics::stop_reporter();
        std::remove(path_.c_str());
    }
    const std::string path_ = "/tmp/sf_metrics_reporter_" + std::to_string(getpid()) + ".prom";
};

TEST_F(MetricsReporter, TheFileSaysTheGatewayIsUpWhileItRuns)
{
    std::string why;
    ASSERT_TRUE(sf_metrics::start_reporter({path_, 15, 0, "gw1"}, &why)) << why;
    const std::string text = read_all(path_);
    EXPECT_TRUE(has_line(text, "# TYPE sf_up gauge")) << text;
    EXPECT_TRUE(has_line(text, "sf_up{gateway=\"gw1\"} 1")) << text;
}

TEST_F(MetricsReporter, ACleanStopLeavesAFileThatSaysTheGatewayIsDown)
{
    std::string why;
    ASSERT_TRUE(sf_metrics::start_reporter({path_, 15, 0, "gw1"}, &why)) << why;
    sf_metrics::stop_reporter();
    const std::string text = read_all(path_);
    EXPECT_TRUE(has_line(text, "sf_up{gateway=\"gw1\"} 0")) << text;
    EXPECT_TRUE(has_line(text, "sf_mqtt_connected{gateway=\"gw1\"} 0")) << text;
}

} // namespace
