#include "batch_run.h"
#include "request_batch.h"

#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace qrbthumb {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// A route the service drops without an answer (media type 4 on ordinary storage).
constexpr Route kDropped = {MEDIA_TYPE_NONE, DEV_TYPE_LOCAL};

class ToolRequestBatch : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(thumbnail_init(), 0); }
    void TearDown() override { thumbnail_finalize(); }
    qrbtest::ScratchRoot root;
    std::unique_ptr<RequestBatch> batch;  // outlives thumbnail_finalize in TearDown
};

// Unanswered requests are given up each after its own time-out, never more than the window out.
TEST_F(ToolRequestBatch, UnansweredInputsAreGivenUpAfterTheTimeOutAndTheWindowHolds) {
    std::vector<BatchInput> inputs;
    for (size_t i = 0; i < 5; ++i) inputs.push_back({i, root.Path() + "/x.jpg", kDropped});
    BatchSettings settings;
    settings.window = 2;
    settings.timeout = milliseconds(200);
    std::vector<size_t> order;
    const auto start = steady_clock::now();
    batch = std::make_unique<RequestBatch>(inputs.size());
    RunBatch(
        *batch, inputs, settings,
        [&](size_t index, Answer answer) {
            order.push_back(index);
            EXPECT_FALSE(answer.answered);
            EXPECT_GE(answer.elapsed, milliseconds(200));  // the time it waited, not zero
            return false;
        },
        nullptr);
    EXPECT_GE(steady_clock::now() - start, milliseconds(600));
    EXPECT_EQ(order.size(), 5u);
}

// Answers the batch does not keep are freed all the same (the leak check holds this case to it).
TEST_F(ToolRequestBatch, AnswersAfterGivingUpOrASecondAnswerAreDroppedAndFreed) {
    batch = std::make_unique<RequestBatch>(3);
    for (size_t i = 0; i < 3; ++i) batch->Post(i, "held", kDropped, RequestParams());
    _thumb_result result;
    std::memset(&result, 0, sizeof(result));
    result.nBufSize[0] = 4;
    auto answer = [&](int status, void* user) {
        result.pBuffer[0] = static_cast<unsigned char*>(std::calloc(4, 1));
        RequestBatch::Callback(status, &result, user);
    };
    answer(-1, batch->UserPointer(0));
    answer(0, batch->UserPointer(0));  // a second answer
    EXPECT_EQ(batch->GiveUp(steady_clock::now() + milliseconds(1)), (std::vector<size_t>{1, 2}));
    result.buffer_preset = static_cast<char*>(std::calloc(QRB_THUMB_PRESET_SIZE, 1));
    answer(0, batch->UserPointer(1));  // after giving up
    result.buffer_preset = nullptr;
    batch->Close();
    answer(0, batch->UserPointer(2));  // after Close
    answer(0, nullptr);                // no user pointer at all

    const Answer first = batch->Take(0);
    EXPECT_EQ(first.status, -1);  // the first answer stands
    EXPECT_TRUE(first.images.empty());
    EXPECT_FALSE(batch->Take(1).answered);
    EXPECT_FALSE(batch->Take(2).answered);
}

}  // namespace
}  // namespace qrbthumb
