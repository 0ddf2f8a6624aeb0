#include <gtest/gtest.h>

#include "smart_frame/frame_cntl.h"
#include "tests/fakes/sf_fixture.h"

namespace {

class SyncRetry : public SfStartedTest {
protected:
    TM_MSG_S *tm() { return sf::sf_cntl.tmm_dp_sync; }
    int start_calls() { return fake::msgq::calls(fake::msgq::Call::start_tm_msg); }
};

TEST_F(SyncRetry, ArmingWhileArmedStartsTheTwoSecondsOver)
{
    sf_start_sync_obj_dp();
    fake::timers::advance(1500);
    sf_start_sync_obj_dp();

    ASSERT_EQ(2u, fake::timers::starts_of(tm()).size());
    EXPECT_EQ(fake::timers::now_ms() + 2000, fake::timers::due_ms(tm()));
    EXPECT_EQ(0u, fake::msgq::pending());
}

TEST_F(SyncRetry, AStartTheMessageModuleRefusesIsDroppedSilently)
{
    const int before = start_calls();
    fake::msgq::fail(fake::msgq::Call::start_tm_msg, RC_NO_MEMORY);

    sf_start_sync_obj_dp();

    EXPECT_EQ(before + 1, start_calls());
    EXPECT_FALSE(fake::timers::armed(tm()));
    EXPECT_TRUE(fake::log::entries().empty()) << fake::log::dump();
}

TEST_F(SyncRetry, OnlyAConnectionStateOfExactlyOneArms)
{
    for (const BOOL_T state : {BOOL_T{0}, BOOL_T{2}, BOOL_T{255}}) {
        fake::mqtt::set_conn_stat(state);
        sf_start_sync_obj_dp();
        EXPECT_FALSE(fake::timers::armed(tm())) << "state " << static_cast<int>(state);
    }
    fake::mqtt::set_conn_stat(1);
    sf_start_sync_obj_dp();
    EXPECT_TRUE(fake::timers::armed(tm()));
    EXPECT_EQ(4, fake::mqtt::conn_stat_calls());
}

} // namespace
