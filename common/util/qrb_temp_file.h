// A file the library writes for a moment: a cover or a download handed to the picture decoder,
// a camera's picture, a video's side file before it takes its final name.
//
// The file is created exclusively (O_CREAT | O_EXCL | O_NOFOLLOW, mode 0600): whatever stands at
// the name already (a file, a link planted at a predictable name, a FIFO) is never opened,
// followed or changed. A taken name is passed over for the next one the caller's namer gives;
// any other failure ends the attempt. The file is removed when the object goes, unless it was
// kept or renamed to its final name.
#ifndef QRB_COMMON_TEMP_FILE_H
#define QRB_COMMON_TEMP_FILE_H

#include <cstddef>
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

    // Writes all of data, retrying short writes and interruptions. False (Error() set) on a
    // write error, a full disk included; the file stays until removed.
    bool Write(const void* data, size_t size);
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

#endif
