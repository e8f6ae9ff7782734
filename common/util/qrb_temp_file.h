// A file the library writes for a moment: a cover or a download handed to the picture decoder,
// a camera's picture, a video's side file before it takes its final name.
//
// The file is created exclusively (O_CREAT | O_EXCL | O_NOFOLLOW, mode 0600): whatever stands at
// the name already (a file, a link planted at a predictable name, a FIFO) is never opened,
// followed or changed. A taken name is passed over for the next one the caller's namer gives;
// any other failure ends the attempt. The file is removed when the object goes, unless it was
// kept or renamed to its final name. Header-only, so that the platform services (beneath the
// utilities library) use it too.
#ifndef QRB_COMMON_TEMP_FILE_H
#define QRB_COMMON_TEMP_FILE_H

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <string>

class QRBTempFile {
public:
    // How many names Create tries before it gives up on taken names.
    static constexpr int kNameAttempts = 8;

    QRBTempFile() = default;
    ~QRBTempFile();
    QRBTempFile(const QRBTempFile&) = delete;
    QRBTempFile& operator=(const QRBTempFile&) = delete;

    // Creates the file under the first name from nextName that is not taken. The namer is
    // called once per attempt (it usually advances a counter). False, with Error() set and no
    // file, when every name was taken or the folder refused.
    bool Create(const std::function<std::string()>& nextName, int attempts = kNameAttempts);
    // Create at one fixed name: a taken name is a failure (EEXIST).
    bool CreateAt(const std::string& path);
    // Create beside dest, as "<dest>.part<pid>-<n>", for a file that is renamed to dest once
    // complete.
    bool CreateBeside(const std::string& dest);

    // Writes all of data, retrying short writes and interruptions. False (Error() set) on a
    // write error, a full disk included; the file stays until removed.
    bool Write(const void* data, size_t size);
    // Flushes the file to the disk (before a rename that must not leave an empty file behind
    // after a power cut).
    bool Sync();
    // Closes the descriptor; false when the close reports lost data.
    bool Close();

    // Create, Write and Close in one: the usual way to put a buffer into a file.
    bool WriteWhole(const std::function<std::string()>& nextName, const void* data, size_t size);

    // Renames the closed file to path (same folder, replacing what is there) and keeps it.
    bool RenameTo(const std::string& path);
    // Leaves the file in place when the object goes.
    void Keep() { m_Kept = true; }
    // Closes and removes the file now, kept or not; harmless when there is none.
    void Remove();

    const std::string& Path() const { return m_Path; }
    int Fd() const { return m_Fd; }
    // errno of the last failure, 0 when there was none.
    int Error() const { return m_Error; }

private:
    bool m_Fail();

    std::string m_Path;
    int m_Fd = -1;
    int m_Error = 0;
    bool m_Kept = false;
};

inline QRBTempFile::~QRBTempFile() {
    if (m_Kept) {
        Close();
        return;
    }
    Remove();
}

inline bool QRBTempFile::m_Fail() {
    m_Error = errno != 0 ? errno : EIO;
    return false;
}

inline bool QRBTempFile::Create(const std::function<std::string()>& nextName, int attempts) {
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

inline bool QRBTempFile::CreateAt(const std::string& path) {
    return Create([&path] { return path; }, 1);
}

inline bool QRBTempFile::Write(const void* data, size_t size) {
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

inline bool QRBTempFile::Close() {
    if (m_Fd < 0) return true;
    const int fd = m_Fd;
    m_Fd = -1;
    return close(fd) == 0 || m_Fail();
}

inline bool QRBTempFile::WriteWhole(const std::function<std::string()>& nextName, const void* data,
                                    size_t size) {
    if (Create(nextName) && Write(data, size) && Close()) return true;
    const int error = m_Error;
    Remove();
    m_Error = error;
    return false;
}

inline bool QRBTempFile::RenameTo(const std::string& path) {
    if (m_Path.empty() || !Close()) return false;
    if (std::rename(m_Path.c_str(), path.c_str()) != 0) return m_Fail();
    m_Path = path;
    m_Kept = true;
    return true;
}

inline void QRBTempFile::Remove() {
    Close();
    if (!m_Path.empty()) unlink(m_Path.c_str());
    m_Path.clear();
    m_Kept = false;
}

inline bool QRBTempFile::CreateBeside(const std::string& dest) {
    static std::atomic<unsigned> counter{0};
    return Create([&dest] {
        return dest + ".part" + std::to_string(getpid()) + "-" + std::to_string(++counter);
    });
}

inline bool QRBTempFile::Sync() { return m_Fd >= 0 && (fsync(m_Fd) == 0 || m_Fail()); }

#endif
