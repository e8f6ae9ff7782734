// Records the callbacks of the C interface: status, URL, images (copied, then the library's
// buffers are freed as an application must), per user pointer; tests wait on the count.
#ifndef QRB_TESTING_CALLBACKS_H
#define QRB_TESTING_CALLBACKS_H

#include "qrb_thumbnail.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace qrbtest {

struct RecordedResult {
    int status = 0;
    void* user_data = nullptr;
    std::string url;
    int width = 0, height = 0, depth = 0, count = 0, bBuffer = 0;
    std::vector<std::string> buffers;  // one per slot; empty for a null slot
    std::vector<int> sizes;
    std::vector<long long> timestamps;
    std::string preset;  // empty when buffer_preset was null
};

class CallbackRecorder {
public:
    CallbackRecorder();
    ~CallbackRecorder();
    // The callback to hand the library with user_data Tag(i), a distinct pointer per i.
    static int Callback(int status, _thumb_result* result, void* user_data);
    void* Tag(int i);

    bool WaitForCount(size_t n, std::chrono::milliseconds timeout) const;
    size_t Count() const;
    std::vector<RecordedResult> Results() const;
    std::map<void*, int> PerUser() const;  // callbacks per user pointer
    // The one result for Tag(i); else a test failure and status -99 with empty slots.
    RecordedResult One(int i) const;

    // One request through thumbnail_request_async, waited for: its one result (else a failure).
    RecordedResult Request(const std::string& url, qrb_item_media_type media,
                           qrb_extend_dev_type dev, int width, int height, int useCache = 0,
                           int frames = 1);

private:
    void m_Record(int status, _thumb_result* result, void* user_data);
    mutable std::mutex m_Mutex;
    mutable std::condition_variable m_Cond;
    std::vector<RecordedResult> m_Results;
    std::vector<char> m_Tags;
    int m_NextRequestTag = 60000;  // Request's tags, above those tests pick themselves
};

}  // namespace qrbtest

#endif
