/*
 * The MQTT client's table of pending publications: whichever of the
 * acknowledgement, the time limit, the connection loss or the stop comes
 * first completes a publication, exactly once.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "port/posix/mqtt_pending.h"
#include "services/uni_memory.h"
#include "tests/integration/support/blocks.h"

namespace {

using sf_mqtt::Clock;
using sf_mqtt::Completion;
using sf_mqtt::PendingPublications;

struct Counter {
    std::atomic<int> calls{0};
    std::atomic<int> last{1};
};

void count(OPERATE_RET op_ret, const void *prv)
{
    auto *counter = static_cast<Counter *>(const_cast<void *>(prv));
    counter->last = op_ret;
    counter->calls.fetch_add(1);
}

Completion completion(Counter *counter, Clock::time_point deadline, RFC_DATA_S *block = nullptr)
{
    Completion c;
    c.cb = count;
    c.prv_data = counter;
    c.block = block;
    c.deadline = deadline;
    return c;
}

int record(PendingPublications *table, int mid, const Completion &c)
{
    return table->publish_and_record(
        [mid](int *out) {
            *out = mid;
            return 0;
        },
        c);
}

TEST(MqttPending, ClosedTableRefusesWithoutPublishing)
{
    PendingPublications table;
    Counter counter;
    bool called = false;
    EXPECT_EQ(PendingPublications::CLOSED, table.publish_and_record(
                                               [&](int *) {
                                                   called = true;
                                                   return 0;
                                               },
                                               completion(&counter, Clock::now())));
    EXPECT_FALSE(called);
    EXPECT_EQ(0u, table.size());
}

TEST(MqttPending, ClosingTakesEverythingAndRefusesWhatFollows)
{
    PendingPublications table;
    table.open();
    Counter counter;
    ASSERT_EQ(0, record(&table, 5, completion(&counter, Clock::now() + std::chrono::hours(1))));
    PendingPublications::complete(table.close_and_take_all(), -1104);
    EXPECT_EQ(1, counter.calls.load());
    EXPECT_EQ(PendingPublications::CLOSED, record(&table, 6, completion(&counter, Clock::now())));
}

TEST(MqttPending, FailedPublishRecordsNothing)
{
    PendingPublications table;
    table.open();
    Counter counter;
    EXPECT_EQ(14, table.publish_and_record([](int *) { return 14; }, completion(&counter, Clock::now())));
    EXPECT_EQ(0u, table.size());
}

TEST(MqttPending, AcknowledgementTakesTheEntryOnce)
{
    PendingPublications table;
    table.open();
    Counter counter;
    ASSERT_EQ(0, record(&table, 7, completion(&counter, Clock::now() + std::chrono::hours(1))));
    Completion done;
    ASSERT_TRUE(table.take(7, &done));
    EXPECT_FALSE(table.take(7, &done));
    PendingPublications::complete(done, RC_OK);
    EXPECT_EQ(1, counter.calls.load());
    EXPECT_EQ(RC_OK, counter.last.load());
}

TEST(MqttPending, OnlyExpiredEntriesAreTaken)
{
    PendingPublications table;
    table.open();
    Counter early;
    Counter late;
    const Clock::time_point now = Clock::now();
    record(&table, 1, completion(&early, now - std::chrono::seconds(1)));
    record(&table, 2, completion(&late, now + std::chrono::hours(1)));
    PendingPublications::complete(table.take_expired(now), -1103);
    EXPECT_EQ(1, early.calls.load());
    EXPECT_EQ(-1103, early.last.load());
    EXPECT_EQ(0, late.calls.load());
    EXPECT_EQ(1u, table.size());
}

TEST(MqttPending, CompletionRunsTheCallbackThenDropsTheClientsReference)
{
    PendingPublications table;
    table.open();
    Counter counter;
    void *payload = Malloc(8);
    RFC_DATA_S *block = cr_rfc_data(payload, 8, FALSE, 2);
    record(&table, 3, completion(&counter, Clock::now(), block));
    PendingPublications::complete(table.take_all(), -1104);
    EXPECT_EQ(1, counter.calls.load());
    EXPECT_EQ(1u, it::references(block));
    put_rfc_data(block);
}

TEST(MqttPending, RacingAcknowledgementsExpiriesAndLossCompleteEachEntryExactlyOnce)
{
    constexpr int ENTRIES = 3000;
    PendingPublications table;
    table.open();
    std::vector<Counter> counters(ENTRIES);
    std::vector<char> accepted(ENTRIES, 0);
    std::atomic<bool> recording{true};
    const Clock::time_point start = Clock::now();

    std::thread publisher([&] {
        for (int mid = 0; mid < ENTRIES; ++mid) {
            // Half expire at once, half never by time.
            const Clock::time_point deadline = mid % 2 == 0 ? start : start + std::chrono::hours(1);
            accepted[static_cast<size_t>(mid)] =
                record(&table, mid, completion(&counters[static_cast<size_t>(mid)], deadline)) == 0;
        }
        recording = false;
    });
    std::thread acker([&] {
        while (recording) {
            for (int mid = 0; mid < ENTRIES; mid += 3) {
                Completion done;
                if (table.take(mid, &done)) {
                    PendingPublications::complete(done, RC_OK);
                }
            }
        }
    });
    std::thread expirer([&] {
        while (recording) {
            PendingPublications::complete(table.take_expired(Clock::now()), -1103);
        }
    });
    std::thread loser([&] {
        // The connection drops while the others run: what is recorded after it is refused.
        while (recording && table.size() < ENTRIES / 10) {
        }
        PendingPublications::complete(table.close_and_take_all(), -1104);
    });
    publisher.join();
    acker.join();
    expirer.join();
    loser.join();
    PendingPublications::complete(table.close_and_take_all(), -1104);

    int refused = 0;
    for (size_t i = 0; i < counters.size(); ++i) {
        EXPECT_EQ(accepted[i] ? 1 : 0, counters[i].calls.load());
        refused += accepted[i] ? 0 : 1;
    }
    EXPECT_LT(refused, ENTRIES);
    EXPECT_EQ(0u, table.size());
}

} // namespace
