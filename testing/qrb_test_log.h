// Captures every log message while alive (through the platform log's sink), so that tests can
// assert on the exact texts the library writes.
#ifndef QRB_TESTING_LOG_H
#define QRB_TESTING_LOG_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace qrbtest {

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    bool Contains(const std::string& text) const;
    int Count(const std::string& text) const;
    // Waits until a message containing text has been logged.
    bool WaitFor(const std::string& text, std::chrono::milliseconds timeout) const;
    std::vector<std::string> Lines() const;
    std::vector<std::string> Tags() const;
    void Clear();

private:
    static void Sink(int prio, const char* tag, const char* message, void* self);
    mutable std::mutex m_Mutex;
    mutable std::condition_variable m_Cond;
    std::vector<std::string> m_Lines;
    std::vector<std::string> m_Tags;
};

}  // namespace qrbtest

#endif
