// CQRBUtil: stateless helpers shared by the service — whole-file reading and writing under
// POSIX record locks, moving a shared-memory blob to a file, path and string helpers, the
// wall clock in milliseconds, and the platform's settings store and system information.
// Argument errors on paths are assertions that stop the process in every build type
// (qrb_assert.h); I/O errors are logged and answered false.
#ifndef QRB_COMMON_UTIL_H
#define QRB_COMMON_UTIL_H

#include <string>

class CQRBUtil {
public:
    static long long GetCurrentSystemTime();
    static bool IsFileExist(const char* path);
    static bool RemoveFile(const char* path);
    // Makes every missing folder along dir (the last one too, with or without a trailing '/'),
    // each with mode; with exactMode the umask's narrowing is undone by chmod. A folder that
    // another thread makes at the same moment counts as made. Returns nullptr, or the name of
    // the call that failed ("mkdir" or "chmod") for the caller's own log line.
    static const char* MakeDirs(const std::string& dir, unsigned mode, bool exactMode);

    static int m_LockReg(int fd, int cmd, int type, long offset, int whence, long len);
    static int m_ReadLock(int fd, long offset, int whence, long len);
    static int m_WriteLock(int fd, long offset, int whence, long len);

    static bool SaveAsFile(const char* data, long long size, const std::string& path);
    // *data is allocated with new[]; the caller deletes it.
    static bool ReadFile(const std::string& path, char** data, long long& size);
    static bool ReadFile(const std::string& path, std::string& content);
    // Moves a blob (a 32-bit length, then that many bytes) from the shared-memory object
    // shmName to a new file at path, and unlinks the object. A blob shorter than its length
    // stops the process: nothing is written that was not read.
    static bool WriteFile(const char* shmName, const char* path);

    static bool GetVConfigValueInt(const char* key, int* value);
    static bool SetVConfigValueInt(const char* key, int value);
    static bool IsSupportFamilyTv();

    static std::string GetFileExtension(const char* path);
    static std::string GetFileName(const char* path);
    static std::string GetFileNameWithoutExt(const char* path);

    // Replace *dst by a fresh copy of src: new[] (AssignValue) or malloc (AssignValueByCStyle).
    // The previous string is released the same way it was made.
    static void AssignValue(char** dst, const char* src);
    static void AssignValueByCStyle(char** dst, const char* src);

    // Splits "1.5,2;3 4" (separators ",", ";", space, tab) into at most *count doubles;
    // *count is the capacity on entry and the number parsed on return.
    static bool SplitToDouble(char* text, double* values, int* count);

    static std::string int2str(int value);
    static std::string long2str(long value);
    static std::string double2str(double value);
    static std::string CharToString(const char* text);
    // ASCII letters in lower case; other bytes (UTF-8 included) as they are.
    static std::string ToLower(std::string text);

    static std::string GetUUID();
};

#endif
