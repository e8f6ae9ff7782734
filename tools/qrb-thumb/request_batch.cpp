#include "request_batch.h"

namespace qrbthumb {

RequestBatch::RequestBatch(size_t inputs) : m_Slots(new Slot[inputs]), m_Count(inputs) {
    for (size_t i = 0; i < inputs; ++i) m_Slots[i].owner = this;
}

void RequestBatch::Post(size_t index, const std::string& url, Route route,
                        const RequestParams& params) {
    if (index >= m_Count) return;
    Slot* slot = &m_Slots[index];
    {
        // Recorded before the call: the answer may arrive before thumbnail_request_* returns.
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (slot->posted) return;
        slot->posted = true;
        slot->postedAt = std::chrono::steady_clock::now();
    }
    auto post = params.encoded ? thumbnail_request_http_buffer_async : thumbnail_request_async;
    post(url.c_str(), route.media, route.dev, 0, params.width, params.height,
         params.useCache ? 1 : 0, static_cast<unsigned char>(params.frames),
         &RequestBatch::Callback, slot);
}

int RequestBatch::Callback(int status, _thumb_result* result, void* user_data) {
    if (result == nullptr) return 0;
    // Owned from here on, so that every path below frees them.
    LibraryBuffer buffers[QRB_THUMB_MAX_IMAGES];
    for (int i = 0; i < QRB_THUMB_MAX_IMAGES; ++i) buffers[i].reset(result->pBuffer[i]);
    LibraryBuffer preset(reinterpret_cast<unsigned char*>(result->buffer_preset));
    Slot* slot = static_cast<Slot*>(user_data);
    if (slot == nullptr || slot->owner == nullptr) return 0;
    // No exception may unwind into the library's worker.
    try {
        slot->owner->m_Deliver(slot, status, result, buffers);
    } catch (...) {
    }
    return 0;
}

void RequestBatch::m_Deliver(Slot* slot, int status, _thumb_result* result,
                             LibraryBuffer* buffers) {
    // Read here, on the library's thread, inside the callback: the only place it is valid. A
    // success without images (a video that gave no frame) has a reason too.
    const bool empty = status == 0 && result->count == 0;
    const char* reason = status != 0 || empty ? thumbnail_failure_reason() : nullptr;
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (m_Closed || !slot->posted || slot->givenUp || slot->answer.answered) return;
    Answer& answer = slot->answer;
    answer.answered = true;
    answer.status = status;
    answer.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - slot->postedAt);
    if (reason != nullptr) answer.reason = reason;
    if (status == 0) {
        answer.encoded = result->bBuffer != 0;
        answer.width = result->width;
        answer.height = result->height;
        for (int i = 0; i < QRB_THUMB_MAX_IMAGES; ++i) {
            if (!buffers[i]) continue;
            DeliveredImage image;
            image.size = result->nBufSize[i] > 0 ? static_cast<size_t>(result->nBufSize[i]) : 0;
            image.timestamp = result->timestamp[i];
            image.slot = i;
            image.bytes = std::move(buffers[i]);
            answer.images.push_back(std::move(image));
        }
    }
    m_Arrived.push_back(static_cast<size_t>(slot - m_Slots.get()));
    m_Cond.notify_all();
}

bool RequestBatch::NextAnswer(std::chrono::steady_clock::time_point until, size_t* index) {
    std::unique_lock<std::mutex> lock(m_Mutex);
    if (!m_Cond.wait_until(lock, until, [&] { return !m_Arrived.empty(); })) return false;
    *index = m_Arrived.front();
    m_Arrived.pop_front();
    return true;
}

std::vector<size_t> RequestBatch::GiveUp(std::chrono::steady_clock::time_point postedBefore) {
    std::vector<size_t> given;
    std::lock_guard<std::mutex> lock(m_Mutex);
    const auto now = std::chrono::steady_clock::now();
    for (size_t i = 0; i < m_Count; ++i) {
        Slot& slot = m_Slots[i];
        if (!slot.posted || slot.givenUp || slot.answer.answered) continue;
        if (slot.postedAt >= postedBefore) continue;
        slot.givenUp = true;
        slot.answer.elapsed =
            std::chrono::duration_cast<std::chrono::milliseconds>(now - slot.postedAt);
        given.push_back(i);
    }
    return given;
}

void RequestBatch::Close() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Closed = true;
}

Answer RequestBatch::Take(size_t index) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (index >= m_Count) return Answer();
    return std::move(m_Slots[index].answer);
}

}  // namespace qrbthumb
