#include "qrb_test_ptpip_responder.h"

#include "qrb_test_files.h"
#include "qrb_test_jpeg_writer.h"

#include "qrb_scoped.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <glib.h>
#include <libexif/exif-data.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>

namespace qrbtest {

namespace {

// PTP/IP packet types.
constexpr uint32_t kInitCommandRequest = 1;
constexpr uint32_t kInitCommandAck = 2;
constexpr uint32_t kInitEventRequest = 3;
constexpr uint32_t kInitEventAck = 4;
constexpr uint32_t kOperationRequest = 6;
constexpr uint32_t kOperationResponse = 7;
constexpr uint32_t kStartData = 9;
constexpr uint32_t kData = 10;
constexpr uint32_t kEndData = 12;
constexpr uint32_t kProbeRequest = 13;
constexpr uint32_t kProbeResponse = 14;

// Operation and response codes.
constexpr uint16_t kGetDeviceInfo = 0x1001;
constexpr uint16_t kOpenSession = 0x1002;
constexpr uint16_t kCloseSession = 0x1003;
constexpr uint16_t kGetStorageIDs = 0x1004;
constexpr uint16_t kGetStorageInfo = 0x1005;
constexpr uint16_t kGetObjectHandles = 0x1007;
constexpr uint16_t kGetObjectInfo = 0x1008;
constexpr uint16_t kGetObject = 0x1009;
constexpr uint16_t kGetThumb = 0x100A;

constexpr uint16_t kOk = 0x2001;
constexpr uint16_t kSessionNotOpen = 0x2003;
constexpr uint16_t kOperationNotSupported = 0x2005;
constexpr uint16_t kInvalidStorageID = 0x2008;
constexpr uint16_t kInvalidObjectHandle = 0x2009;
constexpr uint16_t kNoThumbnailPresent = 0x2010;
constexpr uint16_t kInvalidParentObject = 0x201A;
constexpr uint16_t kSessionAlreadyOpen = 0x201E;

// Object formats.
constexpr uint16_t kFormatUndefined = 0x3000;
constexpr uint16_t kFormatAssociation = 0x3001;
constexpr uint16_t kFormatJpeg = 0x3801;
constexpr uint16_t kFormatBmp = 0x3804;
constexpr uint16_t kFormatPng = 0x380B;

// A request packet larger than this is no PTP/IP client of ours: the connection is dropped.
constexpr uint32_t kMaxPacket = 1 << 20;
// Data packets are cut at this size, so that a transfer spans several of them.
constexpr size_t kDataChunk = 64 * 1024;
// Folders deeper than this are not copied by LoadFolder (a link loop, or a hostile tree).
constexpr int kMaxLoadDepth = 16;

void Put16(std::string& s, uint32_t v) { s += LittleEndian(v, 2); }
void Put32(std::string& s, uint32_t v) { s += LittleEndian(v, 4); }
void Put64(std::string& s, uint64_t v) { s += LittleEndian(v, 8); }
uint32_t Get16(const std::string& s, size_t at) {
    return static_cast<uint8_t>(s[at]) | (static_cast<uint8_t>(s[at + 1]) << 8);
}
uint32_t Get32(const std::string& s, size_t at) { return Get16(s, at) | (Get16(s, at + 2) << 16); }

void FreeText(gchar* p) { g_free(p); }
using ScopedText = QRBScoped<gchar, FreeText>;
void FreeUnits(gunichar2* p) { g_free(p); }
using ScopedUnits = QRBScoped<gunichar2, FreeUnits>;

// UTF-8 to UTF-16 code units; malformed bytes become U+FFFD.
std::u16string Utf16(const std::string& utf8) {
    ScopedText valid(g_utf8_make_valid(utf8.data(), static_cast<gssize>(utf8.size())));
    glong count = 0;
    ScopedUnits units(g_utf8_to_utf16(valid.get(), -1, nullptr, &count, nullptr));
    if (!units) return std::u16string();
    return std::u16string(reinterpret_cast<const char16_t*>(units.get()),
                          static_cast<size_t>(count));
}

// A PTP string: a count of UTF-16 units including the terminating zero, then the units. The
// count is one byte, so longer names are cut (a camera would do the same).
void PutString(std::string& s, const std::string& utf8) {
    std::u16string units = Utf16(utf8);
    if (units.empty()) {
        s.push_back('\0');
        return;
    }
    if (units.size() > 254) units.resize(254);
    s.push_back(static_cast<char>(units.size() + 1));
    for (char16_t u : units) Put16(s, u);
    Put16(s, 0);
}

void PutArray16(std::string& s, const std::vector<uint16_t>& values) {
    Put32(s, static_cast<uint32_t>(values.size()));
    for (uint16_t v : values) Put16(s, v);
}

uint16_t FormatOf(const std::string& name) {
    const size_t dot = name.rfind('.');
    std::string ext = dot == std::string::npos ? "" : name.substr(dot + 1);
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    if (ext == "jpg" || ext == "jpeg") return kFormatJpeg;
    if (ext == "png") return kFormatPng;
    if (ext == "bmp") return kFormatBmp;
    return kFormatUndefined;
}

void FreeExif(ExifData* data) { exif_data_unref(data); }
using ScopedExif = QRBScoped<ExifData, FreeExif>;

// The JPEG thumbnail in the file's EXIF IFD1, as libexif finds it; empty when there is none.
std::string ExifThumbnail(const std::string& jpeg) {
    ScopedExif exif(exif_data_new_from_data(reinterpret_cast<const unsigned char*>(jpeg.data()),
                                            static_cast<unsigned int>(jpeg.size())));
    if (!exif || exif->data == nullptr || exif->size == 0) return std::string();
    return std::string(reinterpret_cast<const char*>(exif->data), exif->size);
}

bool ReadAll(int fd, char* out, size_t n) {
    size_t got = 0;
    while (got < n) {
        const ssize_t r = recv(fd, out + got, n - got, 0);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        got += static_cast<size_t>(r);
    }
    return true;
}

bool SendAll(int fd, const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

bool ReadPacket(int fd, uint32_t* type, std::string* payload) {
    char header[8];
    if (!ReadAll(fd, header, sizeof(header))) return false;
    const std::string h(header, sizeof(header));
    const uint32_t length = Get32(h, 0);
    if (length < 8 || length > kMaxPacket) return false;
    *type = Get32(h, 4);
    payload->assign(length - 8, '\0');
    return length == 8 || ReadAll(fd, &(*payload)[0], length - 8);
}

bool SendPacket(int fd, uint32_t type, const std::string& payload) {
    std::string packet;
    Put32(packet, static_cast<uint32_t>(payload.size() + 8));
    Put32(packet, type);
    packet += payload;
    return SendAll(fd, packet);
}

}  // namespace

struct PtpipResponder::Object {
    uint32_t handle = 0;
    uint32_t storage = 0;
    uint32_t parent = 0;
    std::string name;
    bool folder = false;
    uint16_t format = kFormatUndefined;
    std::shared_ptr<const std::string> bytes;
    std::string thumb;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t thumbWidth = 0;
    uint32_t thumbHeight = 0;
    ThumbFault fault = ThumbFault::kNone;
};

PtpipResponder::PtpipResponder() = default;

PtpipResponder::~PtpipResponder() { Stop(); }

uint32_t PtpipResponder::AddStorage(const std::string& description) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    Storage storage;
    storage.id = (static_cast<uint32_t>(m_Storages.size() + 1) << 16) | 1;
    storage.description = description;
    m_Storages.push_back(storage);
    return storage.id;
}

bool PtpipResponder::m_HasStorage(uint32_t id) const {
    return std::any_of(m_Storages.begin(), m_Storages.end(),
                       [&](const Storage& s) { return s.id == id; });
}

const PtpipResponder::Object* PtpipResponder::m_Object(uint32_t handle) const {
    auto it = m_Objects.find(handle);
    return it == m_Objects.end() ? nullptr : it->second.get();
}

uint32_t PtpipResponder::AddFolder(uint32_t storage, uint32_t parent, const std::string& name) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (!m_HasStorage(storage)) return 0;
    if (parent != 0 && (m_Object(parent) == nullptr || !m_Object(parent)->folder)) return 0;
    auto object = std::make_shared<Object>();
    object->handle = m_NextHandle++;
    object->storage = storage;
    object->parent = parent;
    object->name = name;
    object->folder = true;
    object->format = kFormatAssociation;
    m_Objects[object->handle] = object;
    return object->handle;
}

uint32_t PtpipResponder::AddFile(uint32_t storage, uint32_t parent, const std::string& name,
                                 std::string bytes) {
    auto object = std::make_shared<Object>();
    object->storage = storage;
    object->parent = parent;
    object->name = name;
    object->format = FormatOf(name);
    if (object->format == kFormatJpeg) {
        JpegFrameSize(bytes, &object->width, &object->height);
        object->thumb = ExifThumbnail(bytes);
        JpegFrameSize(object->thumb, &object->thumbWidth, &object->thumbHeight);
    }
    object->bytes = std::make_shared<const std::string>(std::move(bytes));

    std::lock_guard<std::mutex> lock(m_Mutex);
    if (!m_HasStorage(storage)) return 0;
    if (parent != 0 && (m_Object(parent) == nullptr || !m_Object(parent)->folder)) return 0;
    object->handle = m_NextHandle++;
    m_Objects[object->handle] = object;
    return object->handle;
}

uint32_t PtpipResponder::Find(uint32_t storage, const std::string& path) const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    uint32_t parent = 0;
    std::stringstream parts(path);
    std::string part;
    while (std::getline(parts, part, '/')) {
        if (part.empty()) continue;
        uint32_t found = 0;
        for (const auto& entry : m_Objects) {
            const Object& o = *entry.second;
            if (o.storage == storage && o.parent == parent && o.name == part) {
                found = o.handle;
                break;
            }
        }
        if (found == 0) return 0;
        parent = found;
    }
    return parent;
}

uint32_t PtpipResponder::AddPath(uint32_t storage, const std::string& path, std::string bytes) {
    const size_t slash = path.rfind('/');
    uint32_t parent = 0;
    if (slash != std::string::npos) {
        std::stringstream parts(path.substr(0, slash));
        std::string part;
        std::string sofar;
        while (std::getline(parts, part, '/')) {
            if (part.empty()) continue;
            sofar += "/" + part;
            uint32_t folder = Find(storage, sofar);
            if (folder == 0) folder = AddFolder(storage, parent, part);
            if (folder == 0) return 0;
            parent = folder;
        }
    }
    return AddFile(storage, parent, slash == std::string::npos ? path : path.substr(slash + 1),
                   std::move(bytes));
}

namespace {
bool LoadInto(PtpipResponder* camera, uint32_t storage, uint32_t parent, const std::string& dir,
              int depth) {
    if (depth > kMaxLoadDepth) return true;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return false;
    std::vector<std::string> names;
    while (struct dirent* entry = readdir(d)) {
        if (entry->d_name[0] != '.') names.push_back(entry->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        const std::string path = dir + "/" + name;
        struct stat st;
        if (stat(path.c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            const uint32_t folder = camera->AddFolder(storage, parent, name);
            if (folder != 0) LoadInto(camera, storage, folder, path, depth + 1);
        } else if (S_ISREG(st.st_mode)) {
            camera->AddFile(storage, parent, name, ReadFileBytes(path));
        }
    }
    return true;
}
}  // namespace

bool PtpipResponder::LoadFolder(uint32_t storage, const std::string& dir) {
    return LoadInto(this, storage, 0, dir, 0);
}

void PtpipResponder::SetThumbFault(uint32_t handle, ThumbFault fault) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    auto it = m_Objects.find(handle);
    if (it == m_Objects.end()) return;
    // Objects are shared with transfers in flight: change a copy.
    auto copy = std::make_shared<Object>(*it->second);
    copy->fault = fault;
    it->second = copy;
}

void PtpipResponder::HangUpDuringNextTransfers(int count) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_HangUps = count;
}

void PtpipResponder::SetResponseDelay(std::chrono::milliseconds delay) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Delay = delay;
}

std::string PtpipResponder::Address() const { return "127.0.0.1:" + std::to_string(m_Port); }

int PtpipResponder::SessionsOpened() const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Sessions;
}

bool PtpipResponder::Start(int port) {
    if (m_ListenFd >= 0) return false;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd, 16) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        close(fd);
        return false;
    }
    m_ListenFd = fd;
    m_Port = ntohs(addr.sin_port);
    m_bStop = false;
    m_Acceptor = std::thread([this] { m_AcceptLoop(); });
    return true;
}

void PtpipResponder::Stop() {
    if (m_ListenFd < 0) return;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_bStop = true;
        // Unblocks every worker's recv; each worker closes its own descriptor.
        for (int fd : m_OpenFds) shutdown(fd, SHUT_RDWR);
    }
    m_StopCond.notify_all();
    if (m_Acceptor.joinable()) m_Acceptor.join();
    std::vector<std::thread> workers;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        workers.swap(m_Workers);
    }
    for (auto& worker : workers) worker.join();
    close(m_ListenFd);
    m_ListenFd = -1;
}

void PtpipResponder::m_AcceptLoop() {
    while (!m_bStop) {
        pollfd p{m_ListenFd, POLLIN, 0};
        if (poll(&p, 1, 50) <= 0) continue;
        const int fd = accept4(m_ListenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
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
}

void PtpipResponder::m_Serve(int fd) {
    uint32_t type = 0;
    std::string payload;
    if (ReadPacket(fd, &type, &payload)) {
        if (type == kInitCommandRequest) {
            uint32_t connection = 0;
            {
                std::lock_guard<std::mutex> lock(m_Mutex);
                connection = m_NextConnection++;
                m_ConnectionFds[connection].push_back(fd);
            }
            std::string ack;
            Put32(ack, connection);
            ack.append("QRB-LOOPBACK-CAM", 16);  // the camera's GUID
            // The friendly name is a plain zero-terminated UTF-16 text, without a count.
            for (char16_t u : Utf16("Loopback Camera")) Put16(ack, u);
            Put16(ack, 0);
            Put32(ack, 0x00010000);  // protocol version 1.0
            if (SendPacket(fd, kInitCommandAck, ack)) m_ServeCommands(fd, connection);
        } else if (type == kInitEventRequest && payload.size() >= 4) {
            const uint32_t connection = Get32(payload, 0);
            {
                std::lock_guard<std::mutex> lock(m_Mutex);
                m_ConnectionFds[connection].push_back(fd);
            }
            if (SendPacket(fd, kInitEventAck, std::string())) m_ServeEvents(fd, connection);
        }
    }
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_OpenFds.erase(std::remove(m_OpenFds.begin(), m_OpenFds.end(), fd), m_OpenFds.end());
    for (auto& entry : m_ConnectionFds) {
        auto& fds = entry.second;
        fds.erase(std::remove(fds.begin(), fds.end(), fd), fds.end());
    }
    close(fd);
}

void PtpipResponder::m_ServeEvents(int fd, uint32_t) {
    // No events are ever sent; the channel only answers probes until the client leaves.
    uint32_t type = 0;
    std::string payload;
    while (ReadPacket(fd, &type, &payload)) {
        if (type == kProbeRequest && !SendPacket(fd, kProbeResponse, std::string())) return;
    }
}

void PtpipResponder::m_CutOff(uint32_t connection) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    auto it = m_ConnectionFds.find(connection);
    if (it == m_ConnectionFds.end()) return;
    for (int fd : it->second) shutdown(fd, SHUT_RDWR);
}

bool PtpipResponder::m_WaitDelay() {
    std::unique_lock<std::mutex> lock(m_Mutex);
    if (m_Delay.count() > 0) m_StopCond.wait_for(lock, m_Delay, [this] { return m_bStop.load(); });
    return !m_bStop;
}

void PtpipResponder::m_ServeCommands(int fd, uint32_t connection) {
    bool sessionOpen = false;
    uint32_t type = 0;
    std::string payload;
    while (ReadPacket(fd, &type, &payload)) {
        if (type == kProbeRequest) {
            if (!SendPacket(fd, kProbeResponse, std::string())) return;
            continue;
        }
        if (type != kOperationRequest || payload.size() < 10) continue;
        Request request;
        request.dataPhase = Get32(payload, 0);
        request.code = static_cast<uint16_t>(Get16(payload, 4));
        request.transaction = Get32(payload, 6);
        for (size_t at = 10; at + 4 <= payload.size() && request.paramCount < 5; at += 4) {
            request.params[request.paramCount++] = Get32(payload, at);
        }
        if (request.dataPhase == 2) {
            // Data sent to the camera: nothing served takes any, so it is read and dropped.
            uint32_t dataType = 0;
            std::string data;
            do {
                if (!ReadPacket(fd, &dataType, &data)) return;
            } while (dataType != kEndData);
        }
        if (!m_WaitDelay()) return;

        Answer answer = m_Answer(request, &sessionOpen);
        if (answer.hasData &&
            !m_SendData(fd, request.transaction, answer, connection)) {
            return;
        }
        std::string response;
        Put16(response, answer.code);
        Put32(response, request.transaction);
        if (!SendPacket(fd, kOperationResponse, response)) return;
    }
}

bool PtpipResponder::m_SendData(int fd, uint32_t transaction, const Answer& answer,
                                uint32_t connection) {
    const std::string& data = answer.data;
    std::string start;
    Put32(start, transaction);
    Put64(start, answer.declared != 0 ? answer.declared : data.size());
    if (!SendPacket(fd, kStartData, start)) return false;
    if (answer.hangUp) {
        std::string half;
        Put32(half, transaction);
        half.append(data, 0, data.size() / 2);
        SendPacket(fd, kData, half);
        m_CutOff(connection);
        return false;
    }
    size_t at = 0;
    do {
        const size_t n = std::min(kDataChunk, data.size() - at);
        std::string packet;
        Put32(packet, transaction);
        packet.append(data, at, n);
        at += n;
        if (!SendPacket(fd, at == data.size() ? kEndData : kData, packet)) return false;
    } while (at < data.size());
    return true;
}

std::vector<uint32_t> PtpipResponder::m_Select(uint32_t storage, uint16_t format, uint32_t parent,
                                               uint16_t* error) const {
    std::vector<uint32_t> handles;
    *error = kOk;
    if (storage != 0xFFFFFFFF && !m_HasStorage(storage)) {
        *error = kInvalidStorageID;
        return handles;
    }
    if (parent != 0 && parent != 0xFFFFFFFF) {
        const Object* folder = m_Object(parent);
        if (folder == nullptr || !folder->folder) {
            *error = kInvalidParentObject;
            return handles;
        }
    }
    for (const auto& entry : m_Objects) {
        const Object& o = *entry.second;
        if (storage != 0xFFFFFFFF && o.storage != storage) continue;
        if (format != 0 && o.format != format) continue;
        // 0: every object of the storage; 0xFFFFFFFF: those at its root.
        if (parent == 0xFFFFFFFF && o.parent != 0) continue;
        if (parent != 0 && parent != 0xFFFFFFFF && o.parent != parent) continue;
        handles.push_back(o.handle);
    }
    return handles;
}

std::string PtpipResponder::m_DeviceInfo() const {
    std::string s;
    Put16(s, 100);  // standard version 1.00
    Put32(s, 0);    // no vendor extension
    Put16(s, 0);
    PutString(s, "");
    Put16(s, 0);  // functional mode
    PutArray16(s, {kGetDeviceInfo, kOpenSession, kCloseSession, kGetStorageIDs, kGetStorageInfo,
                   kGetObjectHandles, kGetObjectInfo, kGetObject, kGetThumb});
    PutArray16(s, {});  // events
    PutArray16(s, {});  // device properties
    PutArray16(s, {});  // capture formats
    PutArray16(s, {kFormatAssociation, kFormatJpeg, kFormatBmp, kFormatPng});
    PutString(s, "QRB");
    PutString(s, "Loopback Camera");
    PutString(s, "1.0");
    PutString(s, "0000000001");
    return s;
}

std::string PtpipResponder::m_StorageInfo(const Storage& storage) const {
    std::string s;
    Put16(s, 0x0004);  // removable RAM
    Put16(s, 0x0002);  // generic hierarchical
    Put16(s, 0x0001);  // read-only
    Put64(s, 1ull << 30);
    Put64(s, 1ull << 29);
    Put32(s, 0xFFFFFFFF);
    PutString(s, storage.description);
    PutString(s, storage.description);
    return s;
}

std::string PtpipResponder::m_ObjectInfo(const Object& o) const {
    const bool hasThumb = !o.thumb.empty() || o.fault != ThumbFault::kNone;
    std::string s;
    Put32(s, o.storage);
    Put16(s, o.format);
    Put16(s, 0);  // no protection
    Put32(s, o.bytes ? static_cast<uint32_t>(o.bytes->size()) : 0);
    Put16(s, hasThumb ? kFormatJpeg : 0);
    Put32(s, hasThumb ? static_cast<uint32_t>(std::max<size_t>(o.thumb.size(), 1)) : 0);
    Put32(s, o.thumbWidth);
    Put32(s, o.thumbHeight);
    Put32(s, o.width);
    Put32(s, o.height);
    Put32(s, o.format == kFormatJpeg ? 24 : 0);
    Put32(s, o.parent);
    Put16(s, o.folder ? 0x0001 : 0);  // generic folder
    Put32(s, 0);
    Put32(s, 0);
    PutString(s, o.name);
    PutString(s, "20240102T030405");
    PutString(s, "20240102T030405");
    PutString(s, "");
    return s;
}

PtpipResponder::Answer PtpipResponder::m_Answer(const Request& request, bool* sessionOpen) {
    if (request.code == kGetDeviceInfo) return Answer::Data(m_DeviceInfo());
    if (request.code == kOpenSession) {
        if (*sessionOpen) return Answer(kSessionAlreadyOpen);
        std::lock_guard<std::mutex> lock(m_Mutex);
        *sessionOpen = true;
        ++m_Sessions;
        return Answer();
    }
    if (!*sessionOpen) return Answer(kSessionNotOpen);
    if (request.code == kCloseSession) {
        *sessionOpen = false;
        return Answer();
    }
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_AnswerInSession(request);
}

// Called with the mutex held.
PtpipResponder::Answer PtpipResponder::m_AnswerInSession(const Request& request) {
    const uint32_t p0 = request.params[0];
    Answer answer = Answer::Data(std::string());
    switch (request.code) {
        case kGetStorageIDs:
            Put32(answer.data, static_cast<uint32_t>(m_Storages.size()));
            for (const Storage& s : m_Storages) Put32(answer.data, s.id);
            return answer;
        case kGetStorageInfo:
            for (const Storage& s : m_Storages) {
                if (s.id == p0) return Answer::Data(m_StorageInfo(s));
            }
            return Answer(kInvalidStorageID);
        case kGetObjectHandles: {
            uint16_t error = kOk;
            const std::vector<uint32_t> handles =
                m_Select(p0, static_cast<uint16_t>(request.params[1]), request.params[2], &error);
            if (error != kOk) return Answer(error);
            Put32(answer.data, static_cast<uint32_t>(handles.size()));
            for (uint32_t h : handles) Put32(answer.data, h);
            return answer;
        }
        case kGetObjectInfo: {
            const Object* o = m_Object(p0);
            return o ? Answer::Data(m_ObjectInfo(*o)) : Answer(kInvalidObjectHandle);
        }
        case kGetObject:
        case kGetThumb:
            return m_Transfer(request);
        default:
            return Answer(kOperationNotSupported);
    }
}

// GetObject and GetThumb, with the object's thumbnail fault and any pending hang-up; called
// with the mutex held.
PtpipResponder::Answer PtpipResponder::m_Transfer(const Request& request) {
    const Object* o = m_Object(request.params[0]);
    if (o == nullptr || o->folder) return Answer(kInvalidObjectHandle);
    Answer answer = Answer::Data(std::string());
    if (request.code == kGetObject) {
        answer.data = *o->bytes;
    } else if (o->fault == ThumbFault::kBrokenJpeg) {
        answer.data = std::string("\xFF\xD8\xFF\xE0", 4) + std::string(200, '\x5A');
    } else if (o->thumb.empty()) {
        return Answer(kNoThumbnailPresent);
    } else {
        answer.data = o->thumb;
        if (o->fault == ThumbFault::kLengthOver) answer.declared = 0xFFFFFFF0u;
        if (o->fault == ThumbFault::kLengthUnder) answer.declared = o->thumb.size() / 2;
    }
    answer.hangUp = m_HangUps > 0;
    if (answer.hangUp) --m_HangUps;
    return answer;
}

}  // namespace qrbtest
