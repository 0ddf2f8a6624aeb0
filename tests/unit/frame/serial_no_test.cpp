#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "smart_frame/frame_cntl.h"
#include "tests/fakes/sf_fixture.h"

namespace {

class SerialNo : public SfStartedTest {};

TEST_F(SerialNo, StartsAtZeroAndCountsUp)
{
    EXPECT_EQ(0u, sf_get_serial_no());
    EXPECT_EQ(1u, sf_get_serial_no());
}

TEST_F(SerialNo, IncrementBetweenDrawsSkipsOne)
{
    EXPECT_EQ(0u, sf_get_serial_no());
    sf_inc_serial_no();
    EXPECT_EQ(2u, sf_get_serial_no());
}

TEST_F(SerialNo, WrapsFromTheLargestValueToZero)
{
    sf::sf_cntl.serial_no = 0xFFFFFFFFu;
    EXPECT_EQ(0xFFFFFFFFu, sf_get_serial_no());
    EXPECT_EQ(0u, sf_get_serial_no());
}

TEST_F(SerialNo, TakesTheFrameMutexForEachDraw)
{
    const size_t before = fake::mutex::lock_count(sf::sf_cntl.mutex);
    sf_get_serial_no();
    sf_inc_serial_no();
    EXPECT_EQ(before + 2, fake::mutex::lock_count(sf::sf_cntl.mutex));
    EXPECT_FALSE(fake::mutex::held(sf::sf_cntl.mutex));
}

TEST_F(SerialNo, DrawsFromManyThreadsAreUnique)
{
    constexpr int threads = 4;
    constexpr int draws = 1000;
    std::vector<std::vector<UINT_T>> seen(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&seen, t] {
            for (int i = 0; i < draws; ++i) {
                seen[t].push_back(sf_get_serial_no());
            }
        });
    }
    for (std::thread &w : workers) {
        w.join();
    }
    std::vector<bool> hit(threads * draws, false);
    for (const auto &list : seen) {
        for (UINT_T serial : list) {
            ASSERT_LT(serial, hit.size());
            EXPECT_FALSE(hit[serial]) << serial << " drawn twice";
            hit[serial] = true;
        }
    }
}

} // namespace
