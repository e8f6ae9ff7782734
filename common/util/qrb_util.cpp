#define QRB_LOG_TAG "QRB-COMMON"
#include "qrb_util.h"

#include "qrb_assert.h"
#include "qrb_log.h"
#include "system_info.h"
#include "vconf.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

long long CQRBUtil::GetCurrentSystemTime() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<long long>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}

bool CQRBUtil::IsFileExist(const char* path) {
    QRB_ASSERT(path != nullptr);
    return access(path, R_OK) == 0;
}

const char* CQRBUtil::MakeDirs(const std::string& dir, unsigned mode, bool exactMode) {
    for (size_t i = 1; i <= dir.size(); ++i) {
        if (i < dir.size() && dir[i] != '/') continue;
        if (dir[i - 1] == '/') continue;  // "a//b" and a trailing '/' name no new folder
        const std::string prefix = dir.substr(0, i);
        struct stat st;
        if (stat(prefix.c_str(), &st) == 0) continue;
        if (mkdir(prefix.c_str(), static_cast<mode_t>(mode)) != 0) {
            if (errno == EEXIST) continue;
            return "mkdir";
        }
        if (exactMode && chmod(prefix.c_str(), static_cast<mode_t>(mode)) != 0) return "chmod";
    }
    return nullptr;
}

bool CQRBUtil::RemoveFile(const char* path) {
    QRB_ASSERT(path != nullptr);
    if (remove(path) != 0) {
        QRB_LOGW("CQRBUtil: remove [%s] failed.", path);
        return false;
    }
    return true;
}

int CQRBUtil::m_LockReg(int fd, int cmd, int type, long offset, int whence, long len) {
    struct flock lock;
    std::memset(&lock, 0, sizeof(lock));
    lock.l_type = static_cast<short>(type);
    lock.l_whence = static_cast<short>(whence);
    lock.l_start = offset;
    lock.l_len = len;
    return fcntl(fd, cmd, &lock);
}

int CQRBUtil::m_ReadLock(int fd, long offset, int whence, long len) {
    return m_LockReg(fd, F_SETLK, F_RDLCK, offset, whence, len);
}

int CQRBUtil::m_WriteLock(int fd, long offset, int whence, long len) {
    return m_LockReg(fd, F_SETLK, F_WRLCK, offset, whence, len);
}

bool CQRBUtil::SaveAsFile(const char* data, long long size, const std::string& path) {
    // The content is replaced in place (no rename) under a write lock; O_TRUNC is deferred
    // until the lock is held so that a locked-out writer does not empty the file.
    int fd = open64(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0777);
    if (fd < 0) {
        QRB_LOGW("FAILED TO OPEN FILE, %s, %d", path.c_str(), errno);
        return false;
    }
    if (m_WriteLock(fd, 0, SEEK_SET, 0) < 0) {
        QRB_LOGW("FAILED TO mWriteLock %s, %d", path.c_str(), errno);
        close(fd);
        return false;
    }
    if (ftruncate64(fd, 0) != 0) {
        QRB_LOGW("FAILED TO OPEN FILE, %s, %d", path.c_str(), errno);
        close(fd);
        return false;
    }
    const char* p = data;
    long long remaining = (data != nullptr) ? size : 0;
    while (remaining >= 1) {
        ssize_t n = write(fd, p, static_cast<size_t>(remaining));
        if (n <= 0) break;
        p += n;
        remaining -= n;
    }
    bool ok = remaining < 1;
    if (!ok) QRB_LOGW("FAILED TO WRITE FILE, %s, %lld", path.c_str(), remaining);
    if (fsync(fd) != 0) {
        QRB_LOGW("CQRBUtil::SaveAsFile : fsync() failed errno == %d\n.", errno);
    }
    close(fd);
    return ok;
}

bool CQRBUtil::ReadFile(const std::string& path, char** data, long long& size) {
    if (data == nullptr) return false;
    *data = nullptr;
    size = 0;
    int fd = open64(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        QRB_LOGW("FAILED TO open %s, %d", path.c_str(), errno);
        return false;
    }
    if (m_ReadLock(fd, 0, SEEK_SET, 0) < 0) {
        QRB_LOGW("FAILED TO mReadLock %s, %d", path.c_str(), errno);
        close(fd);
        return false;
    }
    long long fileSize = lseek64(fd, 0, SEEK_END);
    lseek64(fd, 0, SEEK_SET);
    QRB_LOGD("UUID file size is %lld", fileSize);
    if (fileSize < 1) {
        close(fd);
        return false;
    }
    char* buffer = new (std::nothrow) char[static_cast<size_t>(fileSize)];
    if (buffer == nullptr) {
        QRB_LOGW("FAILED TO ALLOC MEMORY! %lld", fileSize);
        close(fd);
        return false;
    }
    ssize_t n = read(fd, buffer, static_cast<size_t>(fileSize));
    close(fd);
    if (n < 1) {
        QRB_LOGW("FAILED TO READ FILE, %lld", fileSize);
        delete[] buffer;
        return false;
    }
    *data = buffer;
    size = n;
    return true;
}

bool CQRBUtil::ReadFile(const std::string& path, std::string& content) {
    char* data = nullptr;
    long long size = 0;
    if (!ReadFile(path, &data, size)) return false;
    std::unique_ptr<char[]> owner(data);
    content.assign(data, static_cast<size_t>(size));
    return true;
}

bool CQRBUtil::WriteFile(const char* shmName, const char* path) {
    QRB_ASSERT(shmName != nullptr && path != nullptr);
    int fd = shm_open(shmName, O_RDONLY, 0766);
    if (fd < 0) {
        QRB_LOGW("CQRBUtil: shm_open [%s] failed.", shmName);
        return false;
    }
    struct stat st;
    const bool measured = fstat(fd, &st) == 0;
    FILE* stream = fdopen(fd, "r");
    if (stream == nullptr) {
        QRB_LOGW("CQRBUtil: fdopen [%d] failed.", fd);
        close(fd);
        return false;
    }
    // A blob shorter than its length word says is a broken contract with the writer: the
    // process stops rather than write bytes that were never read.
    uint32_t length = 0;
    const size_t gotLength = fread(&length, sizeof(length), 1, stream);
    QRB_ASSERT(gotLength == 1);
    // A length beyond the object's own size can only end in a short read: it stops here, before
    // that much memory is asked for.
    QRB_ASSERT(!measured ||
               static_cast<long long>(length) <=
                   static_cast<long long>(st.st_size) - static_cast<long long>(sizeof(length)));
    std::unique_ptr<char[]> content;
    if (length > 0) {
        content.reset(new (std::nothrow) char[length]);
        QRB_ASSERT(content != nullptr);
        const size_t got = fread(content.get(), 1, length, stream);
        QRB_ASSERT(got == length);
    }
    if (fclose(stream) != 0) QRB_LOGW("CQRBUtil: fclose [%s] failed.", shmName);
    if (shm_unlink(shmName) != 0) QRB_LOGW("CQRBUtil: shm_unlink [%s] failed.", shmName);
    if (length == 0) return false;

    FILE* out = fopen(path, "wb");
    if (out == nullptr) {
        QRB_LOGW("CQRBUtil: fopen [%s] failed.", path);
        return false;
    }
    if (fwrite(content.get(), 1, length, out) != length) {
        QRB_LOGW("CQRBUtil: fwrite failed.");
        fclose(out);
        remove(path);
        return false;
    }
    fflush(out);
    fclose(out);
    return true;
}

bool CQRBUtil::GetVConfigValueInt(const char* key, int* value) {
    if (key == nullptr || value == nullptr) {
        QRB_LOGW("Arguments key or value is NULL");
        return false;
    }
    int rc = vconf_get_int(key, value);
    if (rc != VCONF_OK) {
        QRB_LOGW("Unexpected error code: %d", rc);
        return false;
    }
    return true;
}

bool CQRBUtil::SetVConfigValueInt(const char* key, int value) {
    if (key == nullptr) {
        QRB_LOGW("Arguments key or value is NULL");
        return false;
    }
    int rc = vconf_set_int(key, value);
    if (rc != VCONF_OK) {
        QRB_LOGW("Unexpected error code: %d", rc);
        return false;
    }
    return true;
}

bool CQRBUtil::IsSupportFamilyTv() {
    bool supported = false;
    if (system_info_get_value_bool(SYSTEM_INFO_KEY_FAMILY_TV, &supported) !=
        SYSTEM_INFO_ERROR_NONE) {
        QRB_LOGW("Get familytv Support failed");
        return false;
    }
    QRB_LOGD("FamilyTv Support : [%d]", supported ? 1 : 0);
    return supported;
}

std::string CQRBUtil::GetFileExtension(const char* path) {
    if (path == nullptr) {
        QRB_LOGW("szPath == NULL");
        return std::string();
    }
    const char* dot = std::strrchr(path, '.');
    return dot ? std::string(dot + 1) : std::string();
}

std::string CQRBUtil::GetFileName(const char* path) {
    if (path == nullptr) {
        QRB_LOGW("szPath == NULL");
        return std::string();
    }
    const char* slash = std::strrchr(path, '/');
    return slash ? std::string(slash + 1) : std::string(path);
}

std::string CQRBUtil::GetFileNameWithoutExt(const char* path) {
    if (path == nullptr) {
        QRB_LOGW("szPath == NULL");
        return std::string();
    }
    std::string name = GetFileName(path);
    size_t dot = name.rfind('.');
    return dot == std::string::npos ? name : name.substr(0, dot);
}

void CQRBUtil::AssignValue(char** dst, const char* src) {
    QRB_ASSERT(dst != nullptr);
    delete[] *dst;
    *dst = nullptr;
    if (src == nullptr) return;
    size_t n = std::strlen(src) + 1;
    *dst = new char[n];
    std::memcpy(*dst, src, n);
}

void CQRBUtil::AssignValueByCStyle(char** dst, const char* src) {
    QRB_ASSERT(dst != nullptr);
    free(*dst);
    *dst = nullptr;
    if (src == nullptr) return;
    *dst = strdup(src);
}

bool CQRBUtil::SplitToDouble(char* text, double* values, int* count) {
    if (text == nullptr || values == nullptr || count == nullptr || *count < 0) return false;
    const int capacity = *count;
    int n = 0;
    char* save = nullptr;
    for (char* tok = strtok_r(text, ",; \t", &save); tok != nullptr && n < capacity;
         tok = strtok_r(nullptr, ",; \t", &save)) {
        char* end = nullptr;
        double v = std::strtod(tok, &end);
        if (end == tok) continue;
        values[n++] = v;
    }
    *count = n;
    return true;
}

std::string CQRBUtil::int2str(int value) { return std::to_string(value); }
std::string CQRBUtil::long2str(long value) { return std::to_string(value); }

std::string CQRBUtil::double2str(double value) {
    char buf[64];
    std::snprintf(buf, sizeof(buf), "%g", value);
    return buf;
}

std::string CQRBUtil::ToLower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string CQRBUtil::CharToString(const char* text) { return text ? std::string(text) : std::string(); }

std::string CQRBUtil::GetUUID() {
    // Seeded from /dev/urandom by Boost; one generator per call keeps this thread-safe.
    boost::uuids::random_generator generator;
    return boost::uuids::to_string(generator());
}
