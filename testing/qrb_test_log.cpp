#include "qrb_test_log.h"

#include "dlog_sink.h"

namespace qrbtest {

LogCapture::LogCapture() { dlog_set_sink(&LogCapture::Sink, this); }
LogCapture::~LogCapture() { dlog_set_sink(nullptr, nullptr); }

void LogCapture::Sink(int, const char* tag, const char* message, void* self) {
    auto* capture = static_cast<LogCapture*>(self);
    std::lock_guard<std::mutex> lock(capture->m_Mutex);
    capture->m_Lines.emplace_back(message);
    capture->m_Tags.emplace_back(tag);
    capture->m_Cond.notify_all();
}

bool LogCapture::Contains(const std::string& text) const { return Count(text) > 0; }

int LogCapture::Count(const std::string& text) const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    int n = 0;
    for (const auto& line : m_Lines) {
        if (line.find(text) != std::string::npos) ++n;
    }
    return n;
}

bool LogCapture::WaitFor(const std::string& text, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(m_Mutex);
    return m_Cond.wait_for(lock, timeout, [&] {
        for (const auto& line : m_Lines) {
            if (line.find(text) != std::string::npos) return true;
        }
        return false;
    });
}

std::vector<std::string> LogCapture::Lines() const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Lines;
}

std::vector<std::string> LogCapture::Tags() const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Tags;
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Lines.clear();
    m_Tags.clear();
}

}  // namespace qrbtest
