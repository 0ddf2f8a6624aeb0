#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <regex>

#include "port/posix/log/log_output.h"
#include "port/posix/runtime/posix_runtime.h"
#include "port/posix/state/state_db.h"
#include "port/posix/state/state_store.h"
#include "tests/unit/posix/posix_test_util.h"
#include "services/uni_log.h"
#include "state_test_util.h"

namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

/* What was logged since CaptureStderr: the log is written by its own thread, so it is flushed first. */
std::string captured_log()
{
    sf_log::flush();
    return GetCapturedStderr();
}

using posix_test::eventually;
using state_test::rows;
using std::chrono::milliseconds;

class StateStore : public ::testing::Test {
protected:
    void SetUp() override
    {
        uni_log_set_level(LOG_LEVEL_DETAIL);
        ASSERT_TRUE(state_test::load());
    }
    void TearDown() override
    {
        sf_state::stop();
        gw_registry::unload();
    }
    /* stop, forget the registry, load it again from the description and start from the file */
    bool restart(milliseconds interval = milliseconds(20))
    {
        sf_state::stop();
        gw_registry::unload();
        return state_test::load() && sf_state::start({file_, interval});
    }
    bool rows_become(const std::vector<std::string> &want)
    {
        return eventually([&] { return rows(file_) == want; });
    }

    state_test::TempDir dir_;
    std::string file_ = dir_.file("state.db");
};

/* rows of a state file made beforehand, as an older run would have left them */
void store_rows(const std::string &file, const std::vector<sf_state::Row> &stored)
{
    sf_state::Db db;
    ASSERT_TRUE(db.open(file));
    std::string why;
    ASSERT_EQ(0, db.write(stored, {}, &why)) << why;
}

sf_state::Row row(const char *dev, int dpid, int prop, const char *range, long long num, const char *text, int pv)
{
    sf_state::Row r;
    r.dev = dev;
    r.dpid = dpid;
    r.prop = prop;
    r.range = range;
    r.num = num;
    r.text = text;
    r.pv_stat = pv;
    return r;
}

TEST_F(StateStore, ChangedValuesComeBackAfterARestartWithTheirPublishState)
{
    ASSERT_TRUE(sf_state::start({file_, milliseconds(20)}));
    state_test::change("plug", 1, [](DP_CNTL_S &dp) { dp.prop.prop_bool.value = TRUE; dp.pv_stat = PV_STAT_CLOUD; });
    state_test::set_value("plug", 2, 420, PV_STAT_SENDING);
    state_test::change("plug", 3, [](DP_CNTL_S &dp) { std::strcpy(dp.prop.prop_str.value, "hall"); dp.pv_stat = PV_STAT_LOCAL; });
    state_test::change("plug", 4, [](DP_CNTL_S &dp) { dp.prop.prop_enum.value = 2; dp.pv_stat = PV_STAT_CLOUD; });
    state_test::change("plug", 5, [](DP_CNTL_S &dp) { dp.prop.prop_bitmap.value = 0x81; dp.pv_stat = PV_STAT_CLOUD; });
    state_test::change("lamp", 1, [](DP_CNTL_S &dp) { dp.prop.prop_bool.value = TRUE; dp.pv_stat = PV_STAT_LOCAL; });
    ASSERT_TRUE(rows_become({"lamp 1 1  1", "plug 1 1  3", "plug 2 420  2", "plug 3 0 hall 1", "plug 4 0 high 3",
                             "plug 5 129  3"}));

    CaptureStderr();
    ASSERT_TRUE(restart());
    const std::string log = captured_log();
    EXPECT_NE(std::string::npos, log.find("state: 6 DP values restored from " + file_ +
                                          " (3 not confirmed by the cloud yet: sent again once connected)\n"))
        << log;
    EXPECT_EQ(TRUE, state_test::dp_of("plug", 1).prop.prop_bool.value);
    EXPECT_EQ(PV_STAT_CLOUD, state_test::dp_of("plug", 1).pv_stat);
    EXPECT_EQ(420, state_test::dp_of("plug", 2).prop.prop_value.value);
    EXPECT_EQ(PV_STAT_LOCAL, state_test::dp_of("plug", 2).pv_stat); /* was on its way: sent again */
    EXPECT_STREQ("hall", state_test::dp_of("plug", 3).prop.prop_str.value);
    EXPECT_EQ(PV_STAT_LOCAL, state_test::dp_of("plug", 3).pv_stat);
    EXPECT_EQ(2, state_test::dp_of("plug", 4).prop.prop_enum.value);
    EXPECT_EQ(0x81u, state_test::dp_of("plug", 5).prop.prop_bitmap.value);
    EXPECT_EQ(PV_STAT_LOCAL, state_test::dp_of("lamp", 1).pv_stat);
    EXPECT_EQ(PV_STAT_INVALID, state_test::dp_of("many", 1).pv_stat); /* never stored: as described */
    EXPECT_TRUE(sf_state::restored("plug", 2));
    EXPECT_TRUE(sf_state::restored("lamp", 1));
    EXPECT_FALSE(sf_state::restored("plug", 6));
    EXPECT_FALSE(sf_state::restored("many", 1));
}

TEST_F(StateStore, OnlyChangedDpsGetRowsAndAnUnchangedDpIsNotWrittenAgain)
{
    ASSERT_TRUE(sf_state::start({file_, milliseconds(20)}));
    EXPECT_TRUE(rows(file_).empty());
    state_test::set_value("many", 7, 77, PV_STAT_CLOUD);
    ASSERT_TRUE(rows_become({"many 7 77  3"}));
    /* looked up again without a change, over several passes: nothing is written */
    const unsigned long passes = sf_state::passes();
    for (int i = 0; i < 5; ++i) {
        ASSERT_NE(nullptr, get_dev_cntl("many"));
    }
    ASSERT_TRUE(eventually([&] { return sf_state::passes() >= passes + 3; }));
    EXPECT_EQ(std::vector<std::string>{"many 7 77  3"}, rows(file_));
    state_test::set_value("many", 7, 78, PV_STAT_LOCAL);
    EXPECT_TRUE(rows_become({"many 7 78  1"}));
}

TEST_F(StateStore, AStopWritesWhatChangedSinceTheLastWrite)
{
    ASSERT_TRUE(sf_state::start({file_, milliseconds(600000)})); /* no pass of its own in this test */
    state_test::set_value("plug", 2, 999, PV_STAT_LOCAL);
    EXPECT_TRUE(rows(file_).empty());
    sf_state::stop();
    EXPECT_EQ(std::vector<std::string>{"plug 2 999  1"}, rows(file_));
}

TEST_F(StateStore, RowsOfDevicesOrDpsNoLongerDescribedAreDroppedWithOneLine)
{
    store_rows(file_, {row("gone", 1, PROP_BOOL, "", 1, "", 3), row("plug", 9, PROP_BOOL, "", 1, "", 3),
                       row("plug", 6, PROP_BOOL, "", 1, "", 3), row("plug", 2, PROP_VALUE, "0..1000/1/0", 5, "", 3)});
    CaptureStderr();
    ASSERT_TRUE(sf_state::start({file_, milliseconds(20)}));
    const std::string log = captured_log();
    EXPECT_EQ(1u, state_test::count_of(log, "state: 3 stored values of devices or DPs no longer described were dropped\n"))
        << log;
    EXPECT_EQ(5, state_test::dp_of("plug", 2).prop.prop_value.value);
    EXPECT_EQ(std::vector<std::string>{"plug 2 5  3"}, rows(file_));
}

TEST_F(StateStore, ADpWhoseTypeOrRangeChangedKeepsTheDescriptionsDefaultWithOneLineEach)
{
    store_rows(file_, {row("plug", 1, PROP_VALUE, "0..1/0/0", 1, "", 3),       /* was a value DP */
                       row("plug", 2, PROP_VALUE, "0..500/0/0", 300, "", 3),   /* other limits */
                       row("plug", 4, PROP_ENUM, "", 0, "turbo", 3),           /* a name no longer there */
                       row("plug", 3, PROP_STR, "len 8", 0, "far too long", 3), /* does not fit */
                       row("lamp", 1, PROP_BOOL, "", 1, "", 3)});
    CaptureStderr();
    ASSERT_TRUE(sf_state::start({file_, milliseconds(20)}));
    const std::string log = captured_log();
    for (const char *line : {"WARN ", "state: plug DP 1 changed type or range since it was stored: it keeps the description's default\n",
                             "state: plug DP 2 changed type or range since it was stored: it keeps the description's default\n",
                             "state: plug DP 4 changed type or range since it was stored: it keeps the description's default\n",
                             "state: plug DP 3 changed type or range since it was stored: it keeps the description's default\n",
                             "state: 1 DP values restored from "}) {
        EXPECT_NE(std::string::npos, log.find(line)) << line << "\n" << log;
    }
    EXPECT_EQ(std::string::npos, log.find("no longer described")) << log;
    EXPECT_EQ(FALSE, state_test::dp_of("plug", 1).prop.prop_bool.value);
    EXPECT_EQ(0, state_test::dp_of("plug", 2).prop.prop_value.value);
    EXPECT_EQ(0, state_test::dp_of("plug", 4).prop.prop_enum.value);
    EXPECT_STREQ("", state_test::dp_of("plug", 3).prop.prop_str.value);
    EXPECT_EQ(PV_STAT_INVALID, state_test::dp_of("plug", 2).pv_stat);
    EXPECT_EQ(TRUE, state_test::dp_of("lamp", 1).prop.prop_bool.value);
    EXPECT_EQ(std::vector<std::string>{"lamp 1 1  3"}, rows(file_)); /* the changed rows are gone */
}

TEST_F(StateStore, ACorruptFileIsKeptAsideAndTheGatewayStartsFromTheDescription)
{
    {
        std::ofstream garbage(file_);
        for (int i = 0; i < 200; ++i) {
            garbage << "this is not a database, whatever the name says\n";
        }
    }
    CaptureStderr();
    ASSERT_TRUE(sf_state::start({file_, milliseconds(20)}));
    const std::string log = captured_log();
    const std::regex line("ERROR [^\\n]*state: " + file_ + " cannot be used \\(file is not a database\\); kept as (" +
                          file_ + "\\.bad-\\d{8}T\\d{6}Z), the gateway starts from its description\\n");
    std::smatch found;
    ASSERT_TRUE(std::regex_search(log, found, line)) << log;
    EXPECT_EQ(1u, state_test::count_of(log, "cannot be used"));
    std::ifstream aside(found[1].str());
    std::string first;
    std::getline(aside, first);
    EXPECT_EQ("this is not a database, whatever the name says", first);
    state_test::set_value("plug", 2, 11, PV_STAT_LOCAL);
    EXPECT_TRUE(rows_become({"plug 2 11  1"}));
}

TEST_F(StateStore, AFileOfAnotherSchemaVersionIsKeptAside)
{
    ASSERT_EQ(SQLITE_OK, state_test::exec(file_, "PRAGMA application_id=1397117780; PRAGMA user_version=7;"
                                                 "CREATE TABLE dp_state(x)"));
    CaptureStderr();
    ASSERT_TRUE(sf_state::start({file_, milliseconds(20)}));
    const std::string log = captured_log();
    EXPECT_TRUE(std::regex_search(log, std::regex("state: " + file_ +
                                                  " cannot be used \\(schema version 7, this gateway reads version 1\\); "
                                                  "kept as " + file_ + "\\.bad-\\d{8}T\\d{6}Z, the gateway starts from its description\\n")))
        << log;
    state_test::set_value("plug", 2, 12, PV_STAT_LOCAL);
    EXPECT_TRUE(rows_become({"plug 2 12  1"}));
}

TEST_F(StateStore, AnotherSqliteFileIsNoStateFileAndIsKeptAside)
{
    ASSERT_EQ(SQLITE_OK, state_test::exec(file_, "CREATE TABLE notes(x); INSERT INTO notes VALUES(1)"));
    CaptureStderr();
    ASSERT_TRUE(sf_state::start({file_, milliseconds(20)}));
    const std::string log = captured_log();
    EXPECT_NE(std::string::npos, log.find("cannot be used (not a state file of this gateway); kept as ")) << log;
}

TEST_F(StateStore, AnUnusableLocationLeavesTheGatewayRunningWithoutAStore)
{
    const std::string file = dir_.file("no/such/dir/state.db");
    CaptureStderr();
    EXPECT_FALSE(sf_state::start({file, milliseconds(20)}));
    const std::string log = captured_log();
    EXPECT_EQ(1u, state_test::count_of(log, "state: ")) << log;
    EXPECT_NE(std::string::npos, log.find("ERROR ")) << log;
    EXPECT_NE(std::string::npos, log.find("state: cannot open " + file +
                                          " (unable to open database file): the gateway runs from its description "
                                          "and stores nothing\n"))
        << log;
    EXPECT_FALSE(sf_state::running());
    state_test::set_value("plug", 2, 13, PV_STAT_LOCAL); /* the registry works as ever */
    EXPECT_EQ(13, state_test::dp_of("plug", 2).prop.prop_value.value);
}

TEST_F(StateStore, AFullDiskIsLoggedOnceRetriedAndWrittenOnceThereIsRoom)
{
    ASSERT_TRUE(sf_state::start({file_, milliseconds(20)}));
    /* no page beyond those the file has: the next rows that need one find the disk full */
    ASSERT_EQ(SQLITE_OK, sf_state::exec_for_test("PRAGMA max_page_count=1"));
    CaptureStderr();
    for (int i = 1; i <= 40; ++i) {
        state_test::set_value("many", i, 50000 + i, PV_STAT_LOCAL);
    }
    const unsigned long passes = sf_state::passes();
    ASSERT_TRUE(eventually([&] { return sf_state::passes() >= passes + 10; })); /* ten retries */
    EXPECT_TRUE(rows(file_).empty());
    EXPECT_EQ(50040, state_test::dp_of("many", 40).prop.prop_value.value); /* the values stay in memory */
    ASSERT_EQ(SQLITE_OK, sf_state::exec_for_test("PRAGMA max_page_count=1000000"));
    ASSERT_TRUE(eventually([&] { return rows(file_).size() == 40; }));
    const unsigned long written = sf_state::passes(); /* the line comes before the pass ends */
    ASSERT_TRUE(eventually([&] { return sf_state::passes() > written; }));
    const std::string log = captured_log();
    EXPECT_EQ(1u, state_test::count_of(log, "ERROR ")) << log;
    EXPECT_EQ(1u, state_test::count_of(log, "state: writing " + file_ +
                                                " failed (database or disk is full): the values stay in memory, "
                                                "retried every 20 ms\n"))
        << log;
    EXPECT_EQ(1u, state_test::count_of(log, "state: writing " + file_ + " works again (40 values written)\n")) << log;
    EXPECT_EQ("many 40 50040  1", rows(file_).back());
}

} // namespace

namespace {

/*
 * Make dir read-only for this test process only: a private mount namespace
 * with a read-only bind mount over it (root ignores file modes, a mount
 * does not). false with *why where the process may not do that.
 */
bool make_read_only(const std::string &dir, std::string *why)
{
    if (unshare(CLONE_NEWNS) != 0) {
        *why = std::string("unshare(CLONE_NEWNS): ") + std::strerror(errno);
        return false;
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(dir.c_str(), dir.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
        mount(nullptr, dir.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
        *why = std::string("read-only bind mount: ") + std::strerror(errno);
        return false;
    }
    return true;
}

TEST_F(StateStore, AReadOnlyLocationRestoresTheStoredValuesAndWritesNothing)
{
    ASSERT_TRUE(sf_state::start({file_, milliseconds(20)}));
    state_test::set_value("plug", 2, 800, PV_STAT_CLOUD);
    state_test::set_value("many", 3, 33, PV_STAT_LOCAL);
    ASSERT_TRUE(rows_become({"many 3 33  1", "plug 2 800  3"}));
    sf_state::stop();
    gw_registry::unload();
    std::string why;
    if (!make_read_only(dir_.path(), &why)) {
        GTEST_SKIP() << "no read-only location can be made here (" << why << ")";
    }
    ASSERT_TRUE(state_test::load());

    CaptureStderr();
    EXPECT_FALSE(sf_state::start({file_, milliseconds(20)})); /* no writer runs */
    const std::string log = captured_log();
    EXPECT_EQ(800, state_test::dp_of("plug", 2).prop.prop_value.value);
    EXPECT_EQ(PV_STAT_CLOUD, state_test::dp_of("plug", 2).pv_stat);
    EXPECT_EQ(33, state_test::dp_of("many", 3).prop.prop_value.value);
    EXPECT_EQ(PV_STAT_LOCAL, state_test::dp_of("many", 3).pv_stat);
    EXPECT_TRUE(sf_state::restored("plug", 2));
    EXPECT_TRUE(sf_state::read_only());
    EXPECT_FALSE(sf_state::running());
    EXPECT_NE(std::string::npos, log.find("state: 2 DP values restored from " + file_ +
                                          " (1 not confirmed by the cloud yet: sent again once connected)\n"))
        << log;
    EXPECT_EQ(1u, state_test::count_of(log, "WARN ")) << log;
    EXPECT_NE(std::string::npos, log.find("WARN state_store.cpp")) << log;
    EXPECT_NE(std::string::npos, log.find("state: " + file_ +
                                          " cannot be written: the gateway runs on the values it restored and "
                                          "stores nothing until it restarts with a writable location\n"))
        << log;
    EXPECT_EQ(0u, state_test::count_of(log, "ERROR ")) << log;
    state_test::set_value("plug", 2, 801, PV_STAT_LOCAL);
    sf_state::stop();
    ASSERT_EQ(0, umount2(dir_.path().c_str(), MNT_DETACH)) << std::strerror(errno); /* writable again, to look */
    EXPECT_EQ((std::vector<std::string>{"many 3 33  1", "plug 2 800  3"}), rows(file_)); /* as it was */
}

TEST_F(StateStore, AWritableLocationIsNotReadOnly)
{
    ASSERT_TRUE(sf_state::start({file_, milliseconds(20)}));
    EXPECT_FALSE(sf_state::read_only());
}

} // namespace
