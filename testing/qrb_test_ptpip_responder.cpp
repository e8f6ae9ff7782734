#include "qrb_test_ptpip_responder.h"

#include "qrb_test_files.h"
#include "qrb_test_raw_peer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <glib.h>
#include <libexif/exif-data.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>

namespace qrbtest {

namespace {

// PTP/IP packet types, operations, responses and object formats.
enum : uint32_t { kInitCommandRequest = 1, kInitCommandAck, kInitEventRequest, kInitEventAck };
enum : uint32_t { kOperationRequest = 6, kOperationResponse, kStartData = 9, kData, kEndData = 12 };
enum : uint16_t { kGetDeviceInfo = 0x1001, kOpenSession, kCloseSession, kGetStorageIDs };
enum : uint16_t { kGetStorageInfo = 0x1005, kGetObjectHandles = 0x1007, kGetObjectInfo };
enum : uint16_t { kGetObject = 0x1009, kGetThumb };
enum : uint16_t { kOk = 0x2001, kOperationNotSupported = 0x2005, kInvalidStorageID = 0x2008 };
enum : uint16_t { kInvalidObjectHandle = 0x2009, kNoThumbnailPresent = 0x2010 };
enum Format : uint16_t {
    kFormatUndefined = 0x3000,
    kFormatAssociation,
    kFormatJpeg = 0x3801,
    kFormatBmp = 0x3804,
    kFormatPng = 0x380B
};

constexpr uint32_t kMaxPacket = 1 << 20;  // a larger request ends the connection
constexpr size_t kDataChunk = 64 * 1024;  // a transfer spans several data packets

std::string U16(uint64_t v) { return LittleEndian(v, 2); }
std::string U32(uint64_t v) { return LittleEndian(v, 4); }
std::string U64(uint64_t v) { return LittleEndian(v, 8); }
uint32_t Get(const std::string& s, size_t at, int bytes) {
    uint32_t v = 0;
    for (int i = bytes - 1; i >= 0; --i) v = v << 8 | static_cast<uint8_t>(s[at + i]);
    return v;
}

// A count of UTF-16 units including the terminating zero (one byte, so longer names are cut),
// then the units; malformed UTF-8 becomes U+FFFD.
std::string Str(const std::string& utf8) {
    gchar* valid = g_utf8_make_valid(utf8.data(), static_cast<gssize>(utf8.size()));
    glong n = 0;
    gunichar2* units = g_utf8_to_utf16(valid, -1, nullptr, &n, nullptr);
    n = units ? std::min<glong>(n, 254) : 0;
    std::string s(1, static_cast<char>(n ? n + 1 : 0));
    for (glong i = 0; i < n; ++i) s += U16(units[i]);
    g_free(units);
    g_free(valid);
    return n ? s + U16(0) : s;
}

std::string Array16(std::initializer_list<uint16_t> values) {
    std::string s = U32(values.size());
    for (uint16_t v : values) s += U16(v);
    return s;
}

uint16_t FormatOf(const std::string& name) {
    const char* ext = std::strrchr(name.c_str(), '.');
    ext = ext ? ext : "";
    if (!strcasecmp(ext, ".jpg") || !strcasecmp(ext, ".jpeg")) return kFormatJpeg;
    return !strcasecmp(ext, ".png")   ? kFormatPng
           : !strcasecmp(ext, ".bmp") ? kFormatBmp
                                      : kFormatUndefined;
}

// The JPEG thumbnail in the file's EXIF data, as libexif finds it; empty when there is none.
std::string ExifThumbnail(const std::string& jpeg) {
    ExifData* exif = exif_data_new_from_data(reinterpret_cast<const unsigned char*>(jpeg.data()),
                                             static_cast<unsigned int>(jpeg.size()));
    std::string thumb;
    if (exif != nullptr && exif->data != nullptr)
        thumb.assign(reinterpret_cast<char*>(exif->data), exif->size);
    if (exif != nullptr) exif_data_unref(exif);
    return thumb;
}

bool ReadAll(int fd, char* out, size_t n) {
    return n == 0 || recv(fd, out, n, MSG_WAITALL) == static_cast<ssize_t>(n);
}

bool ReadPacket(int fd, uint32_t* type, std::string* payload) {
    std::string head(8, '\0');
    if (!ReadAll(fd, &head[0], head.size())) return false;
    const uint32_t length = Get(head, 0, 4);
    if (length < 8 || length > kMaxPacket) return false;
    *type = Get(head, 4, 4);
    payload->assign(length - 8, '\0');
    return ReadAll(fd, &(*payload)[0], payload->size());
}

bool SendPacket(int fd, uint32_t type, const std::string& payload) {
    const std::string packet = U32(payload.size() + 8) + U32(type) + payload;
    return send(fd, packet.data(), packet.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(packet.size());
}

}  // namespace

struct PtpipResponder::Answer {
    explicit Answer(uint16_t c = kOk) : code(c) {}
    uint16_t code;
    bool hasData = false;
    std::string data;
    uint64_t declared = 0;  // the length the data phase announces (0: the data's own)
    bool hangUp = false;    // the data phase stops halfway and the camera hangs up
};

uint32_t PtpipResponder::AddStorage(const std::string& description) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Storages.push_back(description);
    return static_cast<uint32_t>(m_Storages.size()) << 16 | 1;
}

uint32_t PtpipResponder::m_Add(Object o) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Objects[m_NextHandle] = std::move(o);
    return m_NextHandle++;
}

uint32_t PtpipResponder::AddFolder(uint32_t storage, uint32_t parent, const std::string& name) {
    return m_Add({storage, parent, name, kFormatAssociation, true});
}

uint32_t PtpipResponder::AddFile(uint32_t storage, uint32_t parent, const std::string& name,
                                 std::string bytes) {
    Object o{storage, parent, name, FormatOf(name), false, std::move(bytes)};
    if (o.format == kFormatJpeg) o.thumb = ExifThumbnail(o.bytes);
    return m_Add(std::move(o));
}

uint32_t PtpipResponder::Find(uint32_t storage, const std::string& path) const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    uint32_t handle = 0;
    std::stringstream parts(path);
    for (std::string part; std::getline(parts, part, '/');) {
        if (part.empty()) continue;
        const auto it = std::find_if(m_Objects.begin(), m_Objects.end(), [&](const auto& entry) {
            const Object& o = entry.second;
            return o.storage == storage && o.parent == handle && o.name == part;
        });
        if (it == m_Objects.end()) return 0;
        handle = it->first;
    }
    return handle;
}

uint32_t PtpipResponder::AddPath(uint32_t storage, const std::string& path, std::string bytes) {
    uint32_t parent = 0;
    size_t start = 0;
    for (size_t slash; (slash = path.find('/', start)) != std::string::npos; start = slash + 1) {
        const uint32_t folder = Find(storage, path.substr(0, slash));
        parent = folder ? folder : AddFolder(storage, parent, path.substr(start, slash - start));
    }
    return AddFile(storage, parent, path.substr(start), std::move(bytes));
}

bool PtpipResponder::LoadFolder(uint32_t storage, const std::string& dir) {
    namespace fs = std::filesystem;
    std::error_code error;
    std::vector<fs::path> files;  // linked folders are not followed
    for (fs::recursive_directory_iterator it(dir, error), end; !error && it != end;
         it.increment(error)) {
        if (it->is_regular_file()) files.push_back(fs::relative(it->path(), dir));
    }
    std::sort(files.begin(), files.end());
    for (const fs::path& file : files) {
        if (file.string()[0] != '.' && file.string().find("/.") == std::string::npos)
            AddPath(storage, file, ReadFileBytes(fs::path(dir) / file));
    }
    return !error;
}

void PtpipResponder::SetThumbFault(uint32_t handle, ThumbFault fault) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (m_Objects.count(handle)) m_Objects[handle].fault = fault;
}

void PtpipResponder::HangUpDuringNextTransfers(int count) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_HangUps = count;
}

void PtpipResponder::SetResponseDelay(std::chrono::milliseconds delay) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Delay = delay;
}

int PtpipResponder::SessionsOpened() const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Sessions;
}

bool PtpipResponder::Start() {
    m_ListenFd = BoundLoopbackSocket(&m_Port);
    if (listen(m_ListenFd, 16) != 0) return false;
    // Stop shuts the listening socket down, which ends the wait in accept.
    m_Acceptor = std::thread([this] {
        for (int fd; (fd = accept4(m_ListenFd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            const int one = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
            std::lock_guard<std::mutex> lock(m_Mutex);
            if (m_bStop) {
                close(fd);
                break;
            }
            m_OpenFds.push_back(fd);
            m_Workers.emplace_back([this, fd] { m_Serve(fd); });
        }
    });
    return true;
}

void PtpipResponder::Stop() {
    if (m_ListenFd < 0) return;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_bStop = true;
        shutdown(m_ListenFd, SHUT_RDWR);
        for (int fd : m_OpenFds) shutdown(fd, SHUT_RDWR);  // each worker closes its own
    }
    m_StopCond.notify_all();
    if (m_Acceptor.joinable()) m_Acceptor.join();
    for (auto& worker : m_Workers) worker.join();
    m_Workers.clear();
    close(m_ListenFd);
    m_ListenFd = -1;
}

void PtpipResponder::m_Serve(int fd) {
    uint32_t type = 0;
    std::string payload;
    if (ReadPacket(fd, &type, &payload) && type == kInitCommandRequest) {
        // Connection number, GUID, a friendly name in UTF-16 without a count, version 1.0.
        std::string ack = U32(1) + "QRB-LOOPBACK-CAM";
        for (char c : std::string("Loopback Camera")) ack += U16(c);
        if (SendPacket(fd, kInitCommandAck, ack + U16(0) + U32(0x10000))) m_ServeCommands(fd);
    } else if (type == kInitEventRequest && SendPacket(fd, kInitEventAck, "")) {
        while (ReadPacket(fd, &type, &payload)) {  // no events are ever sent
        }
    }
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_OpenFds.erase(std::remove(m_OpenFds.begin(), m_OpenFds.end(), fd), m_OpenFds.end());
    close(fd);
}

void PtpipResponder::m_ServeCommands(int fd) {
    bool session = false;
    uint32_t type = 0;
    std::string p;
    while (ReadPacket(fd, &type, &p)) {
        if (type != kOperationRequest || p.size() < 10) continue;  // (no operation takes data)
        uint32_t params[3] = {0, 0, 0};
        for (size_t i = 0; i < 3 && 14 + 4 * i <= p.size(); ++i) params[i] = Get(p, 10 + 4 * i, 4);
        {
            std::unique_lock<std::mutex> lock(m_Mutex);
            if (m_StopCond.wait_for(lock, m_Delay, [this] { return m_bStop.load(); })) return;
        }
        const Answer answer = m_Answer(static_cast<uint16_t>(Get(p, 4, 2)), params, &session);
        const uint32_t transaction = Get(p, 6, 4);
        if (answer.hasData && !m_SendData(fd, transaction, answer)) return;
        if (!SendPacket(fd, kOperationResponse, U16(answer.code) + U32(transaction))) return;
    }
}

bool PtpipResponder::m_SendData(int fd, uint32_t transaction, const Answer& answer) {
    const std::string& data = answer.data;
    const std::string id = U32(transaction);
    if (!SendPacket(fd, kStartData, id + U64(answer.declared ? answer.declared : data.size())))
        return false;
    if (answer.hangUp) {
        SendPacket(fd, kData, id + data.substr(0, data.size() / 2));
        std::lock_guard<std::mutex> lock(m_Mutex);
        for (int open : m_OpenFds) shutdown(open, SHUT_RDWR);
        return false;
    }
    for (size_t at = 0;;) {
        const size_t n = std::min(kDataChunk, data.size() - at);
        at += n;
        if (!SendPacket(fd, at == data.size() ? kEndData : kData, id + data.substr(at - n, n)))
            return false;
        if (at == data.size()) return true;
    }
}

PtpipResponder::Answer PtpipResponder::m_Answer(uint16_t code, const uint32_t* p, bool* session) {
    Answer a;
    auto data = [&a](std::string bytes) {
        a.hasData = true;
        a.data = std::move(bytes);
        return a;
    };
    std::lock_guard<std::mutex> lock(m_Mutex);
    const size_t storage = (p[0] >> 16) - 1;
    const auto object = m_Objects.find(p[0]);
    switch (code) {
        case kGetDeviceInfo:
            return data(U16(100) + U32(0) + U16(0) + Str("") + U16(0) +
                        Array16({kGetDeviceInfo, kOpenSession, kCloseSession, kGetStorageIDs,
                                 kGetStorageInfo, kGetObjectHandles, kGetObjectInfo, kGetObject,
                                 kGetThumb}) +
                        Array16({}) + Array16({}) + Array16({}) +
                        Array16({kFormatAssociation, kFormatJpeg, kFormatBmp, kFormatPng}) +
                        Str("QRB") + Str("Loopback Camera") + Str("1.0") + Str("0000000001"));
        case kOpenSession:
            m_Sessions += !*session;
            *session = true;
            return a;
        case kCloseSession:
            *session = false;
            return a;
        case kGetStorageIDs:
            a = data(U32(m_Storages.size()));
            for (size_t i = 1; i <= m_Storages.size(); ++i) a.data += U32(i << 16 | 1);
            return a;
        case kGetStorageInfo:  // removable, hierarchical, read-only, 1 GiB with half free
            if (storage >= m_Storages.size()) return Answer(kInvalidStorageID);
            return data(U16(4) + U16(2) + U16(1) + U64(1ull << 30) + U64(1ull << 29) +
                        U32(0xFFFFFFFF) + Str(m_Storages[storage]) + Str(m_Storages[storage]));
        case kGetObjectHandles: {  // parent 0: all of the storage; 0xFFFFFFFF: its root
            a = data("");
            uint32_t count = 0;
            for (const auto& [handle, o] : m_Objects) {
                if ((p[0] == 0xFFFFFFFF || o.storage == p[0]) && (p[1] == 0 || o.format == p[1]) &&
                    (p[2] == 0 || o.parent == (p[2] == 0xFFFFFFFF ? 0 : p[2]))) {
                    a.data += U32(handle);
                    ++count;
                }
            }
            a.data.insert(0, U32(count));
            return a;
        }
        case kGetObjectInfo: {
            if (object == m_Objects.end()) return Answer(kInvalidObjectHandle);
            const Object& o = object->second;
            const bool thumb = !o.thumb.empty() || o.fault != ThumbFault::kNone;
            std::string s = U32(o.storage) + U16(o.format) + U16(0) + U32(o.bytes.size()) +
                            U16(thumb ? kFormatJpeg : 0) +
                            U32(thumb ? std::max<size_t>(o.thumb.size(), 1) : 0);
            // Thumbnail and picture width and height (not given), bit depth, parent, association
            // type and description, sequence number.
            s += U64(0) + U64(0) + U32(o.format == kFormatJpeg ? 24 : 0) + U32(o.parent) +
                 U16(o.folder) + U64(0);
            return data(s + Str(o.name) + Str("20240102T030405") + Str("20240102T030405") +
                        Str(""));
        }
        case kGetObject:
        case kGetThumb: {
            if (object == m_Objects.end() || object->second.folder)
                return Answer(kInvalidObjectHandle);
            const Object& o = object->second;
            if (code == kGetObject) {
                data(o.bytes);
            } else if (o.fault == ThumbFault::kBrokenJpeg) {
                data("\xFF\xD8\xFF\xE0" + std::string(200, 'Z'));
            } else if (o.thumb.empty()) {
                return Answer(kNoThumbnailPresent);
            } else {
                data(o.thumb);
                if (o.fault == ThumbFault::kLengthOver) a.declared = 0xFFFFFFF0u;
                if (o.fault == ThumbFault::kLengthUnder) a.declared = o.thumb.size() / 2;
            }
            a.hangUp = m_HangUps > 0;
            m_HangUps -= a.hangUp;
            return a;
        }
        default:
            return Answer(kOperationNotSupported);
    }
}

}  // namespace qrbtest
