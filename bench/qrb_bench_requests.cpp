// How fast the request path itself is, through the public C interface only: requests that fail
// fast (missing local pictures, media type 1 on ordinary storage) go through routing, the
// queue, a worker, the getter look-up and the callback without any decoding, so what is timed
// is the service's own overhead.
//
//   throughput  N requests with distinct URLs posted at once; answers per second from the first
//               post to the last callback, and posting calls per second on their own; the
//               median of a few rounds
//   idle        one request at a time: delay from post to callback with idle workers, which
//               poll their queue every 50 ms
//   queued      M requests posted at once: each one's delay from post to callback
//
// Prints a markdown table. QRB_ROOT must name a scratch folder (bench/run.sh makes one).
#include "qrb_thumbnail.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Sample {
    Clock::time_point posted;
    Clock::time_point answered;
};

// Counts answers; the samples are written by the callback and read after the count says so.
class Answers {
public:
    explicit Answers(size_t n) : m_Samples(n) {}

    Sample* At(size_t i) { return &m_Samples[i]; }
    const std::vector<Sample>& Samples() const { return m_Samples; }

    static int Callback(int status, _thumb_result* result, void* user_data) {
        const Clock::time_point now = Clock::now();
        // The application owns every buffer of the result, failed or not.
        for (int i = 0; i < QRB_THUMB_MAX_IMAGES; ++i) std::free(result->pBuffer[i]);
        std::free(result->buffer_preset);
        Sample* sample = static_cast<Sample*>(user_data);
        sample->answered = now;
        Answers* self = s_Current;
        std::lock_guard<std::mutex> lock(self->m_Mutex);
        ++self->m_Done;
        self->m_Cond.notify_all();
        return 0;
    }

    bool WaitFor(size_t n, std::chrono::seconds limit) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Cond.wait_for(lock, limit, [&] { return m_Done >= n; });
    }

    // The callback has no room for two pointers; one phase runs at a time.
    static Answers* s_Current;

private:
    std::vector<Sample> m_Samples;
    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    size_t m_Done = 0;
};
Answers* Answers::s_Current = nullptr;

// A time limit per phase, so that a lost answer ends the run instead of hanging it.
constexpr std::chrono::seconds kPhaseLimit(300);

std::string Url(const char* phase, size_t i) {
    return "/nonexistent/qrb-bench/" + std::string(phase) + "-" + std::to_string(i) + ".jpg";
}

void Post(const std::string& url, Sample* sample) {
    sample->posted = Clock::now();
    thumbnail_request_async(url.c_str(), MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL, 0, 160, 120, 0, 1,
                            &Answers::Callback, sample);
}

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// Nearest-rank percentile of a sorted list.
double Percentile(const std::vector<double>& sorted, double p) {
    if (sorted.empty()) return 0;
    size_t rank = static_cast<size_t>(p / 100.0 * sorted.size() + 0.999999);
    rank = std::min(std::max<size_t>(rank, 1), sorted.size());
    return sorted[rank - 1];
}

std::vector<double> SortedDelays(const std::vector<Sample>& samples) {
    std::vector<double> delays;
    for (const auto& s : samples) delays.push_back(Ms(s.answered - s.posted));
    std::sort(delays.begin(), delays.end());
    return delays;
}

size_t Arg(int argc, char** argv, const char* name, size_t fallback) {
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], name) == 0) return std::strtoul(argv[i + 1], nullptr, 10);
    }
    return fallback;
}

// Throughput, in a few rounds: on a shared machine one round can be far off. Fills the sorted
// rates of answers and of posts per second; false when answers were lost.
bool MeasureThroughput(size_t n, size_t rounds, std::vector<double>* answeredRates,
                       std::vector<double>* postedRates) {
    for (size_t round = 0; round < rounds; ++round) {
        Answers throughput(n);
        Answers::s_Current = &throughput;
        std::vector<std::string> urls;
        const std::string phase = "throughput" + std::to_string(round);
        for (size_t i = 0; i < n; ++i) urls.push_back(Url(phase.c_str(), i));
        const Clock::time_point start = Clock::now();
        for (size_t i = 0; i < n; ++i) Post(urls[i], throughput.At(i));
        const Clock::time_point posted = Clock::now();
        if (!throughput.WaitFor(n, kPhaseLimit)) {
            std::fprintf(stderr, "qrb_bench_requests: throughput phase lost answers\n");
            return false;
        }
        Clock::time_point last = start;
        for (const auto& s : throughput.Samples()) last = std::max(last, s.answered);
        answeredRates->push_back(n / (Ms(last - start) / 1000.0));
        postedRates->push_back(n / (Ms(posted - start) / 1000.0));
    }
    std::sort(answeredRates->begin(), answeredRates->end());
    std::sort(postedRates->begin(), postedRates->end());
    return true;
}

// Idle workers: one request at a time. A worker that has just answered sleeps a whole poll
// period, so a request posted right after an answer would wait for most of it; pauses spread
// over two periods make the posts land at every point of the workers' cycle.
bool MeasureIdle(size_t n, std::vector<double>* delays) {
    Answers idle(n);
    Answers::s_Current = &idle;
    unsigned pause = 12345;
    for (size_t i = 0; i < n; ++i) {
        Post(Url("idle", i), idle.At(i));
        if (!idle.WaitFor(i + 1, kPhaseLimit)) {
            std::fprintf(stderr, "qrb_bench_requests: idle phase lost an answer\n");
            return false;
        }
        pause = pause * 1103515245u + 12345u;
        std::this_thread::sleep_for(std::chrono::microseconds((pause >> 8) % 100000));
    }
    *delays = SortedDelays(idle.Samples());
    return true;
}

// A full queue.
bool MeasureQueued(size_t n, std::vector<double>* delays) {
    Answers queued(n);
    Answers::s_Current = &queued;
    std::vector<std::string> urls;
    for (size_t i = 0; i < n; ++i) urls.push_back(Url("queued", i));
    for (size_t i = 0; i < n; ++i) Post(urls[i], queued.At(i));
    if (!queued.WaitFor(n, kPhaseLimit)) {
        std::fprintf(stderr, "qrb_bench_requests: queued phase lost answers\n");
        return false;
    }
    *delays = SortedDelays(queued.Samples());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const size_t nThroughput = Arg(argc, argv, "--requests", 20000);
    const size_t nIdle = Arg(argc, argv, "--idle-samples", 200);
    const size_t nQueued = Arg(argc, argv, "--queued", 5000);
    const size_t nRounds = std::max<size_t>(1, Arg(argc, argv, "--rounds", 5));
    const char* root = std::getenv("QRB_ROOT");
    if (root == nullptr || *root == '\0') {
        std::fprintf(stderr, "qrb_bench_requests: set QRB_ROOT to a scratch folder\n");
        return 2;
    }
    if (thumbnail_init() != 0) {
        std::fprintf(stderr, "qrb_bench_requests: the service did not start\n");
        return 1;
    }
    std::vector<double> answeredRates, postedRates, idleDelays, queuedDelays;
    if (!MeasureThroughput(nThroughput, nRounds, &answeredRates, &postedRates) ||
        !MeasureIdle(nIdle, &idleDelays) || !MeasureQueued(nQueued, &queuedDelays)) {
        return 1;
    }
    thumbnail_finalize();

    std::printf("| measurement | value |\n|---|---|\n");
    std::printf(
        "| answers per second, %zu failing picture requests posted at once, median of %zu "
        "rounds (lowest - highest) | %.0f (%.0f - %.0f) |\n",
        nThroughput, nRounds, Percentile(answeredRates, 50), answeredRates.front(),
        answeredRates.back());
    std::printf(
        "| thumbnail_request_async calls per second while posting them, median "
        "(lowest - highest) | %.0f (%.0f - %.0f) |\n",
        Percentile(postedRates, 50), postedRates.front(), postedRates.back());
    std::printf(
        "| post to callback, idle workers (%zu requests one at a time), median | %.1f ms |\n",
        nIdle, Percentile(idleDelays, 50));
    std::printf("| post to callback, idle workers, 99th percentile | %.1f ms |\n",
                Percentile(idleDelays, 99));
    std::printf("| post to callback, %zu requests queued at once, median | %.1f ms |\n", nQueued,
                Percentile(queuedDelays, 50));
    std::printf("| post to callback, %zu requests queued at once, 99th percentile | %.1f ms |\n",
                nQueued, Percentile(queuedDelays, 99));
    return 0;
}
