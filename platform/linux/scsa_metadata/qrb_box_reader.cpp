#include "qrb_box_reader.h"

#include "qrb_byte_order.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

QRBScopedFd::~QRBScopedFd() {
    if (m_Fd >= 0) close(m_Fd);
}

QRBScopedFd& QRBScopedFd::operator=(QRBScopedFd&& other) noexcept {
    if (this != &other) {
        if (m_Fd >= 0) close(m_Fd);
        m_Fd = other.Release();
    }
    return *this;
}

bool QRBMemoryByteSource::ReadAt(uint64_t offset, void* out, size_t n) const {
    if (offset > m_Size || n > m_Size - offset) return false;
    if (n > 0) std::memcpy(out, m_pData + offset, n);
    return true;
}

std::unique_ptr<QRBFileByteSource> QRBFileByteSource::Open(const std::string& path) {
    // O_NONBLOCK: a FIFO planted under a package's name must not hang the worker in open().
    QRBScopedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.Valid()) return nullptr;
    return FromFd(std::move(fd));
}

std::unique_ptr<QRBFileByteSource> QRBFileByteSource::FromFd(QRBScopedFd fd) {
    struct stat st;
    if (!fd.Valid() || fstat(fd.Get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < 0) {
        return nullptr;
    }
    return std::unique_ptr<QRBFileByteSource>(
        new QRBFileByteSource(std::move(fd), static_cast<uint64_t>(st.st_size)));
}

bool QRBFileByteSource::Identity(struct stat* st) const { return fstat(m_Fd.Get(), st) == 0; }

bool QRBFileByteSource::ReadAt(uint64_t offset, void* out, size_t n) const {
    if (offset > m_Size || n > m_Size - offset) return false;
    auto* at = static_cast<uint8_t*>(out);
    while (n > 0) {
        const ssize_t got = pread(m_Fd.Get(), at, n, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;  // the file shrank, or an I/O error
        at += got;
        offset += static_cast<uint64_t>(got);
        n -= static_cast<size_t>(got);
    }
    return true;
}

bool QRBReadBoxHeader(const QRBByteSource& source, uint64_t offset, uint64_t limit,
                      QRBBoxHeader* box) {
    if (limit > source.Size()) limit = source.Size();
    if (offset > limit || limit - offset < 8) return false;
    uint8_t head[8];
    if (!source.ReadAt(offset, head, sizeof(head))) return false;
    const uint64_t room = limit - offset;
    uint64_t size = QRBReadBE32(head);
    uint64_t headerSize = 8;
    if (size == 1) {
        uint8_t large[8];
        if (room < 16 || !source.ReadAt(offset + 8, large, sizeof(large))) return false;
        size = QRBReadBE64(large);
        headerSize = 16;
    } else if (size == 0) {
        size = room;
    }
    box->type = QRBReadBE32(head + 4);
    if (box->type == QRBFourCC("uuid")) headerSize += 16;
    // Compared with the room left rather than summed with the offset, so that no declared size
    // can wrap an offset around to an earlier position.
    if (size < headerSize || size > room) return false;
    box->offset = offset;
    box->payload = offset + headerSize;
    box->end = offset + size;
    return true;
}

bool QRBByteCursor::m_Take(size_t n, const uint8_t** at) {
    if (m_bFailed || n > m_Size - m_Pos) {
        m_bFailed = true;
        return false;
    }
    *at = m_pData + m_Pos;
    m_Pos += n;
    return true;
}

bool QRBByteCursor::U8(uint8_t* value) {
    const uint8_t* p = nullptr;
    if (!m_Take(1, &p)) return false;
    *value = p[0];
    return true;
}

bool QRBByteCursor::U16(uint16_t* value) {
    const uint8_t* p = nullptr;
    if (!m_Take(2, &p)) return false;
    *value = QRBReadBE16(p);
    return true;
}

bool QRBByteCursor::U32(uint32_t* value) {
    const uint8_t* p = nullptr;
    if (!m_Take(4, &p)) return false;
    *value = QRBReadBE32(p);
    return true;
}

bool QRBByteCursor::Number(unsigned bytes, uint64_t* value) {
    const uint8_t* p = nullptr;
    switch (bytes) {
        case 0:
            *value = 0;
            return !m_bFailed;
        case 2:
            if (!m_Take(2, &p)) return false;
            *value = QRBReadBE16(p);
            return true;
        case 4:
            if (!m_Take(4, &p)) return false;
            *value = QRBReadBE32(p);
            return true;
        case 8:
            if (!m_Take(8, &p)) return false;
            *value = QRBReadBE64(p);
            return true;
        default:
            m_bFailed = true;
            return false;
    }
}

bool QRBByteCursor::Skip(uint64_t n) {
    if (m_bFailed || n > m_Size - m_Pos) {
        m_bFailed = true;
        return false;
    }
    m_Pos += static_cast<size_t>(n);
    return true;
}

bool QRBByteCursor::CString(std::string* text) {
    if (m_bFailed) return false;
    const size_t left = m_Size - m_Pos;
    if (left == 0) {
        text->clear();
        return true;
    }
    const uint8_t* start = m_pData + m_Pos;
    const void* nul = std::memchr(start, 0, left);
    const size_t length =
        nul ? static_cast<size_t>(static_cast<const uint8_t*>(nul) - start) : left;
    text->assign(reinterpret_cast<const char*>(start), length);
    m_Pos += nul ? length + 1 : length;
    return true;
}
