// Many threads against the C interface at once, with random cancels, cancel-all and
// init/finalize cycles racing the workers. The rules checked: a request gets at most one
// callback; one neither cancelled nor cleared gets exactly one; nothing arrives after
// finalize; no thread or file descriptor is left behind. Run under ThreadSanitizer in CI.
#include "qrb_thumbnail_service.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_getter.h"
#include "qrb_test_root.h"
#include "qrb_thumb_flyweight_factory.h"
#include "qrb_thumbnail_base_imp.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using qrbtest::CallbackRecorder;

class StressTest : public ::testing::Test {
protected:
    void SetUp() override {
        // ThreadSanitizer starts a helper thread of its own at the first thread creation;
        // start one first so that the baseline already includes it.
        std::thread([] {}).join();
        threadsBefore = qrbtest::ThreadCount();
        fdsBefore = qrbtest::OpenFileDescriptors();
        ASSERT_EQ(thumbnail_init(), 0);
        getter = qrbtest::InstallScriptedGetter(THUMB_RESERVED7);
    }
    void TearDown() override {
        getter->OpenGate();
        thumbnail_finalize();
        CQRBThumbFlyWeightFactroy::GetInstance()->Install(THUMB_RESERVED7, nullptr);
        EXPECT_EQ(qrbtest::ThreadCount(), threadsBefore) << "a thread outlived finalize";
        EXPECT_EQ(qrbtest::OpenFileDescriptors(), fdsBefore) << "a file descriptor was left open";
    }

    // One request of a mix that reaches every variant and fails or succeeds quickly; cancelled
    // again when cancel is set.
    void Post(int tag, std::mt19937& rng, bool cancel = false) {
        void* user = recorder.Tag(tag);
        const int kind = static_cast<int>(rng() % 10);
        std::string url;
        if (kind < 4) {  // scripted, multi variant, succeeds
            url = "stress/" + std::to_string(tag) + "/ok:4x4";
            _stRequestedItem item;
            item.strURL = url;
            item.eThumbnailType = THUMB_RESERVED7;
            item.callback = &CallbackRecorder::Callback;
            item.user_data = user;
            item.bUsedCache = (tag % 3) == 0;
            CQRBThumbnail::GetInstance()->RequestThumbnail(item, false);
            if (cancel) CQRBThumbnail::GetInstance()->CancelRequest(url, THUMB_RESERVED7);
            return;
        }
        // A picture without a file (multi variant), a video (single variant) or a web picture
        // on a port where nothing listens (HTTP variant).
        const qrb_item_media_type media = kind == 7 || kind == 8 ? MEDIA_TYPE_VIDEO : MEDIA_TYPE_PICTURE;
        const qrb_extend_dev_type dev = kind == 9 ? DEV_TYPE_SNS : DEV_TYPE_LOCAL;
        url = kind < 7   ? "/stress/" + std::to_string(tag) + ".jpg"
              : kind < 9 ? std::to_string(tag) + ";/stress/" + std::to_string(tag) + ".mp4"
                         : "http://127.0.0.1:1/stress/" + std::to_string(tag) + ".jpg";
        thumbnail_request_async(url.c_str(), media, dev, 0, 8, 8, tag & 1, (tag & 1) ? 5 : 1,
                                &CallbackRecorder::Callback, user);
        if (cancel) thumbnail_request_cancel(url.c_str(), media, dev);
    }
    // Waits until every tag in [first, last) not in skip has answered, then lets stragglers come.
    void WaitForAnswers(int first, int last, const std::set<void*>& skip, std::chrono::seconds limit) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        auto missing = [&] {
            auto per = recorder.PerUser();
            int n = 0;
            for (int t = first; t < last; ++t) n += !skip.count(recorder.Tag(t)) && !per.count(recorder.Tag(t));
            return n;
        };
        while (missing() > 0 && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(20ms);
        std::this_thread::sleep_for(300ms);
    }

    qrbtest::ScratchRoot root;
    CallbackRecorder recorder;
    qrbtest::ScriptedGetter* getter = nullptr;
    int threadsBefore = 0;
    int fdsBefore = 0;
};

TEST_F(StressTest, SameKeyFromSeveralThreadsIsQueuedOnce) {
    // Hold both general workers so that every insert meets the queued original.
    for (int i = 0; i < 2; ++i) {
        _stRequestedItem item;
        item.strURL = "hold/gate:ok:1x1";
        item.eThumbnailType = THUMB_RESERVED7;
        item.callback = &CallbackRecorder::Callback;
        item.user_data = recorder.Tag(10 + i);
        CQRBThumbnail::GetInstance()->RequestThumbnail(item, false);
    }
    ASSERT_TRUE(getter->WaitForBlocked(2, 5000));
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                thumbnail_request_async("/same/key.jpg", MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL, 0, 0, 0, 0, 1,
                                        &CallbackRecorder::Callback, recorder.Tag(1));
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(CQRBThumbnail::GetInstance()->Variant(1)->RequestList()->Size(), 3);
    getter->OpenGate();
    ASSERT_TRUE(recorder.WaitForCount(3, 10s));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(recorder.PerUser()[recorder.Tag(1)], 1);
}

// Each cycle: three posters and a thread calling cancel-all race the workers, then finalize
// comes with requests still queued and some being worked on. After the last cycle, requests
// posted from several threads with random cancels are each answered once unless cancelled.
TEST_F(StressTest, CancelsAndInitFinalizeCyclesUnderLoad) {
    int tag = 0;
    for (int cycle = 0; cycle < 15; ++cycle) {
        std::atomic<bool> done{false};
        std::thread clearer([&] {
            while (!done) {
                thumbnail_request_cancel_all();
                std::this_thread::sleep_for(std::chrono::milliseconds(cycle % 5));
            }
        });
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t) {
            threads.emplace_back([&, base = tag + t * 100, seed = cycle * 10 + t] {
                std::mt19937 rng(static_cast<unsigned>(seed));
                for (int i = 0; i < 100; ++i) Post(base + i, rng);
            });
        }
        for (auto& th : threads) th.join();
        done = true;
        clearer.join();
        tag += 300;
        thumbnail_finalize();
        const size_t after = recorder.Count();
        std::this_thread::sleep_for(20ms);
        EXPECT_EQ(recorder.Count(), after) << "a callback arrived after finalize";
        ASSERT_EQ(thumbnail_init(), 0);
        getter = qrbtest::InstallScriptedGetter(THUMB_RESERVED7);
    }
    // Then four threads post with random cancels; a cancel may come after delivery, so a
    // cancelled request may still have answered once.
    std::mutex mutex;
    std::set<void*> cancelled;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(1234 + t);
            for (int i = 0; i < 250; ++i) {
                const bool cancel = rng() % 8 == 0;
                if (cancel) {
                    std::lock_guard<std::mutex> lock(mutex);
                    cancelled.insert(recorder.Tag(tag + t * 250 + i));
                }
                Post(tag + t * 250 + i, rng, cancel);
            }
        });
    }
    for (auto& th : threads) th.join();
    WaitForAnswers(tag, tag + 1000, cancelled, 120s);
    auto per = recorder.PerUser();
    for (int i = tag; i < tag + 1000; ++i) {
        void* user = recorder.Tag(i);
        const int n = per.count(user) ? per[user] : 0;
        EXPECT_EQ(n, cancelled.count(user) ? std::min(n, 1) : 1) << "request " << i;
    }
    for (const auto& entry : per) EXPECT_LE(entry.second, 1);
}

}  // namespace
