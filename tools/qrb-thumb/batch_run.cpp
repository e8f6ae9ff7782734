#include "batch_run.h"

#include <algorithm>

namespace qrbthumb {

void RunBatch(RequestBatch& batch, const std::vector<BatchInput>& inputs,
              const BatchSettings& settings, const ConsumeFn& consume,
              const BatchProgressFn& progress) {
    using Clock = std::chrono::steady_clock;
    const auto timeout = std::chrono::duration_cast<Clock::duration>(settings.timeout);
    // How often overdue inputs are looked for while answers keep coming.
    const auto sweep = std::min<Clock::duration>(timeout, std::chrono::milliseconds(100));
    const size_t window = std::max<size_t>(1, settings.window);

    size_t next = 0;
    size_t out = 0;
    size_t done = 0;
    size_t failed = 0;
    auto finish = [&](size_t index) {
        if (!consume(index, batch.Take(index))) ++failed;
        --out;
        ++done;
        if (progress) progress(done, failed);
    };
    if (progress) progress(0, 0);
    auto lastSweep = Clock::now();
    while (done < inputs.size()) {
        for (; out < window && next < inputs.size(); ++next, ++out) {
            const BatchInput& input = inputs[next];
            batch.Post(input.index, input.url, input.route, settings.params);
        }
        size_t index = 0;
        if (batch.NextAnswer(Clock::now() + sweep, &index)) finish(index);
        if (Clock::now() - lastSweep >= sweep) {
            lastSweep = Clock::now();
            for (size_t overdue : batch.GiveUp(lastSweep - timeout)) finish(overdue);
        }
    }
}

}  // namespace qrbthumb
