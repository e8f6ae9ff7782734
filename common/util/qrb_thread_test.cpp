#include "qrb_thread.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>

namespace {

class LoopingThread : public CQRBThread {
public:
    std::atomic<bool> stop{false};
    std::atomic<int> loops{0};
    void t_Process() override {
        while (!stop) {
            ++loops;
            usleep(1000);
        }
    }
};

// The handle of a thread base without a thread.
GThread* const kNoThread = reinterpret_cast<GThread*>(-1);

TEST(QRBThreadTest, DestroyStopsTheWorkAndMayBeCalledTwice) {
    LoopingThread thread;
    ASSERT_TRUE(thread.Create("looping"));
    EXPECT_NE(thread.Thread_id(), kNoThread);
    for (int i = 0; i < 1000 && thread.loops == 0; ++i) usleep(1000);
    thread.stop = true;
    thread.Destroy();
    thread.Destroy();
    EXPECT_FALSE(thread.FlagCreate());
    EXPECT_EQ(thread.Thread_id(), kNoThread) << "the thread is gone: the handle is -1 again";
    const int loops = thread.loops;
    usleep(5000);
    EXPECT_TRUE(loops > 0 && loops == thread.loops) << "the work ran, and not after Destroy";
}

}  // namespace
