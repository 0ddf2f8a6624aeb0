/*
 * Allocation-failure sweeps: a path of the module is run again and again,
 * with its 1st, 2nd, ... Malloc failing, until a run no longer reaches the
 * failure. Every run must return one of the path's documented codes, leave
 * nothing behind once publications, queue and LAN are settled, and the
 * module must still work: a run without failure right after it succeeds.
 *
 * The ground is the gateway with a DP of every kind (every_dp_gateway.h),
 * put back to its starting values before each run, so every run of a path
 * starts from the same state.
 */
#ifndef SF_TEST_SWEEP_FIXTURE_H
#define SF_TEST_SWEEP_FIXTURE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "tests/fakes/every_dp_gateway.h"
#include "tests/fakes/sf_fixture.h"
#include "tests/unit/inbound/app_callbacks.h"

namespace sweep {

/* One swept path. */
struct Path {
    std::string name;
    /* not swept: brings the module to where the path starts (e.g. a publication to complete) */
    std::function<void()> prepare;
    /* the swept call; handlers without a result return what their producer call returned */
    std::function<OPERATE_RET()> run;
    /* every code a run may return, with or without a failing allocation */
    std::vector<OPERATE_RET> allowed;
    /* the code of a run without failure */
    OPERATE_RET normal = RC_OK;
    /* what a run without failure must have done, checked on the records of that run only */
    std::function<bool()> effect;
};

/* Parse a command text for a test (the parse itself is not part of a swept path). */
inline cJSON *json(const char *text)
{
    cJSON *tree = cJSON_Parse(text);
    EXPECT_NE(nullptr, tree) << text;
    return tree;
}

/* A collaborator call that fails, and what the module must make of it. */
struct Fault {
    std::string name;
    /* make the collaborator fail (one-shot where the fake allows it) */
    std::function<void()> inject;
    /* put a collaborator answer set for all later calls back to normal; may be empty */
    std::function<void()> heal;
    /* what runs: the path's normal code and effect describe a run without the fault */
    Path path;
    /* the code of the run with the fault */
    OPERATE_RET expected = RC_OK;
    /* what the run with the fault must have done (logs, states), checked before settling */
    std::function<bool()> outcome;
};

/* A path that cannot end after this many allocations is treated as endless. */
constexpr size_t MAX_FAILURE_POINTS = 400;

/* The group and scene callbacks of the sweeps: every device succeeds. */
inline OPERATE_RET group_ok(GRP_ACTION_E, const CHAR_T *, const CHAR_T *)
{
    return RC_OK;
}
inline OPERATE_RET scene_ok(SCE_ACTION_E, const CHAR_T *, const CHAR_T *, const CHAR_T *)
{
    return RC_OK;
}

class SweepTest : public SfStartedTest {
protected:
    void SetUp() override
    {
        SfStartedTest::SetUp();
        fake::every_dp::build();
        app::install();
        fake::registry::gw()->gw_cbs.gw_dev_grp_cb = group_ok;
        fake::registry::gw()->gw_cbs.gw_dev_scene_cb = scene_ok;
        /* synchronous reports must not wait: publications complete inside the call */
        fake::mqtt::set_auto_complete(fake::mqtt::AutoComplete::Inline);
        snapshot_.take();
    }

    /*
     * Let everything in flight end: queued messages, publications (with
     * success), timers that are due within a few seconds (DP sync, batches).
     */
    static void settle()
    {
        for (int round = 0; round < 4; ++round) {
            fake::msgq::run_all();
            fake::mqtt::complete_all(RC_OK);
            fake::timers::advance(2100);
        }
        fake::msgq::run_all();
        fake::mqtt::complete_all(RC_OK);
        fake::lan::release_held();
    }

    /* Fresh records and DP tables for the next run; the app's records too. */
    void fresh_run(const Path &path)
    {
        settle();
        fake::forget_history();
        app::obj_cmds().clear();
        app::raw_cmds().clear();
        app::queries().clear();
        snapshot_.restore();
        if (path.prepare) {
            path.prepare();
        }
    }

    /* A run without failure: the normal code, the effect, nothing left over. */
    void expect_normal_run(const Path &path, const std::string &after)
    {
        fresh_run(path);
        const OPERATE_RET rc = path.run();
        EXPECT_EQ(path.normal, rc) << path.name << after;
        if (path.effect) {
            EXPECT_TRUE(path.effect()) << path.name << after << "\n" << fake::log::dump();
        }
        settle();
        EXPECT_EQ("", fake::unclean()) << path.name << after;
    }

    /* Sweep one path; returns the number of allocations whose failure it survived. */
    size_t sweep(const Path &path)
    {
        const bool failed_before = ::testing::Test::HasFailure();
        for (size_t n = 1; n <= MAX_FAILURE_POINTS; ++n) {
            fresh_run(path);
            fake::mem::fail_nth(n);
            const OPERATE_RET rc = path.run();
            const bool fired = fake::mem::failure_fired();
            fake::mem::fail_nth(0);
            const std::string where = " (allocation " + std::to_string(n) + " failing)";
            EXPECT_TRUE(std::find(path.allowed.begin(), path.allowed.end(), rc) != path.allowed.end())
                << path.name << where << " returned " << rc << "\n" << fake::log::dump();
            settle();
            EXPECT_EQ("", fake::unclean()) << path.name << where;
            if (!fired) {
                /* the path ran to its end: this run is the normal one */
                EXPECT_EQ(path.normal, rc) << path.name << where;
                record(path.name, n - 1);
                return n - 1;
            }
            expect_normal_run(path, " right after" + where);
            if (!failed_before && ::testing::Test::HasFailure()) {
                record(path.name, n);
                return n; /* one broken point is enough to show; the rest would repeat it */
            }
        }
        ADD_FAILURE() << path.name << " did not end within " << MAX_FAILURE_POINTS << " allocations";
        return MAX_FAILURE_POINTS;
    }

    /*
     * One failing collaborator call: the code and outcome of the run with
     * the fault, nothing left over, and a normal run right after it.
     */
    void expect_fault(const Fault &fault)
    {
        fresh_run(fault.path);
        fault.inject();
        const OPERATE_RET rc = fault.path.run();
        EXPECT_EQ(fault.expected, rc) << fault.name << "\n" << fake::log::dump();
        if (fault.outcome) {
            EXPECT_TRUE(fault.outcome()) << fault.name << "\n" << fake::log::dump();
        }
        if (fault.heal) {
            fault.heal();
        }
        settle();
        EXPECT_EQ("", fake::unclean()) << fault.name;
        expect_normal_run(fault.path, " after " + fault.name);
        std::printf("fault: %s\n", fault.name.c_str());
    }

    void expect_faults(const std::vector<Fault> &faults)
    {
        for (const Fault &fault : faults) {
            expect_fault(fault);
        }
    }

    /* Sweep each path in turn. */
    void sweep_all(const std::vector<Path> &paths)
    {
        for (const Path &path : paths) {
            sweep(path);
        }
    }

    /* The line the coverage count of docs/robustness.md is collected from. */
    static void record(const std::string &name, size_t points)
    {
        std::printf("sweep: %s: %zu failure points\n", name.c_str(), points);
        ::testing::Test::RecordProperty(name, static_cast<int>(points));
    }

    /*
     * A command posted through send (the entry point) and handled by the
     * dispatch thread. The parse happens in prepare, not swept; a refused
     * post leaves the tree with the sender, which releases it.
     */
    template <typename Envelope>
    Path command_path(const std::string &name, const char *text, DP_CMD_TYPE_E tp, OPERATE_RET (*send)(Envelope *),
                      std::function<bool()> effect)
    {
        Path p;
        p.name = name;
        p.prepare = [this, text] { tree_ = json(text); };
        p.run = [this, tp, send] {
            Envelope cmd{tp, tree_};
            tree_ = nullptr;
            const OPERATE_RET rc = send(&cmd);
            if (rc != RC_OK) {
                cJSON_Delete(cmd.cmd_js);
            }
            fake::msgq::run_all();
            return rc;
        };
        p.allowed = {RC_OK, RC_NO_MEMORY};
        p.effect = std::move(effect);
        return p;
    }

    fake::every_dp::Snapshot snapshot_;
    cJSON *tree_ = nullptr; /* a parsed command between prepare and run */
};

} // namespace sweep

#endif /* SF_TEST_SWEEP_FIXTURE_H */
