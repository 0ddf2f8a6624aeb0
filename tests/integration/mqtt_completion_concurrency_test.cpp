/*
 * Many threads publish reports at once while acknowledgements race the
 * publish calls, and the broker dies in the middle: every accepted
 * publication completes exactly once and every block reference comes back.
 */
#include <atomic>
#include <thread>

#include "support/blocks.h"
#include "support/channel_fixture.h"

namespace it {
namespace {

constexpr int THREADS = 4;
constexpr int PER_THREAD = 150;

struct Slot {
    std::atomic<int> completions{0};
    std::atomic<int> last_result{1};
    bool accepted = false;
    RFC_DATA_S *block = nullptr;
};

void count_completion(OPERATE_RET op_ret, const void *prv)
{
    auto *slot = static_cast<Slot *>(const_cast<void *>(prv));
    slot->last_result = op_ret;
    slot->completions.fetch_add(1);
}

class MqttCompletion : public ChannelTest {
protected:
    void publish_all(std::vector<Slot> *slots, int kill_after)
    {
        std::atomic<int> started{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < THREADS; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < PER_THREAD; ++i) {
                    Slot &slot = (*slots)[static_cast<size_t>(t * PER_THREAD + i)];
                    slot.accepted = mqc_dp_report_async(slot.block, 10, count_completion, &slot) == RC_OK;
                    if (started.fetch_add(1) == kill_after) {
                        broker_->stop();
                    }
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
    }

    static std::vector<Slot> make_slots()
    {
        std::vector<Slot> slots(THREADS * PER_THREAD);
        for (size_t i = 0; i < slots.size(); ++i) {
            slots[i].block = make_block("{\"dps\":{\"1\":" + std::to_string(i) + "}}", static_cast<UINT_T>(i));
        }
        return slots;
    }

    static void expect_each_accepted_completed_once(std::vector<Slot> *slots)
    {
        EXPECT_TRUE(eventually(
            [&] {
                for (Slot &slot : *slots) {
                    if (slot.accepted && slot.completions.load() == 0) {
                        return false;
                    }
                }
                return true;
            },
            seconds(30)));
        for (Slot &slot : *slots) {
            EXPECT_EQ(slot.accepted ? 1 : 0, slot.completions.load());
            EXPECT_EQ(1u, references(slot.block));
            put_rfc_data(slot.block);
        }
    }
};

TEST_F(MqttCompletion, ConcurrentPublicationsAreEachAcknowledgedExactlyOnce)
{
    start({});
    std::vector<Slot> slots = make_slots();
    publish_all(&slots, -1);
    for (const Slot &slot : slots) {
        ASSERT_TRUE(slot.accepted);
    }
    expect_each_accepted_completed_once(&slots);
    for (const Slot &slot : slots) {
        EXPECT_EQ(RC_OK, slot.last_result.load());
    }
}

TEST_F(MqttCompletion, BrokerDeathDuringConcurrentPublicationsCompletesEachAcceptedOneOnce)
{
    start({});
    std::vector<Slot> slots = make_slots();
    publish_all(&slots, THREADS * PER_THREAD / 3);
    expect_each_accepted_completed_once(&slots);
    EXPECT_EQ(0, get_mqc_conn_stat());
}

} // namespace
} // namespace it
