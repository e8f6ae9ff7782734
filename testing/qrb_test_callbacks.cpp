#include "qrb_test_callbacks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>

namespace qrbtest {

namespace {
// Tag pointers point into a recorder's m_Tags; this registry maps them back.
std::mutex g_registryMutex;
std::map<const void*, CallbackRecorder*> g_registry;
constexpr int kTags = 65536;
}  // namespace

CallbackRecorder::CallbackRecorder() : m_Tags(kTags) {
    std::lock_guard<std::mutex> lock(g_registryMutex);
    g_registry[m_Tags.data()] = this;
}

CallbackRecorder::~CallbackRecorder() {
    std::lock_guard<std::mutex> lock(g_registryMutex);
    g_registry.erase(m_Tags.data());
}

void* CallbackRecorder::Tag(int i) {
    if (i < 0 || i >= kTags) throw std::out_of_range("tag");
    return &m_Tags[static_cast<size_t>(i)];
}

int CallbackRecorder::Callback(int status, _thumb_result* result, void* user_data) {
    CallbackRecorder* owner = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_registryMutex);
        auto it = g_registry.upper_bound(user_data);
        if (it != g_registry.begin()) {
            --it;
            const char* base = static_cast<const char*>(it->first);
            const char* p = static_cast<const char*>(user_data);
            if (p >= base && p < base + kTags) owner = it->second;
        }
    }
    if (owner != nullptr) {
        owner->m_Record(status, result, user_data);
    } else if (result != nullptr) {
        for (auto* buffer : result->pBuffer) free(buffer);
        free(result->buffer_preset);
    }
    return 0;
}

void CallbackRecorder::m_Record(int status, _thumb_result* result, void* user_data) {
    RecordedResult r;
    r.status = status;
    r.user_data = user_data;
    if (result != nullptr) {
        r.url.assign(result->szURL, strnlen(result->szURL, sizeof(result->szURL)));
        r.width = result->width;
        r.height = result->height;
        r.depth = result->depth;
        r.count = result->count;
        r.bBuffer = result->bBuffer;
        for (int i = 0; i < QRB_THUMB_MAX_IMAGES; ++i) {
            r.sizes.push_back(result->nBufSize[i]);
            r.timestamps.push_back(result->timestamp[i]);
            const char* bytes = reinterpret_cast<char*>(result->pBuffer[i]);
            r.buffers.push_back(bytes ? std::string(bytes, result->nBufSize[i]) : std::string());
            free(result->pBuffer[i]);
        }
        if (result->buffer_preset != nullptr)
            r.preset.assign(result->buffer_preset,
                            strnlen(result->buffer_preset, QRB_THUMB_PRESET_SIZE));
        free(result->buffer_preset);
    }
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Results.push_back(std::move(r));
    m_Cond.notify_all();
}

bool CallbackRecorder::WaitForCount(size_t n, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(m_Mutex);
    return m_Cond.wait_for(lock, timeout, [&] { return m_Results.size() >= n; });
}

size_t CallbackRecorder::Count() const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Results.size();
}

std::vector<RecordedResult> CallbackRecorder::Results() const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Results;
}

std::map<void*, int> CallbackRecorder::PerUser() const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    std::map<void*, int> counts;
    for (const auto& r : m_Results) counts[r.user_data]++;
    return counts;
}

RecordedResult CallbackRecorder::One(int i) const {
    std::vector<RecordedResult> found = Results();
    const void* tag = &m_Tags.at(static_cast<size_t>(i));
    found.erase(std::remove_if(found.begin(), found.end(),
                               [&](const RecordedResult& r) { return r.user_data != tag; }),
                found.end());
    EXPECT_EQ(found.size(), 1u) << "request " << i;
    if (found.size() == 1) return found[0];
    RecordedResult none;
    none.status = -99;
    none.buffers.resize(QRB_THUMB_MAX_IMAGES);
    none.sizes.resize(QRB_THUMB_MAX_IMAGES);
    none.timestamps.resize(QRB_THUMB_MAX_IMAGES);
    return none;
}

RecordedResult CallbackRecorder::Request(const std::string& url, qrb_item_media_type media,
                                         qrb_extend_dev_type dev, int width, int height,
                                         int useCache, int frames) {
    const int i = m_NextRequestTag++;
    void* tag = Tag(i);
    thumbnail_request_async(url.c_str(), media, dev, 0, width, height, useCache, frames,
                            &CallbackRecorder::Callback, tag);
    {  // a liveness bound only (sanitizer builds are slow): a hang fails instead of stalling
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Cond.wait_for(lock, std::chrono::seconds(30), [&] {
            return std::any_of(m_Results.begin(), m_Results.end(),
                               [&](const RecordedResult& r) { return r.user_data == tag; });
        });
    }
    SCOPED_TRACE(url);
    return One(i);
}

}  // namespace qrbtest
