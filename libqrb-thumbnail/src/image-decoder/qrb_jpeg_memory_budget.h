// Memory that JPEG decodes running at the same time may hold together. A progressive (or any
// multi-scan) JPEG makes libjpeg keep the coefficients of the whole picture, 2 bytes a sample
// whatever the DCT scale (a 50-megapixel 4:4:4 photo needs 288 MiB), so several workers
// decoding such pictures at once could together take more than a television has to spare.
// Each such decode asks the process-wide budget for its bytes before libjpeg allocates them and
// gives them back when it ends; one that does not fit waits until earlier ones have finished.
//
// Waiters are served in order of arrival, so that a large picture is never starved by a stream
// of small ones that would each fit. Nothing waits while the budget is unused: a decode larger
// than the whole budget is refused by its caller, never asked for. Thread-safe.
#ifndef QRB_JPEG_MEMORY_BUDGET_H
#define QRB_JPEG_MEMORY_BUDGET_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

class CQRBJpegMemoryBudget {
public:
    // Holds bytes of a budget from Acquire until it is destroyed (or moved from).
    class Grant {
    public:
        Grant() = default;
        Grant(Grant&& other) noexcept;
        Grant& operator=(Grant&& other) noexcept;
        ~Grant();
        Grant(const Grant&) = delete;
        Grant& operator=(const Grant&) = delete;
        uint64_t Bytes() const { return m_uBytes; }

    private:
        friend class CQRBJpegMemoryBudget;
        Grant(CQRBJpegMemoryBudget* budget, uint64_t bytes) : m_pBudget(budget), m_uBytes(bytes) {}
        void Release();
        CQRBJpegMemoryBudget* m_pBudget = nullptr;
        uint64_t m_uBytes = 0;
    };

    explicit CQRBJpegMemoryBudget(uint64_t capacity) : m_uCapacity(capacity) {}
    CQRBJpegMemoryBudget(const CQRBJpegMemoryBudget&) = delete;
    CQRBJpegMemoryBudget& operator=(const CQRBJpegMemoryBudget&) = delete;

    // Blocks until bytes (at most the capacity) fit beside what earlier callers hold.
    Grant Acquire(uint64_t bytes);

    uint64_t Capacity() const { return m_uCapacity; }
    uint64_t InUse() const;
    // Callers blocked in Acquire.
    size_t Waiting() const;

private:
    void Return(uint64_t bytes);

    const uint64_t m_uCapacity;
    mutable std::mutex m_Mutex;
    std::condition_variable m_Changed;
    uint64_t m_uInUse = 0;       // guarded by m_Mutex
    uint64_t m_uNextTicket = 0;  // guarded by m_Mutex: the next arrival's place
    uint64_t m_uServing = 0;     // guarded by m_Mutex: the place served next
};

// The one process-wide budget of whole-picture decodes, 384 MiB: the coefficients of multi-scan
// JPEGs and the decoded pictures of HEIF and AVIF files (which libheif decodes whole), so that
// several workers decoding large pictures at once never hold more together than one of the
// largest accepted pictures needs alone.
constexpr uint64_t kQRBWholePictureBudgetBytes = 384ull << 20;
CQRBJpegMemoryBudget& QRBWholePictureBudget();

#endif
