#include "image-decoder/qrb_jpeg_memory_budget.h"

#include <utility>

CQRBJpegMemoryBudget::Grant::Grant(Grant&& other) noexcept
    : m_pBudget(std::exchange(other.m_pBudget, nullptr)),
      m_uBytes(std::exchange(other.m_uBytes, 0)) {}

CQRBJpegMemoryBudget::Grant& CQRBJpegMemoryBudget::Grant::operator=(Grant&& other) noexcept {
    if (this != &other) {
        Release();
        m_pBudget = std::exchange(other.m_pBudget, nullptr);
        m_uBytes = std::exchange(other.m_uBytes, 0);
    }
    return *this;
}

CQRBJpegMemoryBudget::Grant::~Grant() { Release(); }

void CQRBJpegMemoryBudget::Grant::Release() {
    if (m_pBudget != nullptr) m_pBudget->Return(m_uBytes);
    m_pBudget = nullptr;
    m_uBytes = 0;
}

CQRBJpegMemoryBudget::Grant CQRBJpegMemoryBudget::Acquire(uint64_t bytes) {
    if (bytes > m_uCapacity) bytes = m_uCapacity;  // callers refuse more; never wait forever
    std::unique_lock<std::mutex> lock(m_Mutex);
    const uint64_t ticket = m_uNextTicket++;
    m_Changed.wait(lock, [&] { return ticket == m_uServing && m_uInUse + bytes <= m_uCapacity; });
    m_uInUse += bytes;
    ++m_uServing;
    // The next in line may fit beside this one.
    m_Changed.notify_all();
    return Grant(this, bytes);
}

void CQRBJpegMemoryBudget::Return(uint64_t bytes) {
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_uInUse -= bytes;
    }
    m_Changed.notify_all();
}

uint64_t CQRBJpegMemoryBudget::InUse() const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_uInUse;
}

size_t CQRBJpegMemoryBudget::Waiting() const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return static_cast<size_t>(m_uNextTicket - m_uServing);
}

CQRBJpegMemoryBudget& QRBWholePictureBudget() {
    static CQRBJpegMemoryBudget budget(kQRBWholePictureBudgetBytes);
    return budget;
}
