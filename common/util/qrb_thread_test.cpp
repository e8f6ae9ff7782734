#include "qrb_thread.h"

#include "qrb_test_log.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>

namespace {

class LoopingThread : public CQRBThread {
public:
    std::atomic<bool> stop{false};
    std::atomic<int> loops{0};
    std::atomic<bool> started{false};
    void t_Process() override {
        started = true;
        while (!stop) {
            ++loops;
            usleep(1000);
        }
    }
};

class IdleThread : public CQRBThread {};

// The handle of a thread base without a thread.
GThread* const kNoThread = reinterpret_cast<GThread*>(-1);

TEST(QRBThreadTest, CreateWithNullNameStartsNothing) {
    LoopingThread thread;
    EXPECT_EQ(thread.Thread_id(), kNoThread) << "no thread yet: the handle is -1";
    EXPECT_FALSE(thread.Create(nullptr));
    EXPECT_FALSE(thread.FlagCreate());
    EXPECT_EQ(thread.Thread_id(), kNoThread);
    EXPECT_EQ(thread.Thread_join(), nullptr) << "nothing to join";
    thread.Destroy();  // nothing to wait for
    EXPECT_EQ(thread.Thread_id(), kNoThread) << "still none";
}

TEST(QRBThreadTest, CreateReturnsOnlyOnceTheThreadRuns) {
    LoopingThread thread;
    ASSERT_TRUE(thread.Create("looping"));
    EXPECT_TRUE(thread.FlagCreate());
    EXPECT_NE(thread.Thread_id(), kNoThread);
    EXPECT_NE(thread.Thread_id(), nullptr);
    // The start semaphore is posted just before t_Process; give it the moment to enter.
    for (int i = 0; i < 1000 && !thread.started; ++i) usleep(1000);
    EXPECT_TRUE(thread.started);
    thread.stop = true;
    thread.Destroy();
    EXPECT_FALSE(thread.FlagCreate());
    EXPECT_EQ(thread.Thread_id(), kNoThread) << "the thread is gone: the handle is -1 again";
    int loops = thread.loops;
    usleep(5000);
    EXPECT_EQ(loops, thread.loops) << "the work function ran on after Destroy";
}

TEST(QRBThreadTest, ObjectWithoutWorkEndsAtOnce) {
    IdleThread thread;
    ASSERT_TRUE(thread.Create("idle"));
    auto start = std::chrono::steady_clock::now();
    thread.Destroy();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(QRBThreadTest, DestroyAfterWorkReturnedDoesNotBlock) {
    LoopingThread thread;
    thread.stop = true;
    ASSERT_TRUE(thread.Create("done"));
    usleep(20000);
    thread.Destroy();
    thread.Destroy();  // a second Destroy is harmless
    EXPECT_FALSE(thread.FlagCreate());
}

}  // namespace
