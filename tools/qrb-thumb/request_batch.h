// Posts one asynchronous request per input and hands the answers over as they arrive.
//
// Each input gets its own slot, whose address is the request's user pointer, so that two
// inputs naming the same item are two requests and every answer finds its input. The callback
// runs on a library worker with that request's queue locked: it only takes ownership of the
// buffers, keeps the library's reason for a failure, and signals the waiting thread. This class
// never calls the library while holding its own mutex, so the two locks are never taken in
// opposite orders.
//
// The batch must outlive thumbnail_finalize: a request that is being worked on when the tool
// gives up is still answered while the library shuts down. Answers to inputs given up (or
// arriving after Close) are dropped and their buffers freed.
#ifndef QRB_THUMB_TOOL_REQUEST_BATCH_H
#define QRB_THUMB_TOOL_REQUEST_BATCH_H

#include "media_kind.h"
#include "qrb_thumbnail.h"

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace qrbthumb {

// A buffer the library allocated with malloc and handed to the application.
struct FreeLibraryBuffer {
    void operator()(void* p) const noexcept { std::free(p); }
};
using LibraryBuffer = std::unique_ptr<unsigned char, FreeLibraryBuffer>;

struct DeliveredImage {
    LibraryBuffer bytes;
    size_t size = 0;
    long long timestamp = 0;
    int slot = 0;  // index in the result record (slots the library skipped stay missing)
};

struct Answer {
    bool answered = false;
    int status = -1;
    bool encoded = false;  // the images are the item's encoded bytes, not rasters
    int width = 0;         // of the last image delivered
    int height = 0;
    std::vector<DeliveredImage> images;
    std::string reason;                    // the library's words for a failure; may be empty
    std::chrono::milliseconds elapsed{0};  // post to answer, or post to giving up
};

struct RequestParams {
    int width = 0;
    int height = 0;
    int frames = 1;
    bool useCache = false;
    bool encoded = false;  // thumbnail_request_http_buffer_async instead of ..._async
};

class RequestBatch {
public:
    explicit RequestBatch(size_t inputs);
    RequestBatch(const RequestBatch&) = delete;
    RequestBatch& operator=(const RequestBatch&) = delete;

    // Posts the request of input `index` (each index once).
    void Post(size_t index, const std::string& url, Route route, const RequestParams& params);

    // Waits until an answer not handed over yet arrives or `until` passes. True with *index set
    // to its input; answers are handed over in the order they came.
    bool NextAnswer(std::chrono::steady_clock::time_point until, size_t* index);

    // Gives up every input posted before postedBefore and still unanswered; returns them. Their
    // answers, should they still come, are dropped.
    std::vector<size_t> GiveUp(std::chrono::steady_clock::time_point postedBefore);

    // Stops accepting answers.
    void Close();

    // The answer of input `index` (each index once): what came, or, for an input given up, how
    // long it waited.
    Answer Take(size_t index);

    // The user pointer that the request of input `index` carries.
    void* UserPointer(size_t index) { return index < m_Count ? &m_Slots[index] : nullptr; }

    static int Callback(int status, _thumb_result* result, void* user_data);

private:
    struct Slot {
        RequestBatch* owner = nullptr;
        bool posted = false;
        bool givenUp = false;
        std::chrono::steady_clock::time_point postedAt;
        Answer answer;
    };
    void m_Deliver(Slot* slot, int status, _thumb_result* result, LibraryBuffer* buffers);

    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    // Sized once: the library holds pointers to the slots as user pointers.
    std::unique_ptr<Slot[]> m_Slots;
    size_t m_Count = 0;
    std::deque<size_t> m_Arrived;  // answered inputs not handed over yet
    bool m_Closed = false;
};

}  // namespace qrbthumb

#endif
