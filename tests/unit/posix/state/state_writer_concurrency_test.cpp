#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "port/posix/runtime/posix_runtime.h"
#include "port/posix/state/state_store.h"
#include "tests/unit/posix/posix_test_util.h"
#include "services/uni_log.h"
#include "state_test_util.h"

namespace {

using posix_test::eventually;
using std::chrono::milliseconds;

/* What the registry holds now for every DP of "many", as the state file's rows would show it. */
std::vector<std::string> registry_rows()
{
    std::vector<std::string> out;
    for (int i = 1; i <= 40; ++i) {
        const DP_CNTL_S dp = state_test::dp_of("many", i);
        out.push_back("many " + std::to_string(i) + " " + std::to_string(dp.prop.prop_value.value) + "  " +
                      std::to_string(dp.pv_stat));
    }
    return out;
}

/*
 * Reporters change values and publish states the way the module does
 * (lookup, then dev_mutex) while the writer copies and writes every 2 ms,
 * and a publication completion thread confirms what was sent. Once they
 * stop, the file catches up with the registry within a few passes, and a
 * stop leaves it identical.
 */
TEST(StateWriter, WriterRacingReportersEndsWithTheRegistrysLastValues)
{
    uni_log_set_level(LOG_LEVEL_NOTICE);
    ASSERT_TRUE(state_test::load());
    state_test::TempDir dir;
    const std::string file = dir.file("state.db");
    ASSERT_TRUE(sf_state::start({file, milliseconds(2)}));

    std::atomic<bool> go{true};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([t, &go] {
            for (int n = 0; n < 400 && go; ++n) {
                const int dpid = 1 + (n * 3 + t) % 40;
                state_test::set_value("many", dpid, t * 10000 + n, PV_STAT_SENDING);
                state_test::change("plug", 2, [n](DP_CNTL_S &dp) { dp.prop.prop_value.value = n % 1000; });
            }
        });
    }
    threads.emplace_back([&go] {
        for (int n = 0; n < 400 && go; ++n) {
            state_test::change("many", 1 + n % 40, [](DP_CNTL_S &dp) { dp.pv_stat = PV_STAT_CLOUD; });
            ASSERT_NE(nullptr, get_gw_dev_cntl());
        }
    });
    for (std::thread &thread : threads) {
        thread.join();
    }

    const std::vector<std::string> last = registry_rows();
    EXPECT_TRUE(eventually([&] { return state_test::rows(file, "WHERE dev = 'many'") == last; }));
    sf_state::stop();
    EXPECT_EQ(last, state_test::rows(file, "WHERE dev = 'many'"));
    gw_registry::unload();
}

/* Start and stop race lookups on other threads: a lookup never waits on the store, nor trips over it. */
TEST(StateWriter, LookupsRaceStartAndStop)
{
    uni_log_set_level(LOG_LEVEL_ERROR);
    ASSERT_TRUE(state_test::load());
    state_test::TempDir dir;
    std::atomic<bool> go{true};
    std::thread looker([&go] {
        while (go) {
            ASSERT_NE(nullptr, get_dev_cntl("lamp"));
        }
    });
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(sf_state::start({dir.file("state.db"), milliseconds(1)}));
        state_test::set_value("plug", 2, i, PV_STAT_LOCAL);
        sf_state::stop();
    }
    go = false;
    looker.join();
    EXPECT_EQ(std::vector<std::string>{"plug 2 4  1"}, state_test::rows(dir.file("state.db")));
    gw_registry::unload();
}

} // namespace
