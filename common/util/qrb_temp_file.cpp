#include "qrb_temp_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

QRBTempFile::~QRBTempFile() {
    if (m_Kept) {
        Close();
        return;
    }
    Remove();
}

bool QRBTempFile::m_Fail() {
    m_Error = errno != 0 ? errno : EIO;
    return false;
}

bool QRBTempFile::Create(const std::function<std::string()>& nextName, int attempts) {
    Remove();
    m_Kept = false;
    m_Error = 0;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        const std::string path = nextName();
        const int fd =
            open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd >= 0) {
            m_Fd = fd;
            m_Path = path;
            return true;
        }
        // Only a taken name is worth another try; any other failure would repeat.
        if (errno != EEXIST) break;
    }
    return m_Fail();
}

bool QRBTempFile::CreateAt(const std::string& path) {
    return Create([&path] { return path; }, 1);
}

bool QRBTempFile::Write(const void* data, size_t size) {
    if (m_Fd < 0) {
        errno = EBADF;
        return m_Fail();
    }
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = write(m_Fd, bytes, size);
        if (written < 0) {
            if (errno == EINTR) continue;
            return m_Fail();
        }
        bytes += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

bool QRBTempFile::Close() {
    if (m_Fd < 0) return true;
    const int fd = m_Fd;
    m_Fd = -1;
    return close(fd) == 0 || m_Fail();
}

bool QRBTempFile::WriteWhole(const std::function<std::string()>& nextName, const void* data,
                             size_t size) {
    if (Create(nextName) && Write(data, size) && Close()) return true;
    const int error = m_Error;
    Remove();
    m_Error = error;
    return false;
}

bool QRBTempFile::RenameTo(const std::string& path) {
    if (m_Path.empty() || !Close()) return false;
    if (std::rename(m_Path.c_str(), path.c_str()) != 0) return m_Fail();
    m_Path = path;
    m_Kept = true;
    return true;
}

void QRBTempFile::Remove() {
    Close();
    if (!m_Path.empty()) unlink(m_Path.c_str());
    m_Path.clear();
    m_Kept = false;
}
