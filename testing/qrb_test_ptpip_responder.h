// A still-image camera on 127.0.0.1 speaking PTP over TCP (PTP/IP), so that the MTP client and
// everything above it run libgphoto2's real code path. Its content is a model in memory
// (storages, folders, files; a JPEG's thumbnail is its EXIF IFD1 one); handles start at 0x10001,
// unlike the client's small ones. Operations other than the nine it lists in GetDeviceInfo are
// answered OperationNotSupported. One thread per connection; the model and the fault knobs may
// change while serving; Stop (and the destructor) joins every thread.
#ifndef QRB_TESTING_PTPIP_RESPONDER_H
#define QRB_TESTING_PTPIP_RESPONDER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qrbtest {

class PtpipResponder {
public:
    enum class ThumbFault {
        kNone,        // the EXIF thumbnail (NoThumbnailPresent for objects without one)
        kBrokenJpeg,  // GetThumb sends a JPEG start marker followed by noise
        kLengthOver,  // GetThumb's data phase declares nearly 4 GiB and sends the thumbnail
        kLengthUnder  // GetThumb's data phase declares half the thumbnail and sends all of it
    };

    PtpipResponder();
    ~PtpipResponder();
    PtpipResponder(const PtpipResponder&) = delete;
    PtpipResponder& operator=(const PtpipResponder&) = delete;

    // The model. Storage ids are 0x00010001, 0x00020001, ...; parent 0 is a storage's root.
    // Each Add returns the new object's handle (0 when the storage or parent is unknown).
    uint32_t AddStorage(const std::string& description);
    uint32_t AddFolder(uint32_t storage, uint32_t parent, const std::string& name);
    uint32_t AddFile(uint32_t storage, uint32_t parent, const std::string& name, std::string bytes);
    // Adds the file at a "/"-separated path below the storage's root, making the folders on
    // the way (an existing folder of that name is reused).
    uint32_t AddPath(uint32_t storage, const std::string& path, std::string bytes);
    // Copies every file and folder below dir (names in byte order, hidden entries skipped)
    // into the storage's root. False when dir cannot be read.
    bool LoadFolder(uint32_t storage, const std::string& dir);
    void SetThumbFault(uint32_t handle, ThumbFault fault);
    // The handle of the object at a "/"-separated path (0 when there is none).
    uint32_t Find(uint32_t storage, const std::string& path) const;

    // The next `count` GetObject / GetThumb data phases send half their bytes, then both
    // connections of that client are closed.
    void HangUpDuringNextTransfers(int count);
    // Waited before every operation's answer.
    void SetResponseDelay(std::chrono::milliseconds delay);

    // Listens on 127.0.0.1 (port 0: any free port). False when it cannot.
    bool Start(int port = 0);
    void Stop();
    // "127.0.0.1:<port>", the form the MTP client's environment variable takes.
    std::string Address() const;

    int SessionsOpened() const;  // sessions the camera has seen opened

private:
    struct Object;
    struct Storage {
        uint32_t id = 0;
        std::string description;
    };
    struct Request {
        uint32_t dataPhase = 0;
        uint16_t code = 0;
        uint32_t transaction = 0;
        uint32_t params[5] = {0, 0, 0, 0, 0};
        int paramCount = 0;
    };
    struct Answer {
        explicit Answer(uint16_t c = 0x2001) : code(c) {}
        static Answer Data(std::string bytes) {
            Answer a;
            a.hasData = true;
            a.data = std::move(bytes);
            return a;
        }
        uint16_t code;
        bool hasData = false;
        std::string data;
        bool hangUp = false;  // the data phase stops halfway and the client is cut off
        uint64_t declared = 0;  // the length the data phase announces (0: the data's own)
    };

    void m_AcceptLoop();
    void m_Serve(int fd);
    void m_ServeCommands(int fd, uint32_t connection);
    void m_ServeEvents(int fd, uint32_t connection);
    Answer m_Answer(const Request& request, bool* sessionOpen);
    Answer m_AnswerInSession(const Request& request);
    Answer m_Transfer(const Request& request);
    bool m_SendData(int fd, uint32_t transaction, const Answer& answer,
                    uint32_t connection);
    void m_CutOff(uint32_t connection);
    bool m_WaitDelay();

    std::vector<uint32_t> m_Select(uint32_t storage, uint16_t format, uint32_t parent,
                                   uint16_t* error) const;
    std::string m_ObjectInfo(const Object& object) const;
    std::string m_DeviceInfo() const;
    std::string m_StorageInfo(const Storage& storage) const;
    const Object* m_Object(uint32_t handle) const;
    bool m_HasStorage(uint32_t id) const;

    mutable std::mutex m_Mutex;
    std::condition_variable m_StopCond;
    std::vector<Storage> m_Storages;
    std::map<uint32_t, std::shared_ptr<Object>> m_Objects;
    uint32_t m_NextHandle = 0x10001;
    int m_HangUps = 0;
    std::chrono::milliseconds m_Delay{0};

    int m_Sessions = 0;
    uint32_t m_NextConnection = 1;
    std::map<uint32_t, std::vector<int>> m_ConnectionFds;  // both channels of a client

    int m_ListenFd = -1;
    int m_Port = -1;
    std::atomic<bool> m_bStop{false};
    std::thread m_Acceptor;
    std::vector<std::thread> m_Workers;
    std::vector<int> m_OpenFds;
};

}  // namespace qrbtest

#endif
