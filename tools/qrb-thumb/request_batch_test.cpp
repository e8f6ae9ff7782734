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

TEST_F(ToolRequestBatch, EveryPostedInputIsAnsweredAndProgressCountsUp) {
    RequestBatch& batch = NewBatch(3);
    batch.Post(0, Missing("a.jpg"), RouteOf(MediaKind::Picture), Params());
    batch.Post(1, Missing("b.jpg"), RouteOf(MediaKind::Picture), Params());
    batch.Post(2, Missing("c.mp3"), RouteOf(MediaKind::Music), Params());
    std::vector<size_t> seen;
    EXPECT_TRUE(batch.Wait(steady_clock::now() + std::chrono::seconds(60),
                           [&](size_t answered, size_t failed) {
                               seen.push_back(answered);
                               EXPECT_LE(failed, answered);
                           }));
    batch.Close();
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back(), 3u);
    for (size_t i = 1; i < seen.size(); ++i) EXPECT_GT(seen[i], seen[i - 1]);
    for (size_t i = 0; i < 3; ++i) {
        const Answer answer = batch.Take(i);
        EXPECT_TRUE(answer.answered) << i;
        EXPECT_EQ(answer.status, -1) << i;  // the files do not exist
        EXPECT_TRUE(answer.images.empty()) << i;
    }
}

TEST_F(ToolRequestBatch, TheSameItemTwiceIsTwoRequestsWithTwoAnswers) {
    RequestBatch& batch = NewBatch(2);
    EXPECT_NE(batch.UserPointer(0), batch.UserPointer(1));
    batch.Post(0, Missing("same.jpg"), RouteOf(MediaKind::Picture), Params());
    batch.Post(1, Missing("same.jpg"), RouteOf(MediaKind::Picture), Params());
    EXPECT_TRUE(batch.Wait(steady_clock::now() + std::chrono::seconds(60), nullptr));
    batch.Close();
    EXPECT_TRUE(batch.Take(0).answered);
    EXPECT_TRUE(batch.Take(1).answered);
}

TEST_F(ToolRequestBatch, ARequestTheServiceDropsIsLeftUnansweredAtTheDeadline) {
    RequestBatch& batch = NewBatch(2);
    batch.Post(0, Missing("x.jpg"), kDropped, Params());
    batch.Post(1, Missing("y.jpg"), RouteOf(MediaKind::Picture), Params());
    const auto start = steady_clock::now();
    EXPECT_FALSE(batch.Wait(start + milliseconds(300), nullptr));
    EXPECT_GE(steady_clock::now() - start, milliseconds(300));
    batch.Close();
    const Answer dropped = batch.Take(0);
    EXPECT_FALSE(dropped.answered);
    EXPECT_GE(dropped.elapsed, milliseconds(300));  // the time it waited, not zero
    EXPECT_TRUE(batch.Take(1).answered);
}

TEST_F(ToolRequestBatch, AnInputNeverPostedIsNotWaitedFor) {
    RequestBatch& batch = NewBatch(2);
    batch.Post(1, Missing("only.jpg"), RouteOf(MediaKind::Picture), Params());
    EXPECT_TRUE(batch.Wait(steady_clock::now() + std::chrono::seconds(60), nullptr));
    batch.Close();
    EXPECT_FALSE(batch.Take(0).answered);
    EXPECT_TRUE(batch.Take(1).answered);
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
    EXPECT_TRUE(batch.Wait(steady_clock::now(), nullptr));
    batch.Close();

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
TEST_F(ToolRequestBatch, AnswersAfterCloseOrASecondAnswerAreDroppedAndFreed) {
    RequestBatch& batch = NewBatch(2);
    batch.Post(0, "first", kDropped, Params());
    batch.Post(1, "late", kDropped, Params());
    _thumb_result result;
    std::memset(&result, 0, sizeof(result));
    result.pBuffer[0] = Malloced(4, 1);
    result.nBufSize[0] = 4;
    RequestBatch::Callback(-1, &result, batch.UserPointer(0));
    result.pBuffer[0] = Malloced(4, 2);
    RequestBatch::Callback(0, &result, batch.UserPointer(0));  // a second answer
    batch.Close();
    result.pBuffer[0] = Malloced(4, 3);
    result.buffer_preset = reinterpret_cast<char*>(Malloced(QRB_THUMB_PRESET_SIZE, 0));
    RequestBatch::Callback(0, &result, batch.UserPointer(1));  // after Close
    result.buffer_preset = nullptr;
    result.pBuffer[0] = Malloced(4, 4);
    RequestBatch::Callback(0, &result, nullptr);  // no user pointer at all

    const Answer first = batch.Take(0);
    EXPECT_TRUE(first.answered);
    EXPECT_EQ(first.status, -1);  // the first answer stands
    EXPECT_TRUE(first.images.empty());
    EXPECT_FALSE(batch.Take(1).answered);
}

}  // namespace
}  // namespace qrbthumb
