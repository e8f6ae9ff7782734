#include "batch_run.h"
#include "request_batch.h"

#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <vector>

namespace qrbthumb {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// A route the service drops without an answer (media type 4 on ordinary storage).
constexpr Route kDropped = {MEDIA_TYPE_NONE, DEV_TYPE_LOCAL};

RequestParams Params() {
    RequestParams params;
    params.width = 64;
    params.height = 48;
    return params;
}

unsigned char* Malloced(size_t size, unsigned char fill) {
    unsigned char* p = static_cast<unsigned char*>(std::malloc(size));
    std::memset(p, fill, size);
    return p;
}

// Each case runs with the real service on a scratch root, and ends it before the batch goes.
class ToolRequestBatch : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(thumbnail_init(), 0); }
    void TearDown() override { thumbnail_finalize(); }
    std::string Missing(const std::string& name) const { return root.Path() + "/" + name; }
    // Owned by the fixture, so that it outlives thumbnail_finalize in TearDown.
    RequestBatch& NewBatch(size_t inputs) {
        m_Batch.reset(new RequestBatch(inputs));
        return *m_Batch;
    }

    qrbtest::ScratchRoot root;

private:
    std::unique_ptr<RequestBatch> m_Batch;
};

// Runs inputs through RunBatch and records what consume and progress saw.
struct BatchRun {
    std::vector<size_t> order;
    std::vector<Answer> answers;
    std::vector<size_t> progress;
};

BatchRun RunAll(RequestBatch& batch, const std::vector<BatchInput>& inputs, size_t window,
           double timeoutSeconds) {
    BatchSettings settings;
    settings.window = window;
    settings.timeout = std::chrono::duration<double>(timeoutSeconds);
    settings.params = Params();
    BatchRun run;
    run.answers.resize(inputs.size());
    RunBatch(
        batch, inputs, settings,
        [&](size_t index, Answer answer) {
            run.order.push_back(index);
            run.answers[index] = std::move(answer);
            return false;
        },
        [&](size_t done, size_t failed) {
            EXPECT_EQ(failed, done);
            run.progress.push_back(done);
        });
    return run;
}

TEST_F(ToolRequestBatch, EveryInputIsHandedOverOnceWithTheLibrarysReason) {
    RequestBatch& batch = NewBatch(3);
    const BatchRun run = RunAll(batch,
                           {{0, Missing("a.jpg"), RouteOf(MediaKind::Picture)},
                            {1, Missing("b.mp3"), RouteOf(MediaKind::Music)},
                            {2, Missing("a.jpg"), RouteOf(MediaKind::Picture)}},  // twice: two
                           1, 60);
    ASSERT_EQ(run.order.size(), 3u);
    EXPECT_EQ(std::set<size_t>(run.order.begin(), run.order.end()).size(), 3u);
    EXPECT_EQ(run.progress, (std::vector<size_t>{0, 1, 2, 3}));
    for (const Answer& answer : run.answers) {
        EXPECT_TRUE(answer.answered);
        EXPECT_EQ(answer.status, -1);  // the files do not exist
        EXPECT_EQ(answer.reason, "no such file");
        EXPECT_TRUE(answer.images.empty());
    }
}

// The service drops these requests without an answer: each is given up after the time-out from
// its own request, and no more than the window is ever out, so three rounds are needed.
TEST_F(ToolRequestBatch, UnansweredInputsAreGivenUpAfterTheTimeOutAndTheWindowHolds) {
    RequestBatch& batch = NewBatch(5);
    std::vector<BatchInput> inputs;
    for (size_t i = 0; i < 5; ++i) inputs.push_back({i, Missing("x.jpg"), kDropped});
    const auto start = steady_clock::now();
    const BatchRun run = RunAll(batch, inputs, 2, 0.2);
    EXPECT_GE(steady_clock::now() - start, milliseconds(600));
    ASSERT_EQ(run.order.size(), 5u);
    for (const Answer& answer : run.answers) {
        EXPECT_FALSE(answer.answered);
        EXPECT_GE(answer.elapsed, milliseconds(200));  // the time it waited, not zero
    }
}

// The callback as the library calls it, with a result record it filled.
TEST_F(ToolRequestBatch, ASuccessHandsOverEveryFilledSlot) {
    RequestBatch& batch = NewBatch(1);
    batch.Post(0, "held", kDropped, Params());
    _thumb_result result;
    std::memset(&result, 0, sizeof(result));
    result.width = 2;
    result.height = 1;
    result.pBuffer[0] = Malloced(8, 0x11);
    result.nBufSize[0] = 8;
    result.timestamp[0] = 1000;
    result.pBuffer[2] = Malloced(8, 0x22);  // slot 1 left empty by the library
    result.nBufSize[2] = 8;
    result.timestamp[2] = 3000;
    result.count = 2;
    result.buffer_preset = reinterpret_cast<char*>(Malloced(QRB_THUMB_PRESET_SIZE, 0));
    RequestBatch::Callback(0, &result, batch.UserPointer(0));
    size_t index = 99;
    ASSERT_TRUE(batch.NextAnswer(steady_clock::now(), &index));
    EXPECT_EQ(index, 0u);
    EXPECT_FALSE(batch.NextAnswer(steady_clock::now(), &index)) << "each answer is handed over once";

    const Answer answer = batch.Take(0);
    ASSERT_TRUE(answer.answered);
    EXPECT_EQ(answer.status, 0);
    EXPECT_FALSE(answer.encoded);
    EXPECT_EQ(answer.width, 2);
    EXPECT_EQ(answer.height, 1);
    ASSERT_EQ(answer.images.size(), 2u);
    EXPECT_EQ(answer.images[0].slot, 0);
    EXPECT_EQ(answer.images[0].size, 8u);
    EXPECT_EQ(answer.images[0].timestamp, 1000);
    EXPECT_EQ(answer.images[0].bytes.get()[7], 0x11);
    EXPECT_EQ(answer.images[1].slot, 2);
    EXPECT_EQ(answer.images[1].timestamp, 3000);
    EXPECT_EQ(answer.images[1].bytes.get()[0], 0x22);
}

TEST_F(ToolRequestBatch, AnEncodedAnswerIsMarkedSo) {
    RequestBatch& batch = NewBatch(1);
    batch.Post(0, "held", kDropped, Params());
    _thumb_result result;
    std::memset(&result, 0, sizeof(result));
    result.pBuffer[0] = Malloced(5, 0xFF);
    result.nBufSize[0] = 5;
    result.count = 1;
    result.bBuffer = 1;
    RequestBatch::Callback(0, &result, batch.UserPointer(0));
    batch.Close();
    const Answer answer = batch.Take(0);
    EXPECT_TRUE(answer.encoded);
    ASSERT_EQ(answer.images.size(), 1u);
    EXPECT_EQ(answer.images[0].size, 5u);
}

// Buffers of answers the batch does not keep are freed all the same (the sanitizer build's
// leak check holds this case to it).
TEST_F(ToolRequestBatch, AnswersAfterGivingUpOrASecondAnswerAreDroppedAndFreed) {
    RequestBatch& batch = NewBatch(3);
    batch.Post(0, "first", kDropped, Params());
    batch.Post(1, "late", kDropped, Params());
    batch.Post(2, "closed", kDropped, Params());
    _thumb_result result;
    std::memset(&result, 0, sizeof(result));
    result.pBuffer[0] = Malloced(4, 1);
    result.nBufSize[0] = 4;
    RequestBatch::Callback(-1, &result, batch.UserPointer(0));
    result.pBuffer[0] = Malloced(4, 2);
    RequestBatch::Callback(0, &result, batch.UserPointer(0));  // a second answer
    EXPECT_EQ(batch.GiveUp(steady_clock::now() + milliseconds(1)), (std::vector<size_t>{1, 2}));
    result.pBuffer[0] = Malloced(4, 3);
    result.buffer_preset = reinterpret_cast<char*>(Malloced(QRB_THUMB_PRESET_SIZE, 0));
    RequestBatch::Callback(0, &result, batch.UserPointer(1));  // after giving up
    result.buffer_preset = nullptr;
    batch.Close();
    result.pBuffer[0] = Malloced(4, 4);
    RequestBatch::Callback(0, &result, batch.UserPointer(2));  // after Close
    result.pBuffer[0] = Malloced(4, 5);
    RequestBatch::Callback(0, &result, nullptr);  // no user pointer at all

    const Answer first = batch.Take(0);
    EXPECT_TRUE(first.answered);
    EXPECT_EQ(first.status, -1);  // the first answer stands
    EXPECT_TRUE(first.images.empty());
    EXPECT_FALSE(batch.Take(1).answered);
    EXPECT_FALSE(batch.Take(2).answered);
}

}  // namespace
}  // namespace qrbthumb
