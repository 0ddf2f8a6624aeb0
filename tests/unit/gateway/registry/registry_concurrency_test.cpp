#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "gateway/registry/gw_registry.h"
#include "port/posix/runtime/posix_runtime.h"
#include "tests/unit/posix/posix_test_util.h"
#include "services/uni_msg_queue.h"
#include "services/uni_mutex.h"
#include "services/uni_time_queue.h"

namespace {

constexpr const char *kGateway = R"({"gateway":{"id":"gw"},"devices":[
  {"id":"s1","dps":[{"id":1,"prop":"bool"},{"id":2,"prop":"str","max_len":8}]},
  {"id":"s2","dps":[{"id":1,"prop":"bool"}]}]})";

class RegistryConcurrency : public ::testing::Test {
protected:
    void SetUp() override
    {
        gw_registry::LoadError error;
        ASSERT_TRUE(gw_registry::load_text(kGateway, "gw.json", &error)) << error.text();
    }
    void TearDown() override { gw_registry::unload(); }
};

TEST_F(RegistryConcurrency, ANodeRemovedWhileInUseStaysWholeUntilTheGracePeriodEnds)
{
    gw_registry::set_grace_period(std::chrono::milliseconds(300));
    std::mutex lock;
    std::condition_variable cv;
    int step = 0; /* 1: holder has the node, 2: removed, 3: holder done */
    std::string seen_id;
    int seen_delete = -1;
    BYTE_T seen_dps = 0;
    std::thread holder([&] {
        DEV_CNTL_N_S *node = get_dev_cntl("s1");
        ASSERT_NE(nullptr, node);
        std::unique_lock<std::mutex> held(lock);
        step = 1;
        cv.notify_all();
        cv.wait(held, [&] { return step == 2; });
        /* the registry removed it meanwhile: still a whole node, flagged */
        seen_id = node->dev_if.id;
        seen_delete = node->dev_delete;
        seen_dps = node->dp_num;
        std::strcpy(node->dp[1].prop.prop_str.value, "12345678");
        step = 3;
        cv.notify_all();
    });
    {
        std::unique_lock<std::mutex> held(lock);
        cv.wait(held, [&] { return step == 1; });
    }
    ASSERT_EQ(RC_OK, gw_registry::remove_device("s1"));
    EXPECT_EQ(nullptr, get_dev_cntl("s1"));
    {
        std::unique_lock<std::mutex> held(lock);
        step = 2;
        cv.notify_all();
        cv.wait(held, [&] { return step == 3; });
    }
    holder.join();
    EXPECT_EQ("s1", seen_id);
    EXPECT_EQ(1, seen_delete);
    EXPECT_EQ(2, seen_dps);
    EXPECT_EQ(0u, gw_registry::reclaim()); /* still within the grace period */
    ASSERT_TRUE(posix_test::eventually([] { return gw_registry::reclaim() == 1; }));
}

std::atomic<long> g_walked{0};
std::atomic<bool> g_walk_mismatch{false};

/*
 * A walker without dev_mutex, as the smart frame's timed messages make
 * them: on the dispatch thread, next pointers and dev_delete read with
 * acquire loads. Nothing else orders it against the registry's frees.
 */
void walk_the_list(TM_MSG_S *)
{
    DEV_CNTL_N_S *node = __atomic_load_n(&get_gw_cntl()->dev, __ATOMIC_ACQUIRE);
    int count = 0;
    while (node != nullptr && count < 1000) {
        if (__atomic_load_n(&node->dev_delete, __ATOMIC_ACQUIRE) == 0 && node->dev_if.id[0] == '\0') {
            g_walk_mismatch = true;
        }
        node = __atomic_load_n(&node->next, __ATOMIC_ACQUIRE);
        ++count;
    }
    if (count >= 1000) {
        g_walk_mismatch = true; /* a cycle in the list */
    }
    ++g_walked;
}

TEST_F(RegistryConcurrency, LookupsAndWalksRunSafelyWhileDevicesComeAndGo)
{
    /* short enough that nodes are freed while the walks go on */
    gw_registry::set_grace_period(std::chrono::milliseconds(5));
    std::atomic<bool> stop{false};
    std::atomic<long> lookups{0};
    std::atomic<bool> mismatch{false};
    ASSERT_EQ(RC_OK, system_timer_init());
    ASSERT_EQ(RC_OK, cmmod_init());
    TM_MSG_S *walker = nullptr;
    ASSERT_EQ(RC_OK, cmmod_cr_tm_msg_hand(walk_the_list, nullptr, &walker));
    ASSERT_EQ(RC_OK, cmmod_start_tm_msg(walker, 1, TIMER_CYCLE));

    std::thread looker([&] {
        while (!stop) {
            for (int i = 0; i < 8; ++i) {
                const std::string id = "t" + std::to_string(i);
                /* the index lookup itself races with add and remove */
                (void)get_dev_cntl(id.c_str());
                /*
                 * A node held on a thread other than the dispatch thread lives
                 * for the grace period only (5 ms here, shorter than a thread
                 * may be preempted for): its fields are read under dev_mutex,
                 * where a node found is one not removed yet.
                 */
                MutexLock(get_gw_cntl()->dev_mutex);
                DEV_CNTL_N_S *node = get_dev_cntl_unlock(id.c_str());
                if (node != nullptr && (id != node->dev_if.id || node->dp_num != 1 ||
                                        node->dp[0].dp_desc.dp_id != 7)) {
                    mismatch = true;
                }
                MutexUnLock(get_gw_cntl()->dev_mutex);
                ++lookups;
            }
            if (get_dev_cntl("s2") == nullptr) {
                mismatch = true; /* untouched devices never disappear */
            }
        }
    });
    size_t removals = 0;
    for (int round = 0; round < 150; ++round) {
        if (round % 10 == 0) {
            /* let the walks and the grace period catch up now and then, so that frees do happen */
            const long walked = g_walked.load();
            ASSERT_TRUE(posix_test::eventually([walked] { return g_walked.load() > walked + 1; }));
            std::this_thread::sleep_for(std::chrono::milliseconds(6));
        }
        const std::string id = "t" + std::to_string(round % 8);
        if (get_dev_cntl(id.c_str()) == nullptr) {
            ASSERT_EQ(RC_OK, gw_registry::add_device(R"({"id":")" + id + R"(","dps":[{"id":7,"prop":"bool"}]})",
                                                     nullptr));
        } else {
            ASSERT_EQ(RC_OK, gw_registry::remove_device(id));
            ++removals;
        }
    }
    ASSERT_TRUE(posix_test::eventually([&] { return lookups > 100 && g_walked > 10; }));
    stop = true;
    looker.join();
    const size_t freed = removals - gw_registry::retired_count();
    cmmod_release_tm_msg(walker);
    cmmod_stop();
    EXPECT_FALSE(mismatch);
    EXPECT_FALSE(g_walk_mismatch);
    EXPECT_GT(freed, 0u) << "no node was freed while the walks went on";
    EXPECT_EQ(gw_registry::device_count(), static_cast<size_t>(get_gw_cntl()->dev_num));
}

TEST_F(RegistryConcurrency, MembershipUpdatesFromManyThreadsAreAllKept)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 10; ++i) {
                const std::string gid = std::to_string(t * 100 + i);
                EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "s2", gid.c_str()));
                EXPECT_EQ(RC_OK, dev_update_scene_info(SCE_ADD, "s2", gid.c_str(), "1"));
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    const std::vector<std::string> groups = gw_registry::groups_of("s2");
    EXPECT_EQ(40u, groups.size());
    EXPECT_EQ(40u, std::set<std::string>(groups.begin(), groups.end()).size());
    EXPECT_EQ(40u, gw_registry::scenes_of("s2").size());
}

TEST_F(RegistryConcurrency, LookupHoldsDevMutexOnlyForTheLookup)
{
    GW_CNTL_S *gw = get_gw_cntl();
    std::atomic<bool> found{false};
    MutexLock(gw->dev_mutex);
    std::thread other([&] { found = get_dev_cntl("s2") != nullptr; });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(found); /* get_dev_cntl waits for dev_mutex */
    EXPECT_NE(nullptr, get_dev_cntl_unlock("s2")); /* the caller holding it looks up without it */
    MutexUnLock(gw->dev_mutex);
    other.join();
    EXPECT_TRUE(found);
}

} // namespace
