#include <gtest/gtest.h>

#include "port/posix/log/log_output.h"
#include "port/posix/runtime/posix_runtime.h"
#include "port/posix/state/command_journal.h"
#include "port/posix/state/state_db.h"
#include "services/uni_log.h"
#include "state_test_util.h"

namespace {

namespace journal = sf_state::journal;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

class CommandJournal : public ::testing::Test {
protected:
    void SetUp() override
    {
        uni_log_set_level(LOG_LEVEL_DETAIL);
        sf_state::Db db; /* the state store makes the file; the journal joins it */
        ASSERT_TRUE(db.open(file_));
    }
    void TearDown() override { journal::close(); }

    state_test::TempDir dir_;
    std::string file_ = dir_.file("state.db");
};

TEST_F(CommandJournal, KeptCommandsComeBackOldestFirstAfterAReopen)
{
    ASSERT_TRUE(journal::open(file_));
    EXPECT_EQ(1, journal::put("dp", "{\"a\":1}", 7, 0));
    EXPECT_EQ(2, journal::put("group", "{\"b\":2}", 7, 1795000000123));
    EXPECT_EQ(3, journal::put("dp", "", 0, 0));
    journal::close();
    EXPECT_FALSE(journal::is_open());

    ASSERT_TRUE(journal::open(file_));
    const std::vector<journal::Entry> kept = journal::read_all();
    ASSERT_EQ(3u, kept.size());
    EXPECT_EQ(1, kept[0].seq);
    EXPECT_EQ("dp", kept[0].kind);
    EXPECT_EQ("{\"a\":1}", kept[0].payload);
    EXPECT_EQ(0, kept[0].expires_ms);
    EXPECT_EQ("group", kept[1].kind);
    EXPECT_EQ(1795000000123, kept[1].expires_ms);
    EXPECT_EQ("", kept[2].payload);
}

TEST_F(CommandJournal, ACommandMarkedDoneIsDeletedByTheNextFlushOnly)
{
    ASSERT_TRUE(journal::open(file_));
    const int64_t first = journal::put("dp", "{}", 2, 0);
    const int64_t second = journal::put("dp", "{}", 2, 0);
    journal::done(first);
    EXPECT_EQ(2u, journal::read_all().size()) << "marked, not deleted yet";
    journal::flush();
    const std::vector<journal::Entry> kept = journal::read_all();
    ASSERT_EQ(1u, kept.size());
    EXPECT_EQ(second, kept[0].seq);
}

TEST_F(CommandJournal, CloseDeletesWhatWasMarkedDone)
{
    ASSERT_TRUE(journal::open(file_));
    journal::done(journal::put("dp", "{}", 2, 0));
    journal::close();
    ASSERT_TRUE(journal::open(file_));
    EXPECT_TRUE(journal::read_all().empty());
}

TEST_F(CommandJournal, TheSessionNumberRisesByOneAndSurvivesAReopen)
{
    ASSERT_TRUE(journal::open(file_));
    EXPECT_EQ(1u, journal::next_session());
    EXPECT_EQ(2u, journal::next_session());
    journal::close();
    ASSERT_TRUE(journal::open(file_));
    EXPECT_EQ(3u, journal::next_session());
}

TEST_F(CommandJournal, AStateFileHoldingTheJournalStillOpensAsAStateFile)
{
    ASSERT_TRUE(journal::open(file_));
    journal::put("dp", "{}", 2, 0);
    journal::close();
    sf_state::Db db;
    ASSERT_TRUE(db.open(file_)) << "the journal's tables must not make the file look foreign";
    std::vector<sf_state::Row> rows;
    EXPECT_TRUE(db.read_all(&rows));
}

TEST_F(CommandJournal, WithoutAUsableFileNothingIsKeptAndOneLineSaysSo)
{
    const std::string missing = dir_.file("no/such/dir/state.db");
    CaptureStderr();
    EXPECT_FALSE(journal::open(missing));
    sf_log::flush();
    const std::string log = GetCapturedStderr();
    EXPECT_NE(std::string::npos,
              log.find(" ERROR command_journal.cpp:")) << log;
    EXPECT_NE(std::string::npos, log.find("state: no command journal in " + missing +
                                          " (unable to open database file): commands are kept in memory only until "
                                          "they are applied"))
        << log;
    EXPECT_EQ(0, journal::put("dp", "{}", 2, 0));
    EXPECT_EQ(0u, journal::next_session());
    EXPECT_TRUE(journal::read_all().empty());
    journal::done(5); /* harmless while closed */
    journal::flush();
}

} // namespace
