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

TEST_F(MqttCompletion, ACompletionThatTakesItsTimeDoesNotHoldUpInboundCommands)
{
    start({{"sub01", 1, 1}});
    // Shared with the callback, which outlives the test when it fails.
    struct Gate {
        std::atomic<bool> entered{false};
        std::atomic<bool> open{false};
        std::atomic<int> calls{0};
    };
    static auto gate = std::make_shared<Gate>();
    gate = std::make_shared<Gate>();
    auto held = [](OPERATE_RET, const void *) {
        gate->calls.fetch_add(1);
        gate->entered = true;
        eventually([] { return gate->open.load(); }, seconds(30));
    };
    // Recorded before the acknowledgement can come: it arrives as one, not as an early ack.
    broker_->pause();
    ASSERT_EQ(RC_OK, mqc_prot_data_rept_seq(MQC_PRO_PRESENCE, "{\"online\":[\"a\"]}", 1, 0, held, nullptr));
    broker_->resume();
    ASSERT_TRUE(eventually([] { return gate->entered.load(); }, seconds(10))) << "no completion";

    ASSERT_TRUE(cloud_.publish(topic("cmd/dp"), "{\"devId\":\"sub01\",\"dps\":{\"1\":true}}"));
    EXPECT_TRUE(wait_obj_cmds([](const std::vector<ObjCmd> &all) { return all.size() == 1; }, seconds(10)))
        << "the command waited for the completion";
    gate->open = true;
    EXPECT_EQ(1, gate->calls.load());
}

} // namespace
} // namespace it
