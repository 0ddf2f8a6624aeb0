/*
 * The MQTT client's table of pending publications: whichever of the
 * acknowledgement, the time limit, the connection loss or the stop comes
 * first completes a publication, exactly once.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "port/posix/mqtt/mqtt_pending.h"
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

/* Publish as mid while the acknowledgements of acks (in order) arrive before publish returns the id. */
int record_after_acks(PendingPublications *table, int mid, const std::vector<int> &acks, const Completion &c)
{
    return table->publish_and_record(
        [&](int *out) {
            for (int ack : acks) {
                Completion none;
                EXPECT_FALSE(table->take(ack, &none));
            }
            *out = mid;
            return 0;
        },
        c);
}

/* The table holds no entry, and its settled publications complete counter once with op_ret. */
void expect_settled_once(PendingPublications *table, Counter *counter, OPERATE_RET op_ret)
{
    EXPECT_EQ(0u, table->size());
    EXPECT_EQ(0, counter->calls.load()); // not on the publisher's thread
    PendingPublications::complete(table->take_settled());
    EXPECT_EQ(1, counter->calls.load());
    EXPECT_EQ(op_ret, counter->last.load());
    EXPECT_TRUE(table->take_settled().empty());
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

TEST(MqttPending, AcknowledgementBeforeTheIdIsRecordedSettlesThePublicationAsDone)
{
    PendingPublications table;
    table.open();
    Counter counter;
    int wakes = 0;
    table.on_settled([&] { ++wakes; });
    // The network thread acknowledges while publish has not returned the id yet.
    ASSERT_EQ(0, record_after_acks(&table, 11, {11}, completion(&counter, Clock::now() + std::chrono::hours(1))));
    EXPECT_EQ(1, wakes); // the client's expiry thread is woken to complete it at once
    expect_settled_once(&table, &counter, RC_OK);
}

TEST(MqttPending, ConnectionLostBeforeTheIdIsRecordedSettlesThePublicationAsLost)
{
    PendingPublications table;
    table.open();
    Counter counter;
    ASSERT_EQ(0, table.publish_and_record(
                     [&](int *mid) {
                         EXPECT_TRUE(table.close_and_take_all().empty());
                         table.open(); // and even reconnected at once
                         *mid = 12;
                         return 0;
                     },
                     completion(&counter, Clock::now() + std::chrono::hours(1))));
    expect_settled_once(&table, &counter, -1104);
}

TEST(MqttPending, AcknowledgementParkedBeforeAPublicationBeganIsNotItsOwn)
{
    PendingPublications table;
    table.open();
    Counter outer;
    Counter inner;
    const Clock::time_point later = Clock::now() + std::chrono::hours(1);
    ASSERT_EQ(0, table.publish_and_record(
                     [&](int *mid) {
                         Completion none;
                         EXPECT_FALSE(table.take(9, &none)); // a stale message's ack, parked
                         EXPECT_EQ(0, record(&table, 9, completion(&inner, later)));
                         *mid = 10;
                         return 0;
                     },
                     completion(&outer, later)));
    EXPECT_TRUE(table.take_settled().empty());
    EXPECT_EQ(2u, table.size());
    Completion done;
    EXPECT_TRUE(table.take(9, &done));
    EXPECT_EQ(&inner, done.prv_data);
}

TEST(MqttPending, AcknowledgementWithNobodyRecordingIsNotKept)
{
    PendingPublications table;
    table.open();
    Counter counter;
    Completion none;
    EXPECT_FALSE(table.take(4, &none));
    ASSERT_EQ(0, record(&table, 4, completion(&counter, Clock::now() + std::chrono::hours(1))));
    EXPECT_TRUE(table.take_settled().empty());
    EXPECT_EQ(1u, table.size());
}

TEST(MqttPending, OwnEarlyAcknowledgementSurvivesAFloodOfUnrelatedOnes)
{
    PendingPublications table;
    table.open();
    Counter counter;
    std::vector<int> acks;
    for (int other = 1000; other < 1600; ++other) {
        acks.push_back(other);
    }
    acks.push_back(13);
    ASSERT_EQ(0, record_after_acks(&table, 13, acks, completion(&counter, Clock::now() + std::chrono::hours(1))));
    expect_settled_once(&table, &counter, RC_OK);
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
    // Acknowledged or lost between publish and record: settled, not recorded.
    PendingPublications::complete(table.take_settled());
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

namespace {

/* Waits for the completions settled before it from a completion callback: must return at once. */
struct WaitFromInside {
    PendingPublications *table = nullptr;
    std::atomic<int> result{-1};
};

void wait_inside(OPERATE_RET, const void *prv)
{
    auto *inside = static_cast<WaitFromInside *>(const_cast<void *>(prv));
    inside->result = inside->table->wait_settled_completed(std::chrono::seconds(30)) ? 1 : 0;
}

TEST(MqttPending, ARefusalWaitsUntilTheAcknowledgedPublicationsBeforeItAreCompleted)
{
    PendingPublications table;
    table.open();
    Counter counter;
    ASSERT_EQ(0, record(&table, 9, completion(&counter, Clock::now() + std::chrono::hours(1))));
    ASSERT_TRUE(table.settle_acked(9));

    std::atomic<bool> waited{false};
    std::atomic<int> calls_seen{-1};
    std::thread refuser([&] {
        waited = table.wait_settled_completed(std::chrono::seconds(30));
        calls_seen = counter.calls.load();
    });
    table.complete_settled(); // the expiry thread's turn
    refuser.join();
    EXPECT_TRUE(waited.load());
    EXPECT_EQ(1, calls_seen.load()); // the "done" ran before the refusal went back
    EXPECT_EQ(RC_OK, counter.last.load());
}

TEST(MqttPending, WaitingWithNothingSettledReturnsAtOnceAndATimeOutSaysSo)
{
    PendingPublications table;
    table.open();
    EXPECT_TRUE(table.wait_settled_completed(std::chrono::milliseconds(0)));
    Counter counter;
    ASSERT_EQ(0, record(&table, 3, completion(&counter, Clock::now() + std::chrono::hours(1))));
    table.settle(table.close_and_take_all(), -1104);
    EXPECT_FALSE(table.wait_settled_completed(std::chrono::milliseconds(1))); // nobody completes it
    table.complete_settled();
    EXPECT_EQ(-1104, counter.last.load());
    EXPECT_TRUE(table.wait_settled_completed(std::chrono::milliseconds(0)));
}

TEST(MqttPending, ACompletionThatWaitsForCompletionsDoesNotWaitForItself)
{
    PendingPublications table;
    table.open();
    WaitFromInside inside;
    inside.table = &table;
    Completion c;
    c.cb = wait_inside;
    c.prv_data = &inside;
    c.deadline = Clock::now() + std::chrono::hours(1);
    ASSERT_EQ(0, record(&table, 4, c));
    ASSERT_TRUE(table.settle_acked(4));
    table.complete_settled();
    EXPECT_EQ(0, inside.result.load());
}

} // namespace
