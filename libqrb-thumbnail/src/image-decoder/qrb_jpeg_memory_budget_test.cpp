// The coefficient budget shared by concurrent JPEG decodes, with real threads.
#include "image-decoder/qrb_jpeg_memory_budget.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// Polls until `waiting` requests wait, failing after a few seconds.
bool Waits(CQRBJpegMemoryBudget& budget, size_t waiting) {
    for (int i = 0; i < 5000 && budget.Waiting() != waiting; ++i) std::this_thread::sleep_for(1ms);
    return budget.Waiting() == waiting;
}

TEST(JpegMemoryBudgetTest, HeldTogetherNeverPassesTheCapacity) {
    CQRBJpegMemoryBudget budget(100);
    std::atomic<uint64_t> held{0};
    std::atomic<uint64_t> most{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                const uint64_t bytes = 10 + static_cast<uint64_t>((t * 37 + i * 11) % 91);
                CQRBJpegMemoryBudget::Grant grant = budget.Acquire(bytes);
                const uint64_t now = held += grant.Bytes();
                uint64_t seen = most.load();
                while (now > seen && !most.compare_exchange_weak(seen, now)) {
                }
                std::this_thread::yield();
                held -= grant.Bytes();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_LE(most.load(), 100u);
    EXPECT_GT(most.load(), 0u);
    EXPECT_EQ(budget.InUse() + budget.Waiting(), 0u);
    {
        CQRBJpegMemoryBudget::Grant all = budget.Acquire(500);  // above the capacity: all of it
        EXPECT_EQ(all.Bytes(), 100u);
        EXPECT_EQ(budget.InUse(), 100u);
    }
    EXPECT_EQ(budget.InUse(), 0u);
}

TEST(JpegMemoryBudgetTest, ArrivalsAreServedInOrder) {
    CQRBJpegMemoryBudget budget(100);
    CQRBJpegMemoryBudget::Grant first = budget.Acquire(70);

    // A small request that would fit waits behind a waiting large one, then for it to finish.
    std::atomic<int> order{0};
    std::atomic<int> largeAt{0};
    std::atomic<int> smallAt{0};
    std::thread large([&] {
        CQRBJpegMemoryBudget::Grant g = budget.Acquire(95);
        largeAt = ++order;
        std::this_thread::sleep_for(20ms);
    });
    ASSERT_TRUE(Waits(budget, 1));
    std::thread small([&] {
        CQRBJpegMemoryBudget::Grant g = budget.Acquire(10);
        smallAt = ++order;
    });
    ASSERT_TRUE(Waits(budget, 2));
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(order.load(), 0) << "nothing is served while the first holds 70 of 100";

    first = CQRBJpegMemoryBudget::Grant();  // given back
    large.join();
    small.join();
    EXPECT_EQ(largeAt.load(), 1);
    EXPECT_EQ(smallAt.load(), 2);
    EXPECT_EQ(budget.InUse(), 0u);
}

}  // namespace
