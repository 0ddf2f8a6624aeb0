#include <gtest/gtest.h>

#include "smart_frame/frame_cntl.h"
#include "smart_frame/inbound/inbound.h"
#include "smart_frame/presence/presence.h"
#include "tests/fakes/sf_fixture.h"

using fake::msgq::Call;
using sf::sf_cntl;

namespace {

class FrameInit : public SfFakesTest {};

TEST_F(FrameInit, StartsServicesRegistersThreeHandlersAndCreatesThreeTimedMessages)
{
    ASSERT_EQ(RC_OK, smart_frame_init());

    EXPECT_EQ(1, fake::msgq::calls(Call::system_timer_init));
    EXPECT_EQ(1, fake::msgq::calls(Call::cmmod_init));
    EXPECT_EQ(2u, fake::mutex::created());
    EXPECT_NE(nullptr, sf_cntl.mutex);
    EXPECT_NE(nullptr, sf_cntl.dos_mutex);
    EXPECT_NE(sf_cntl.mutex, sf_cntl.dos_mutex);

    const std::vector<MSG_ID> ids = fake::msgq::registered();
    ASSERT_EQ(3u, ids.size());
    EXPECT_EQ(sf_cntl.mid_gw_dev_cmd, ids[0]);
    EXPECT_EQ(sf_cntl.mid_gw_scene_oper_cmd, ids[1]);
    EXPECT_EQ(sf_cntl.mid_gw_group_oper_cmd, ids[2]);
    EXPECT_EQ(&__sf_gw_dev_cmd_cb, fake::msgq::handler(sf_cntl.mid_gw_dev_cmd));
    EXPECT_EQ(&__sf_gw_scene_oper_cmd_cb, fake::msgq::handler(sf_cntl.mid_gw_scene_oper_cmd));
    EXPECT_EQ(&__sf_gw_group_oper_cmd_cb, fake::msgq::handler(sf_cntl.mid_gw_group_oper_cmd));

    const std::vector<TM_MSG_S *> &timed = fake::timers::created();
    ASSERT_EQ(3u, timed.size());
    EXPECT_EQ(timed[0], sf_cntl.tmm_dp_sync);
    EXPECT_EQ(timed[1], sf_cntl.tmm_dev_ol_sync);
    EXPECT_EQ(timed[2], sf_cntl.tmm_dev_hst);
    EXPECT_EQ(&__tmm_dp_sync_cb, sf_cntl.tmm_dp_sync->cb);
    EXPECT_EQ(&__tmm_dev_ol_sync_cb, sf_cntl.tmm_dev_ol_sync->cb);
    EXPECT_EQ(&__tmm_hb_fresh_ol_stat_cb, sf_cntl.tmm_dev_hst->cb);
    EXPECT_EQ(nullptr, sf_cntl.tmm_dp_sync->data);
    /* nothing is started at start-up */
    EXPECT_TRUE(fake::timers::starts().empty());

    EXPECT_EQ(0u, sf_cntl.serial_no);
    EXPECT_EQ(FALSE, sf_cntl.dos_update);
    EXPECT_EQ(FALSE, sf_cntl.hb_start);
    EXPECT_EQ(nullptr, sf_cntl.hb_send_cb);
    EXPECT_TRUE(fake::log::entries().empty()) << fake::log::dump();
}

TEST_F(FrameInit, SecondCallOnlyLogsAndSucceedsWithoutTouchingCollaborators)
{
    ASSERT_EQ(RC_OK, smart_frame_init());
    fake::log::clear();

    EXPECT_EQ(RC_OK, smart_frame_init());

    EXPECT_EQ(1, fake::msgq::calls(Call::system_timer_init));
    EXPECT_EQ(1, fake::msgq::calls(Call::cmmod_init));
    EXPECT_EQ(3, fake::msgq::calls(Call::get_free_msgid));
    EXPECT_EQ(3, fake::msgq::calls(Call::cr_tm_msg_hand));
    EXPECT_EQ(2u, fake::mutex::created());
    ASSERT_EQ(1u, fake::log::entries().size());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "smart_frame_init", "smart frame has been inited"));
}

TEST_F(FrameInit, TimerServiceFailureIsReturnedAndLoggedWithNothingElseCalled)
{
    fake::msgq::fail(Call::system_timer_init, -55);

    EXPECT_EQ(-55, smart_frame_init());

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "smart_frame_init", "system_timer_init fails -55"));
    EXPECT_EQ(0, fake::msgq::calls(Call::cmmod_init));
    EXPECT_EQ(0u, fake::mutex::created());
}

TEST_F(FrameInit, MessageModuleFailureIsReturnedAndLogged)
{
    fake::msgq::fail(Call::cmmod_init, -7);

    EXPECT_EQ(-7, smart_frame_init());

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "smart_frame_init", "cmmod_init fails -7"));
    EXPECT_EQ(0u, fake::mutex::created());
}

TEST_F(FrameInit, FirstMutexFailureReturnsBeforeAnyBinding)
{
    fake::mutex::fail_create(-3, 1);

    EXPECT_EQ(-3, smart_frame_init());

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "smart_frame_init", "CreateMutexAndInit fails -3"));
    EXPECT_EQ(0, fake::msgq::calls(Call::get_free_msgid));
    EXPECT_EQ(nullptr, sf_cntl.mutex);
}

TEST_F(FrameInit, SecondMutexFailureKeepsTheFirstMutex)
{
    fake::mutex::fail_create(-3, 2);

    EXPECT_EQ(-3, smart_frame_init());

    EXPECT_EQ(1u, fake::log::count("CreateMutexAndInit fails -3"));
    EXPECT_NE(nullptr, sf_cntl.mutex);
    EXPECT_EQ(0u, fake::mutex::released());
    EXPECT_EQ(0, fake::msgq::calls(Call::get_free_msgid));
}

TEST_F(FrameInit, SecondRegistrationFailureRollsBackBothIdsAndReleasesThreeNullTimedMessages)
{
    fake::msgq::fail(Call::reg_msgcb, -9, 2);

    EXPECT_EQ(-9, smart_frame_init());

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "smart_frame_init", "cmmod_reg_msgcb fails 1 -9"));
    /* first and second ids were allocated (ids 1 and 2); both are unregistered, even the one whose registration failed */
    const std::vector<MSG_ID> &unreg = fake::msgq::unregistered();
    ASSERT_EQ(2u, unreg.size());
    EXPECT_EQ(1, unreg[0]);
    EXPECT_EQ(2, unreg[1]);
    EXPECT_EQ(NO_MSG_ID, sf_cntl.mid_gw_dev_cmd);
    EXPECT_EQ(NO_MSG_ID, sf_cntl.mid_gw_scene_oper_cmd);
    EXPECT_EQ(NO_MSG_ID, sf_cntl.mid_gw_group_oper_cmd);
    EXPECT_EQ(2, fake::msgq::calls(Call::get_free_msgid));

    const std::vector<TM_MSG_S *> &released = fake::timers::released();
    ASSERT_EQ(3u, released.size());
    EXPECT_EQ(nullptr, released[0]);
    EXPECT_EQ(nullptr, released[1]);
    EXPECT_EQ(nullptr, released[2]);

    EXPECT_EQ(1u, fake::mutex::released());
    EXPECT_EQ(nullptr, sf_cntl.mutex);
    EXPECT_NE(nullptr, sf_cntl.dos_mutex) << "dos_mutex is kept by the roll-back";
    EXPECT_TRUE(fake::msgq::registered().empty());
}

TEST_F(FrameInit, MessageIdFailureLogsIndexAndCode)
{
    fake::msgq::fail(Call::get_free_msgid, -4, 3);

    EXPECT_EQ(-4, smart_frame_init());

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "smart_frame_init", "cmmod_get_free_msgid fails 2 -4"));
    EXPECT_EQ(2u, fake::msgq::unregistered().size());
    EXPECT_EQ(NO_MSG_ID, sf_cntl.mid_gw_group_oper_cmd);
}

TEST_F(FrameInit, TimedMessageFailureReleasesTheOnesCreatedAndTheRestAsNull)
{
    fake::msgq::fail(Call::cr_tm_msg_hand, -12, 2);

    EXPECT_EQ(-12, smart_frame_init());

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "smart_frame_init", "cmmod_cr_tm_msg_hand fails 1 -12"));
    ASSERT_EQ(1u, fake::timers::created().size());
    const std::vector<TM_MSG_S *> &released = fake::timers::released();
    ASSERT_EQ(3u, released.size());
    EXPECT_EQ(fake::timers::created()[0], released[0]);
    EXPECT_EQ(nullptr, released[1]);
    EXPECT_EQ(nullptr, released[2]);
    EXPECT_EQ(nullptr, sf_cntl.tmm_dp_sync);
    EXPECT_EQ(3u, fake::msgq::unregistered().size());
}

TEST_F(FrameInit, FailedStartUpCanBeRepeatedFromTheBeginning)
{
    fake::msgq::fail(Call::reg_msgcb, -9, 1);
    ASSERT_EQ(-9, smart_frame_init());

    EXPECT_EQ(RC_OK, smart_frame_init());

    EXPECT_EQ(2, fake::msgq::calls(Call::system_timer_init));
    EXPECT_EQ(2, fake::msgq::calls(Call::cmmod_init));
    EXPECT_EQ(3u, fake::msgq::registered().size());
    EXPECT_EQ(0u, fake::log::count("smart frame has been inited"));
}

} // namespace
