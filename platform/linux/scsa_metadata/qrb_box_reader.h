// The lowest layer of the package reader: random access to the package's bytes (a file or, for
// tests and fuzzing, memory), ISO base media box headers, and a bounds-checked big-endian cursor
// over box payloads held in memory.
//
// Nothing here trusts a declared size: every header is checked against the bytes that are
// there and against the box that encloses it, and every sum of offsets is checked for overflow.
#ifndef QRB_SCSA_BOX_READER_H
#define QRB_SCSA_BOX_READER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

struct stat;

// A file descriptor owned for one scope.
class QRBScopedFd {
public:
    explicit QRBScopedFd(int fd = -1) noexcept : m_Fd(fd) {}
    ~QRBScopedFd();
    QRBScopedFd(QRBScopedFd&& other) noexcept : m_Fd(other.Release()) {}
    QRBScopedFd& operator=(QRBScopedFd&& other) noexcept;
    QRBScopedFd(const QRBScopedFd&) = delete;
    QRBScopedFd& operator=(const QRBScopedFd&) = delete;

    int Get() const noexcept { return m_Fd; }
    bool Valid() const noexcept { return m_Fd >= 0; }
    int Release() noexcept {
        const int fd = m_Fd;
        m_Fd = -1;
        return fd;
    }

private:
    int m_Fd;
};

// Bytes that can be read at any offset. Implementations are read-only after construction, so
// one source may be read from several threads.
class QRBByteSource {
public:
    virtual ~QRBByteSource() = default;
    virtual uint64_t Size() const = 0;
    // Reads exactly n bytes at offset into out; false when they are not all there.
    virtual bool ReadAt(uint64_t offset, void* out, size_t n) const = 0;
};

// Bytes in memory that the caller keeps alive.
class QRBMemoryByteSource : public QRBByteSource {
public:
    QRBMemoryByteSource(const void* data, size_t size)
        : m_pData(static_cast<const uint8_t*>(data)), m_Size(size) {}
    uint64_t Size() const override { return m_Size; }
    bool ReadAt(uint64_t offset, void* out, size_t n) const override;

private:
    const uint8_t* m_pData;
    size_t m_Size;
};

// A regular file, read with pread. Its size is taken when it is opened.
class QRBFileByteSource : public QRBByteSource {
public:
    // Null when path cannot be opened or is not a regular file.
    static std::unique_ptr<QRBFileByteSource> Open(const std::string& path);
    // Takes fd; null (fd closed) when it is not a regular file.
    static std::unique_ptr<QRBFileByteSource> FromFd(QRBScopedFd fd);

    uint64_t Size() const override { return m_Size; }
    bool ReadAt(uint64_t offset, void* out, size_t n) const override;
    // fstat of the open file: which file was read, and its state.
    bool Identity(struct stat* st) const;

private:
    QRBFileByteSource(QRBScopedFd fd, uint64_t size) : m_Fd(std::move(fd)), m_Size(size) {}
    QRBScopedFd m_Fd;
    uint64_t m_Size;
};

// The four characters of a box type as one big-endian number.
constexpr uint32_t QRBFourCC(const char (&text)[5]) {
    return (uint32_t(uint8_t(text[0])) << 24) | (uint32_t(uint8_t(text[1])) << 16) |
           (uint32_t(uint8_t(text[2])) << 8) | uint32_t(uint8_t(text[3]));
}

struct QRBBoxHeader {
    uint32_t type = 0;
    uint64_t offset = 0;   // the box's first byte
    uint64_t payload = 0;  // the first byte after the header
    uint64_t end = 0;      // one past the box's last byte
};

// Reads the header of the box at offset, which must lie wholly before limit (the end of the
// enclosing box, or of the source). A 32-bit size of 1 means a 64-bit size follows; a size of 0
// means the box runs to limit; "uuid" boxes carry 16 more header bytes. False when the header
// is cut short, when the size is smaller than the header itself, or when the box would end
// past limit (overflowing sums included).
bool QRBReadBoxHeader(const QRBByteSource& source, uint64_t offset, uint64_t limit,
                      QRBBoxHeader* box);

// Reads big-endian numbers and strings from a buffer; once a read fails (the bytes are not
// there) every later read fails too, so a parser may check once after a group of reads.
class QRBByteCursor {
public:
    QRBByteCursor(const uint8_t* data, size_t size) : m_pData(data), m_Size(size) {}

    bool U8(uint8_t* value);
    bool U16(uint16_t* value);
    bool U32(uint32_t* value);
    // An unsigned number of 0, 2, 4 or 8 bytes (0 bytes reads nothing and gives 0).
    bool Number(unsigned bytes, uint64_t* value);
    bool Skip(uint64_t n);
    // Text up to a NUL (consumed) or to the end of the buffer.
    bool CString(std::string* text);

    size_t Position() const { return m_Pos; }
    size_t Remaining() const { return m_bFailed ? 0 : m_Size - m_Pos; }
    bool Failed() const { return m_bFailed; }

private:
    bool m_Take(size_t n, const uint8_t** at);
    const uint8_t* m_pData;
    size_t m_Size;
    size_t m_Pos = 0;
    bool m_bFailed = false;
};

#endif
