// A still-image camera on 127.0.0.1 speaking PTP over TCP (PTP/IP), so that the MTP client and
// everything above it run libgphoto2's real code path. Its content is a model in memory
// (storages, folders, files; a JPEG's thumbnail is its EXIF one); handles start at 0x10001,
// unlike the client's small ones. One thread per connection; the model and the faults may change
// while serving; Stop (and the destructor) joins every thread.
#ifndef QRB_TESTING_PTPIP_RESPONDER_H
#define QRB_TESTING_PTPIP_RESPONDER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qrbtest {

class PtpipResponder {
public:
    enum class ThumbFault {
        kNone,        // the EXIF thumbnail (NoThumbnailPresent for objects without one)
        kBrokenJpeg,  // a JPEG start marker followed by noise
        kLengthOver,  // the data phase declares nearly 4 GiB and sends the thumbnail
        kLengthUnder  // the data phase declares half the thumbnail and sends all of it
    };

    ~PtpipResponder() { Stop(); }

    // Storage ids are 0x00010001, 0x00020001, ...; parent 0 is a storage's root. Each Add
    // returns the new object's handle.
    uint32_t AddStorage(const std::string& description);
    uint32_t AddFolder(uint32_t storage, uint32_t parent, const std::string& name);
    uint32_t AddFile(uint32_t storage, uint32_t parent, const std::string& name, std::string bytes);
    // At a "/"-separated path below the storage's root, making the folders on the way.
    uint32_t AddPath(uint32_t storage, const std::string& path, std::string bytes);
    // Copies the files below dir (hidden ones skipped); false when it cannot be read.
    bool LoadFolder(uint32_t storage, const std::string& dir);
    uint32_t Find(uint32_t storage, const std::string& path) const;  // 0: none
    void SetThumbFault(uint32_t handle, ThumbFault fault);
    // The next count GetObject / GetThumb data phases send half their bytes, then the camera
    // closes its connections.
    void HangUpDuringNextTransfers(int count);
    void SetResponseDelay(std::chrono::milliseconds delay);  // before every answer

    bool Start();  // on any free port
    void Stop();
    std::string Address() const { return "127.0.0.1:" + std::to_string(m_Port); }
    int SessionsOpened() const;

private:
    struct Object {
        uint32_t storage = 0, parent = 0;
        std::string name;
        uint16_t format = 0;
        bool folder = false;
        std::string bytes{}, thumb{};
        ThumbFault fault = ThumbFault::kNone;
    };
    struct Answer;

    uint32_t m_Add(Object object);
    void m_Serve(int fd);
    void m_ServeCommands(int fd);
    Answer m_Answer(uint16_t code, const uint32_t* params, bool* session);
    bool m_SendData(int fd, uint32_t transaction, const Answer& answer);

    mutable std::mutex m_Mutex;
    std::condition_variable m_StopCond;
    std::vector<std::string> m_Storages;
    std::map<uint32_t, Object> m_Objects;
    uint32_t m_NextHandle = 0x10001;
    int m_HangUps = 0, m_Sessions = 0;
    std::chrono::milliseconds m_Delay{0};

    int m_ListenFd = -1, m_Port = -1;
    std::atomic<bool> m_bStop{false};
    std::thread m_Acceptor;
    std::vector<std::thread> m_Workers;
    std::vector<int> m_OpenFds;
};

}  // namespace qrbtest

#endif
