// Runs a batch through the library as a stream. At most `window` requests are out at once;
// each answer is handed to `consume` on the calling thread as it arrives, and its buffers are
// released when consume returns; an input not answered within `timeout` of its request is
// handed over unanswered. What the tool holds therefore stays bounded by the window, whatever
// the number of inputs.
#ifndef QRB_THUMB_TOOL_BATCH_RUN_H
#define QRB_THUMB_TOOL_BATCH_RUN_H

#include "request_batch.h"

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace qrbthumb {

struct BatchInput {
    size_t index = 0;  // the input's slot in the batch
    std::string url;
    Route route;
};

struct BatchSettings {
    // Enough to keep every worker of the library busy (four take videos, two pictures, one web
    // items) with the next request already queued behind each.
    size_t window = 16;
    std::chrono::duration<double> timeout{120};
    RequestParams params;
};

// consume(index, answer) returns whether the input succeeded; progress(done, failed) runs after
// each input is done.
using ConsumeFn = std::function<bool(size_t index, Answer answer)>;
using BatchProgressFn = std::function<void(size_t done, size_t failed)>;

void RunBatch(RequestBatch& batch, const std::vector<BatchInput>& inputs,
              const BatchSettings& settings, const ConsumeFn& consume,
              const BatchProgressFn& progress);

}  // namespace qrbthumb

#endif
