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

// One request of a mix that reaches every variant and fails or succeeds quickly.
struct Poster {
    CallbackRecorder* recorder;
    CQRBThumbnail* service;

    void Post(int tag, std::mt19937& rng, std::string* urlOut, int* kindOut) {
        std::string url;
        int kind = static_cast<int>(rng() % 10);
        void* user = recorder->Tag(tag);
        if (kind < 4) {  // scripted, multi variant, succeeds
            url = "stress/" + std::to_string(tag) + "/ok:4x4";
            _stRequestedItem item;
            item.strURL = url;
            item.eThumbnailType = THUMB_RESERVED7;
            item.callback = &CallbackRecorder::Callback;
            item.user_data = user;
            item.bUsedCache = (tag % 3) == 0;
            service->RequestThumbnail(item, false);
        } else if (kind < 7) {  // picture without a getter yet, multi variant
            url = "/stress/" + std::to_string(tag) + ".jpg";
            thumbnail_request_async(url.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL, 0, 8, 8, tag & 1, 1,
                                    &CallbackRecorder::Callback, user);
        } else if (kind < 9) {  // video, single variant
            url = std::to_string(tag) + ";/stress/" + std::to_string(tag) + ".mp4";
            thumbnail_request_async(url.c_str(), MEDIA_TYPE_VIDEO, DEV_TYPE_LOCAL, 0, 8, 8, 0,
                                    (tag & 1) ? 5 : 1, &CallbackRecorder::Callback, user);
        } else {  // web picture, HTTP variant: nothing listens on port 1, so it fails fast
            url = "http://127.0.0.1:1/stress/" + std::to_string(tag) + ".jpg";
            thumbnail_request_async(url.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_SNS, 0, 8, 8, 0, 1,
                                    &CallbackRecorder::Callback, user);
        }
        *urlOut = url;
        *kindOut = kind;
    }

    static void Cancel(CQRBThumbnail* service, const std::string& url, int kind) {
        if (kind < 4) {
            service->CancelRequest(url, THUMB_RESERVED7);
        } else if (kind < 7) {
            thumbnail_request_cancel(url.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL);
        } else if (kind < 9) {
            thumbnail_request_cancel(url.c_str(), MEDIA_TYPE_VIDEO, DEV_TYPE_LOCAL);
        } else {
            thumbnail_request_cancel(url.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_SNS);
        }
    }
};

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

    qrbtest::ScratchRoot root;
    CallbackRecorder recorder;
    qrbtest::ScriptedGetter* getter = nullptr;
    int threadsBefore = 0;
    int fdsBefore = 0;
};

TEST_F(StressTest, RandomCancelsFromSeveralThreads) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 500;
    std::mutex mutex;
    std::set<void*> cancelled;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(1234 + t);
            Poster poster{&recorder, CQRBThumbnail::GetInstance()};
            for (int i = 0; i < kPerThread; ++i) {
                int tag = t * kPerThread + i;
                std::string url;
                int kind = 0;
                poster.Post(tag, rng, &url, &kind);
                if (rng() % 8 == 0) {
                    {
                        std::lock_guard<std::mutex> lock(mutex);
                        cancelled.insert(recorder.Tag(tag));
                    }
                    Poster::Cancel(CQRBThumbnail::GetInstance(), url, kind);
                }
            }
        });
    }
    for (auto& th : threads) th.join();
    const size_t expected = kThreads * kPerThread - cancelled.size();
    // Cancelled requests may still have answered (a cancel can come after delivery), so wait
    // for the others and then let stragglers settle.
    auto deadline = std::chrono::steady_clock::now() + 120s;
    while (std::chrono::steady_clock::now() < deadline) {
        auto per = recorder.PerUser();
        size_t answered = 0;
        for (const auto& entry : per) answered += cancelled.count(entry.first) ? 0 : 1;
        if (answered >= expected) break;
        std::this_thread::sleep_for(20ms);
    }
    std::this_thread::sleep_for(300ms);
    auto per = recorder.PerUser();
    for (int tag = 0; tag < kThreads * kPerThread; ++tag) {
        void* user = recorder.Tag(tag);
        int n = per.count(user) ? per[user] : 0;
        if (cancelled.count(user)) {
            EXPECT_LE(n, 1) << "request " << tag;
        } else {
            EXPECT_EQ(n, 1) << "request " << tag;
        }
    }
}

TEST_F(StressTest, CancelAllRacingTheWorkers) {
    std::atomic<bool> done{false};
    std::atomic<int> nextTag{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(99 + t);
            Poster poster{&recorder, CQRBThumbnail::GetInstance()};
            for (int i = 0; i < 400; ++i) {
                std::string url;
                int kind = 0;
                poster.Post(nextTag++, rng, &url, &kind);
            }
        });
    }
    std::thread clearer([&] {
        std::mt19937 rng(7);
        while (!done) {
            thumbnail_request_cancel_all();
            std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 5));
        }
    });
    for (auto& th : threads) th.join();
    done = true;
    clearer.join();

    // Requests made after the last clear are all answered.
    const int firstLate = nextTag;
    std::mt19937 rng(5);
    Poster poster{&recorder, CQRBThumbnail::GetInstance()};
    for (int i = 0; i < 100; ++i) {
        std::string url;
        int kind = 0;
        poster.Post(firstLate + i, rng, &url, &kind);
    }
    auto deadline = std::chrono::steady_clock::now() + 60s;
    auto lateAnswered = [&] {
        auto per = recorder.PerUser();
        int n = 0;
        for (int i = 0; i < 100; ++i) n += per.count(recorder.Tag(firstLate + i)) ? 1 : 0;
        return n;
    };
    while (lateAnswered() < 100 && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(20ms);
    std::this_thread::sleep_for(200ms);
    auto per = recorder.PerUser();
    for (const auto& entry : per) EXPECT_LE(entry.second, 1);
    EXPECT_EQ(lateAnswered(), 100);
}

TEST_F(StressTest, SameKeyFromSeveralThreadsIsQueuedOnce) {
    // Hold both general workers so that every insert meets the queued original.
    auto* service = CQRBThumbnail::GetInstance();
    for (int i = 0; i < 2; ++i) {
        _stRequestedItem item;
        item.strURL = "hold/gate:ok:1x1";
        item.eThumbnailType = THUMB_RESERVED7;
        item.callback = &CallbackRecorder::Callback;
        item.user_data = recorder.Tag(10 + i);
        service->RequestThumbnail(item, false);
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
    EXPECT_EQ(service->Variant(1)->RequestList()->Size(), 3);
    getter->OpenGate();
    ASSERT_TRUE(recorder.WaitForCount(3, 10s));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(recorder.PerUser()[recorder.Tag(1)], 1);
}

TEST_F(StressTest, InitFinalizeCyclesUnderLoad) {
    int tag = 0;
    for (int cycle = 0; cycle < 15; ++cycle) {
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t) {
            const int base = tag + t * 100;
            threads.emplace_back([&, base, cycle, t] {
                std::mt19937 rng(static_cast<unsigned>(cycle * 10 + t));
                Poster poster{&recorder, CQRBThumbnail::GetInstance()};
                for (int i = 0; i < 100; ++i) {
                    std::string url;
                    int kind = 0;
                    poster.Post(base + i, rng, &url, &kind);
                }
            });
        }
        for (auto& th : threads) th.join();
        tag += 300;
        thumbnail_finalize();  // with requests still queued and some being worked on
        size_t after = recorder.Count();
        std::this_thread::sleep_for(20ms);
        EXPECT_EQ(recorder.Count(), after) << "a callback arrived after finalize";
        ASSERT_EQ(thumbnail_init(), 0);
        getter = qrbtest::InstallScriptedGetter(THUMB_RESERVED7);
    }
    for (const auto& entry : recorder.PerUser()) EXPECT_LE(entry.second, 1);
}

}  // namespace
