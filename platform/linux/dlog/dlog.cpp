// The platform log on a host: one line per message on stderr at or above QRB_LOG_LEVEL
// (3 debug ... 6 error, default 5), colour codes kept only when stderr is a terminal, and an
// optional sink that receives every message whatever the threshold.
#include "dlog.h"
#include "dlog_sink.h"

#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

namespace {

constexpr int kDefaultLevel = DLOG_WARN;

int LevelFromEnvironment() {
    const char* text = std::getenv("QRB_LOG_LEVEL");
    if (text == nullptr || *text == '\0') return kDefaultLevel;
    char* end = nullptr;
    long value = std::strtol(text, &end, 10);
    if (end == text || value < 0 || value > 100) return kDefaultLevel;
    return static_cast<int>(value);
}

std::atomic<int>& StderrLevel() {
    static std::atomic<int> level{LevelFromEnvironment()};
    return level;
}

struct Sink {
    std::mutex mutex;
    dlog_sink_fn fn = nullptr;
    void* user_data = nullptr;
};

Sink& TheSink() {
    static Sink* sink = new Sink;  // never destroyed: threads may log during process exit
    return *sink;
}
std::atomic<bool> g_hasSink{false};

// Removes ANSI colour sequences ("\033[...m") for a reader that is not a terminal.
std::string StripColour(const std::string& in) {
    std::string out;
    out.reserve(in.size());
    for (size_t i = 0; i < in.size(); ++i) {
        if (in[i] == '\033' && i + 1 < in.size() && in[i + 1] == '[') {
            size_t j = i + 2;
            while (j < in.size() && in[j] != 'm') ++j;
            i = j;
            continue;
        }
        out.push_back(in[i]);
    }
    return out;
}

const char* PriorityLetter(int prio) {
    switch (prio) {
        case DLOG_DEBUG: return "D";
        case DLOG_INFO: return "I";
        case DLOG_WARN: return "W";
        case DLOG_ERROR: return "E";
        default: return "V";
    }
}

}  // namespace

extern "C" void dlog_set_sink(dlog_sink_fn sink, void* user_data) {
    Sink& s = TheSink();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.fn = sink;
    s.user_data = user_data;
    g_hasSink.store(sink != nullptr);
}

extern "C" void dlog_set_stderr_level(int prio) { StderrLevel().store(prio); }

extern "C" int __dlog_print(int log_id, int prio, const char* tag, const char* fmt, ...) {
    (void)log_id;
    const bool toStderr = prio >= StderrLevel().load(std::memory_order_relaxed);
    const bool toSink = g_hasSink.load(std::memory_order_acquire);
    if (!toStderr && !toSink) return 0;

    char stackBuf[1024];
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    int needed = std::vsnprintf(stackBuf, sizeof(stackBuf), fmt, args);
    va_end(args);
    std::string message;
    if (needed < 0) {
        va_end(copy);
        return -1;
    }
    if (static_cast<size_t>(needed) < sizeof(stackBuf)) {
        message.assign(stackBuf, static_cast<size_t>(needed));
    } else {
        message.resize(static_cast<size_t>(needed) + 1);
        std::vsnprintf(&message[0], message.size(), fmt, copy);
        message.resize(static_cast<size_t>(needed));
    }
    va_end(copy);
    if (tag == nullptr) tag = "";

    if (toSink) {
        Sink& s = TheSink();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.fn != nullptr) s.fn(prio, tag, message.c_str(), s.user_data);
    }
    if (toStderr) {
        static const bool colour = isatty(STDERR_FILENO) == 1;
        std::string line = std::string(PriorityLetter(prio)) + "/" + tag + ": " +
                           (colour ? message : StripColour(message));
        while (!line.empty() && line.back() == '\n') line.pop_back();
        line.push_back('\n');
        // One write per line so that lines of concurrent threads never interleave.
        ssize_t ignored = write(STDERR_FILENO, line.data(), line.size());
        (void)ignored;
    }
    return needed;
}
