#include <gtest/gtest.h>

#include <cstdlib>

#include "sfcloud/health.h"
#include "sfgw/options.h"

namespace {

TEST(GatewayMetricsOptions, LogAndMetricsOptionsAreRead)
{
    sfgw::Options o;
    std::string why;
    ASSERT_TRUE(sfgw::parse_options({"gw.json", "--log-file", "/var/log/sfgw.log", "--syslog", "--metrics-file",
                                     "/run/sfgw.prom", "--metrics-interval", "5", "--metrics-mqtt", "0"},
                                    &o, &why))
        << why;
    EXPECT_EQ("/var/log/sfgw.log", o.log_file);
    EXPECT_TRUE(o.syslog);
    EXPECT_EQ("/run/sfgw.prom", o.metrics_file);
    EXPECT_EQ(5, o.metrics_interval_s);
    EXPECT_EQ(0, o.metrics_mqtt_s);
}

TEST(GatewayMetricsOptions, DefaultsPublishTheHealthEveryMinuteAndWriteNoFile)
{
    sfgw::Options o;
    std::string why;
    ASSERT_TRUE(sfgw::parse_options({"gw.json"}, &o, &why)) << why;
    EXPECT_EQ("", o.metrics_file);
    EXPECT_EQ(15, o.metrics_interval_s);
    EXPECT_EQ(60, o.metrics_mqtt_s);
}

TEST(GatewayMetricsOptions, BadPeriodsAreRefusedWithAReason)
{
    sfgw::Options o;
    std::string why;
    EXPECT_FALSE(sfgw::parse_options({"gw.json", "--metrics-interval", "0"}, &o, &why));
    EXPECT_EQ("--metrics-interval: expected seconds (1..86400), got 0", why);
    sfgw::Options o2;
    EXPECT_FALSE(sfgw::parse_options({"gw.json", "--metrics-mqtt", "-1"}, &o2, &why));
    EXPECT_EQ("--metrics-mqtt: expected seconds (0..86400), got -1", why);
    sfgw::Options o3;
    EXPECT_FALSE(sfgw::parse_options({"gw.json", "--log-file"}, &o3, &why));
    EXPECT_EQ("--log-file: expected a file name", why);
}

TEST(GatewayMetricsOptions, AnUnreadableLogLevelInTheEnvironmentIsAnError)
{
    std::string why;
    setenv("SF_LOG_LEVEL", "loud", 1);
    EXPECT_FALSE(sfgw::check_environment(&why));
    EXPECT_EQ("SF_LOG_LEVEL: expected 0..5 or error, warn, notice, info, progress, detail, got \"loud\"", why);
    setenv("SF_LOG_LEVEL", "warn", 1);
    EXPECT_TRUE(sfgw::check_environment(&why));
    unsetenv("SF_LOG_LEVEL");
    EXPECT_TRUE(sfgw::check_environment(&why));
}

const char *const kDocument = R"({"gateway":"gw0001","time":1000,
 "mqtt":{"connected":false,"connects":2,"disconnects":1,
   "publications":{"accepted":10,"confirmed":10,"failed":0,"timed_out":0},
   "latency_s":{"le":[0.01,0.05,0.1,0.5,1,5,30,null],"counts":[5,8,9,10,10,10,10,10],"sum":0.2},
   "inbound":{"dp":1,"group":0,"scene":0,"query":0},
   "inbound_dropped":{"oversize":1,"too_deep":2,"queue_full":0,"invalid":0},
   "session":7,"session_kept":true,"takeovers":2},
 "dispatch":{"depth":0,"depth_max":1,"handled":3},
 "lan":{"clients":0,"auth_refused":4,"dropped_slow":1},
 "registry":{"devices":4,"online":3,"offline":1,"dps":{"none":1,"local":2,"sending":1,"confirmed":9},
   "pending":3,"pending_peak":3,"heartbeat_probes":2},
 "log":{"dropped":5,"suppressed":0},"process":{"uptime_s":60,"rss_bytes":6000000}})";

TEST(Health, ARowSumsUpTheDocument)
{
    sfcloud::GatewayHealth seen;
    seen.have_status = true;
    seen.online = true;
    seen.document = kDocument;
    sfcloud::HealthRow row;
    ASSERT_TRUE(sfcloud::health_row("gw0001", seen, 1012, &row));
    EXPECT_EQ("down", row.link);
    EXPECT_EQ(3, row.pending);
    EXPECT_EQ(1 + 2 + 1 + 5, row.drops);
    EXPECT_EQ(4, row.devices);
    EXPECT_EQ(3, row.online);
    EXPECT_DOUBLE_EQ(20.0, row.latency_mean_ms);
    EXPECT_EQ("<= 100 ms", row.latency_p90);
    EXPECT_EQ(12, row.age_s);
    EXPECT_EQ(2, row.takeovers);
}

TEST(Health, AGatewayWhoseWillWasPublishedIsOfflineAndJunkIsNoRow)
{
    sfcloud::GatewayHealth seen;
    seen.have_status = true;
    seen.online = false;
    seen.document = kDocument;
    sfcloud::HealthRow row;
    ASSERT_TRUE(sfcloud::health_row("gw0001", seen, 1000, &row));
    EXPECT_EQ("offline", row.link);
    seen.document = "{\"not\":\"health\"}";
    EXPECT_FALSE(sfcloud::health_row("gw0001", seen, 1000, &row));
}

TEST(Health, TheTableHasAHeaderAndOneLinePerGateway)
{
    std::map<std::string, sfcloud::GatewayHealth> seen;
    seen["gw0001"].document = kDocument;
    seen["gw0002"].have_status = true;
    char *text = nullptr;
    size_t len = 0;
    FILE *out = open_memstream(&text, &len);
    sfcloud::print_health_table(seen, 1001, out);
    std::fclose(out);
    const std::string table(text, len);
    std::free(text);
    EXPECT_EQ("GATEWAY          LINK      PENDING  DROPS  DEVICES   LAT MEAN    LAT P90    AGE TAKEOVERS\n"
              "gw0001           down            3      9      3/4    20.0 ms  <= 100 ms     1s         2\n"
              "gw0002           offline  (no health document)\n",
              table);
}

} // namespace
