// The MTP client on Linux, over libgphoto2 (which opens plain PTP still-image cameras as well
// as MTP ones). Devices come from the "usb:BUS,DEV" ports libgphoto2 detects, plus the
// simulated cameras named by QRB_PTPIP_CAMERA, reached over PTP/IP. libgphoto2 addresses
// objects by folder and name; the client numbers them itself (CMtpObjectTable), once per
// device for the life of the process, so that numbers handed out stay meaningful.
//
// Every entry point holds the call scope (the one lock, a UTF-8 thread locale, SIGPIPE
// blocked) for its whole duration, and on a networked camera a deadline as well. A camera that
// fails a call is asked once more whether it still answers; one that does not (it hung up, or
// the deadline cut it off) is closed, and the next call opens it again.
#define QRB_LOG_TAG "QRB-MTP"

#include "mtp.h"

#include "mtp_call_scope.h"
#include "mtp_camera.h"
#include "mtp_object_table.h"
#include "qrb_log.h"
#include "qrb_temp_file.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Where the simulated cameras appear: bus 1, devices 2, 3, ... At most this many are taken
// from the variable.
constexpr int kSimulatedBus = 1;
constexpr int kFirstSimulatedDevice = 2;
constexpr int kMaxSimulatedCameras = 8;
constexpr int kDefaultTimeoutMs = 10000;
// A camera's thumbnails are small JPEGs (160 x 120 is usual); 16 MiB is far above any, and
// bounds what a misbehaving camera can make us hold and write.
constexpr size_t kMaxThumbnailBytes = 16u << 20;
// Whole files are read into memory: 64 MiB covers the pictures of any still camera.
constexpr size_t kMaxObjectBytes = 64u << 20;
// Folder levels numbered when a device is opened; deeper folders are numbered when listed.
// Camera folder trees are two or three levels deep.
constexpr int kMaxFolderDepth = 32;
// Attempts at a fresh temporary name beside a thumbnail's destination.

struct Device {
    int handle = 0;
    int bus = 0;
    int number = 0;
    std::string model;
    std::string port;
    bool networked = false;
    sockaddr_in peer{};
    int timeoutMs = 0;
    int openCount = 0;
    std::unique_ptr<CMtpCamera> camera;  // null while closed, and after the connection broke
    std::vector<CMtpCamera::Storage> storages;
    CMtpObjectTable objects;
};

struct Client {
    std::mutex lock;
    int initCount = 0;
    MtpScopedContext context;
    MtpScopedAbilities abilities;
    MtpScopedPorts ports;
    std::vector<std::unique_ptr<Device>> devices;  // handle = index + 1; never shrinks
};

// Made on first use and never destroyed: the library may close its camera from a static
// destructor at exit, after a static client would already be gone.
Client& TheClient() {
    static Client* client = new Client;
    return *client;
}

void LogContextError(GPContext*, const char* text, void*) { QRB_LOGD("libgphoto2: %s", text); }

int TimeoutMs() {
    const char* text = std::getenv("QRB_PTPIP_TIMEOUT_MS");
    if (text == nullptr || *text == '\0') return kDefaultTimeoutMs;
    char* end = nullptr;
    const long ms = std::strtol(text, &end, 10);
    if (*end != '\0' || ms <= 0 || ms > INT_MAX) return kDefaultTimeoutMs;
    return static_cast<int>(ms);
}

struct Found {
    int bus = 0;
    int number = 0;
    std::string model;
    std::string port;
    bool networked = false;
    sockaddr_in peer{};
};

// "A.B.C.D:PORT" entries of QRB_PTPIP_CAMERA; malformed ones are skipped but keep their place
// in the numbering, so a camera's number does not depend on its neighbours' spelling.
std::vector<Found> SimulatedCameras() {
    std::vector<Found> found;
    const char* text = std::getenv("QRB_PTPIP_CAMERA");
    if (text == nullptr) return found;
    std::stringstream entries(text);
    std::string entry;
    for (int index = 0; index < kMaxSimulatedCameras && std::getline(entries, entry, ',');
         ++index) {
        const size_t colon = entry.rfind(':');
        if (colon == std::string::npos) continue;
        Found camera;
        camera.peer.sin_family = AF_INET;
        char* end = nullptr;
        const long port = std::strtol(entry.c_str() + colon + 1, &end, 10);
        if (*end != '\0' || port <= 0 || port > 65535 ||
            inet_pton(AF_INET, entry.substr(0, colon).c_str(), &camera.peer.sin_addr) != 1) {
            QRB_LOGW("QRB_PTPIP_CAMERA entry '%s' is not A.B.C.D:PORT", entry.c_str());
            continue;
        }
        camera.peer.sin_port = htons(static_cast<uint16_t>(port));
        camera.bus = kSimulatedBus;
        camera.number = kFirstSimulatedDevice + index;
        camera.model = "PTP/IP Camera";
        // The event channel's port is named too: libgphoto2 would otherwise take the standard
        // PTP/IP port for it.
        camera.port = "ptpip:" + entry + ":" + std::to_string(port);
        camera.networked = true;
        found.push_back(camera);
    }
    return found;
}

// The cameras libgphoto2 detects on USB. The port list is loaded afresh (a camera plugged in
// since the last look has a port only in a new list) and kept for opening them.
std::vector<Found> UsbCameras(Client& c) {
    std::vector<Found> found;
    GPPortInfoList* rawPorts = nullptr;
    if (gp_port_info_list_new(&rawPorts) < GP_OK) return found;
    MtpScopedPorts ports(rawPorts);
    if (gp_port_info_list_load(ports.get()) < GP_OK) return found;
    // Detection opens the port of every attached device once per known camera model (some
    // thousands), so it is run only when a USB device is attached at all.
    bool attached = false;
    for (int i = 0; i < gp_port_info_list_count(ports.get()) && !attached; ++i) {
        GPPortInfo info;
        char* path = nullptr;
        int bus = 0;
        int number = 0;
        attached = gp_port_info_list_get_info(ports.get(), i, &info) >= GP_OK &&
                   gp_port_info_get_path(info, &path) >= GP_OK && path != nullptr &&
                   std::sscanf(path, "usb:%d,%d", &bus, &number) == 2;
    }
    c.ports = std::move(ports);
    if (!attached) return found;
    CameraList* rawList = nullptr;
    if (gp_list_new(&rawList) < GP_OK) return found;
    MtpScopedList list(rawList);
    if (gp_abilities_list_detect(c.abilities.get(), c.ports.get(), list.get(), c.context.get()) >=
        GP_OK) {
        for (int i = 0; i < gp_list_count(list.get()); ++i) {
            const char* model = nullptr;
            const char* port = nullptr;
            if (gp_list_get_name(list.get(), i, &model) < GP_OK ||
                gp_list_get_value(list.get(), i, &port) < GP_OK || model == nullptr ||
                port == nullptr) {
                continue;
            }
            Found camera;
            char tail = 0;
            if (std::sscanf(port, "usb:%d,%d%c", &camera.bus, &camera.number, &tail) != 2) continue;
            camera.model = model;
            camera.port = port;
            found.push_back(camera);
        }
    }
    return found;
}

// The registry entry for a detected camera. A different camera at the same numbers starts
// a fresh numbering.
Device* Register(Client& c, const Found& found) {
    for (auto& d : c.devices) {
        if (d->bus != found.bus || d->number != found.number) continue;
        if (d->model != found.model || d->port != found.port) {
            d->camera.reset();
            d->openCount = 0;
            d->storages.clear();
            d->objects.Clear();
            d->model = found.model;
            d->port = found.port;
        }
        d->networked = found.networked;
        d->peer = found.peer;
        return d.get();
    }
    auto d = std::make_unique<Device>();
    d->handle = static_cast<int>(c.devices.size()) + 1;
    d->bus = found.bus;
    d->number = found.number;
    d->model = found.model;
    d->port = found.port;
    d->networked = found.networked;
    d->peer = found.peer;
    c.devices.push_back(std::move(d));
    return c.devices.back().get();
}

std::vector<Device*> Detect(Client& c) {
    std::vector<Device*> devices;
    for (const Found& f : UsbCameras(c)) devices.push_back(Register(c, f));
    for (const Found& f : SimulatedCameras()) devices.push_back(Register(c, f));
    return devices;
}

// Bounds the calls of one entry point on a networked device; arms nothing on USB, where
// libgphoto2's own port timeouts apply.
class Deadline {
public:
    explicit Deadline(const Device& d) : m_Deadline(d.peer, d.networked ? d.timeoutMs : 0) {}
    bool Fired() { return m_Deadline.Fired(); }

private:
    CMtpCallDeadline m_Deadline;
};

int OpenDevice(Client& c, int handle, Device** out) {
    if (c.initCount == 0) return MTP_ERROR_NOT_INITIALIZED;
    if (handle <= 0 || static_cast<size_t>(handle) > c.devices.size()) return MTP_ERROR_NO_DEVICE;
    Device* d = c.devices[static_cast<size_t>(handle) - 1].get();
    if (d->openCount == 0) return MTP_ERROR_NO_DEVICE;
    *out = d;
    return MTP_ERROR_NONE;
}

// After a failed call: a camera cut off by the deadline, or one that no longer answers, is
// closed so that the next call opens it again. The client's numbering is kept.
void AfterFailure(Device& d, Deadline& deadline, int gpResult) {
    QRB_LOGW("device %d (%s): %s", d.handle, d.port.c_str(), gp_result_as_string(gpResult));
    if (!d.camera) return;
    if (deadline.Fired() || !d.camera->Answers()) {
        QRB_LOGW("device %d (%s) does not answer; it is opened again on the next call", d.handle,
                 d.port.c_str());
        d.camera.reset();
    }
}

int Numbered(Device& d, int storage, int parent, const std::string& folder, int depth) {
    if (depth > kMaxFolderDepth) return GP_OK;
    std::vector<std::string> folders;
    std::vector<std::string> files;
    int ret = d.camera->ListFolders(folder, &folders);
    if (ret < GP_OK) return ret;
    ret = d.camera->ListFiles(folder, &files);
    if (ret < GP_OK) return ret;
    std::vector<int> subfolders;
    for (const std::string& name : folders) {
        // A name the table knows as a file (a camera may repeat a name) is not descended into.
        const int h = d.objects.Intern(storage, parent, folder, name, true);
        if (h != 0 && d.objects.Find(h)->isFolder) subfolders.push_back(h);
    }
    for (const std::string& name : files) d.objects.Intern(storage, parent, folder, name, false);
    for (int h : subfolders) {
        const std::string path = d.objects.Find(h)->Path();
        ret = Numbered(d, storage, h, path, depth + 1);
        if (ret < GP_OK) return ret;
    }
    return GP_OK;
}

// Makes sure the device's camera is open: opens it (again) when needed, with its storages,
// and numbers every object on the first opening in this process.
int Ready(Client& c, Device& d, Deadline& deadline) {
    if (d.camera) return MTP_ERROR_NONE;
    auto camera = std::make_unique<CMtpCamera>();
    int ret = camera->Open(c.context.get(), c.abilities.get(), c.ports.get(), d.model, d.port);
    if (ret >= GP_OK) ret = camera->Storages(&d.storages);
    if (ret < GP_OK) {
        QRB_LOGW("opening %s (%s) failed: %s", d.model.c_str(), d.port.c_str(),
                 gp_result_as_string(ret));
        return MTP_ERROR_IO;
    }
    d.camera = std::move(camera);
    if (d.objects.Size() == 0) {
        for (const CMtpCamera::Storage& s : d.storages) {
            ret = Numbered(d, s.id, 0, s.basedir, 0);
            if (ret < GP_OK) {
                AfterFailure(d, deadline, ret);
                return MTP_ERROR_IO;
            }
        }
        QRB_LOGD("device %d: %zu objects numbered", d.handle, d.objects.Size());
    }
    return MTP_ERROR_NONE;
}

mtp_filetype_e TypeOfMime(const std::string& mime) {
    if (mime == GP_MIME_JPEG) return MTP_FILETYPE_JPEG;
    if (mime == GP_MIME_PNG) return MTP_FILETYPE_PNG;
    if (mime == GP_MIME_BMP || mime == "image/x-ms-bmp") return MTP_FILETYPE_BMP;
    return MTP_FILETYPE_OTHER;
}

bool ValidFilter(mtp_filetype_e type) {
    switch (type) {
        case MTP_FILETYPE_FOLDER:
        case MTP_FILETYPE_JPEG:
        case MTP_FILETYPE_BMP:
        case MTP_FILETYPE_PNG:
        case MTP_FILETYPE_OTHER:
        case MTP_FILETYPE_ALL:
            return true;
    }
    return false;
}

// libgphoto2's verdict on a request as the interface reports it.
int ErrorOf(int gpResult) {
    switch (gpResult) {
        case GP_ERROR_FILE_NOT_FOUND:
        case GP_ERROR_DIRECTORY_NOT_FOUND:
            return MTP_ERROR_INVALID_OBJECT_HANDLE;
        case GP_ERROR_NO_MEMORY:
            return MTP_ERROR_TOO_LARGE;
        default:
            return MTP_ERROR_IO;
    }
}

bool IsJpeg(const std::string& bytes) {
    return bytes.size() >= 4 && static_cast<unsigned char>(bytes[0]) == 0xFF &&
           static_cast<unsigned char>(bytes[1]) == 0xD8 &&
           static_cast<unsigned char>(bytes[2]) == 0xFF;
}

// The object of a handle, which must be a file; null without a word to the camera.
const CMtpObjectTable::Entry* FileEntry(Device& d, int handle) {
    const CMtpObjectTable::Entry* entry = d.objects.Find(handle);
    if (entry == nullptr || entry->isFolder) {
        QRB_LOGW("device %d: no file with handle %d", d.handle, handle);
        return nullptr;
    }
    return entry;
}

}  // namespace

extern "C" int mtp_initialize(void) {
    Client& c = TheClient();
    CMtpCallScope scope(c.lock);
    if (c.initCount > 0) {
        ++c.initCount;
        return MTP_ERROR_NONE;
    }
    c.context.reset(gp_context_new());
    if (!c.context) return MTP_ERROR_OUT_OF_MEMORY;
    gp_context_set_error_func(c.context.get(), LogContextError, nullptr);
    CameraAbilitiesList* abilities = nullptr;
    if (gp_abilities_list_new(&abilities) < GP_OK) return MTP_ERROR_OUT_OF_MEMORY;
    c.abilities.reset(abilities);
    GPPortInfoList* ports = nullptr;
    if (gp_port_info_list_new(&ports) < GP_OK) return MTP_ERROR_OUT_OF_MEMORY;
    c.ports.reset(ports);
    int ret = gp_abilities_list_load(c.abilities.get(), c.context.get());
    if (ret >= GP_OK) ret = gp_port_info_list_load(c.ports.get());
    if (ret < GP_OK) {
        QRB_LOGW("loading the camera drivers failed: %s", gp_result_as_string(ret));
        c.abilities.reset();
        c.ports.reset();
        c.context.reset();
        return MTP_ERROR_GENERAL;
    }
    c.initCount = 1;
    return MTP_ERROR_NONE;
}

extern "C" int mtp_deinitialize(void) {
    Client& c = TheClient();
    CMtpCallScope scope(c.lock);
    if (c.initCount == 0) return MTP_ERROR_NOT_INITIALIZED;
    if (--c.initCount > 0) return MTP_ERROR_NONE;
    for (auto& d : c.devices) {
        Deadline deadline(*d);
        d->camera.reset();
        d->openCount = 0;
    }
    c.ports.reset();
    c.abilities.reset();
    c.context.reset();
    return MTP_ERROR_NONE;
}

extern "C" int mtp_get_device_list(mtp_device_list** list) {
    if (list == nullptr) return MTP_ERROR_INVALID_PARAMETER;
    *list = nullptr;
    Client& c = TheClient();
    CMtpCallScope scope(c.lock);
    if (c.initCount == 0) return MTP_ERROR_NOT_INITIALIZED;
    const std::vector<Device*> devices = Detect(c);
    // Freed by mtp_destroy_device_list.
    auto* out = static_cast<mtp_device_list*>(std::calloc(1, sizeof(mtp_device_list)));
    if (out == nullptr) return MTP_ERROR_OUT_OF_MEMORY;
    out->devices =
        static_cast<mtp_raw_device*>(std::calloc(devices.size() + 1, sizeof(mtp_raw_device)));
    if (out->devices == nullptr) {
        std::free(out);
        return MTP_ERROR_OUT_OF_MEMORY;
    }
    for (Device* d : devices) {
        mtp_raw_device& raw = out->devices[out->device_num++];
        raw.bus_location = d->bus;
        raw.device_number = d->number;
        std::snprintf(raw.model_name, sizeof(raw.model_name), "%s", d->model.c_str());
    }
    *list = out;
    return MTP_ERROR_NONE;
}

extern "C" void mtp_destroy_device_list(mtp_device_list* list) {
    if (list == nullptr) return;
    std::free(list->devices);
    std::free(list);
}

extern "C" int mtp_get_device_handle_internal(int bus_location, int device_number,
                                              int* device_handle) {
    if (device_handle == nullptr) return MTP_ERROR_INVALID_PARAMETER;
    *device_handle = 0;
    Client& c = TheClient();
    CMtpCallScope scope(c.lock);
    if (c.initCount == 0) return MTP_ERROR_NOT_INITIALIZED;
    Device* device = nullptr;
    for (int pass = 0; pass < 2 && device == nullptr; ++pass) {
        // A device not seen in a list yet is looked for once.
        if (pass == 1) Detect(c);
        for (auto& d : c.devices) {
            if (d->bus == bus_location && d->number == device_number) device = d.get();
        }
    }
    if (device == nullptr) return MTP_ERROR_NO_DEVICE;
    device->timeoutMs = TimeoutMs();
    Deadline deadline(*device);
    const int ret = Ready(c, *device, deadline);
    if (ret != MTP_ERROR_NONE) return ret;
    ++device->openCount;
    *device_handle = device->handle;
    return MTP_ERROR_NONE;
}

extern "C" int mtp_close_device(int device_handle) {
    Client& c = TheClient();
    CMtpCallScope scope(c.lock);
    Device* d = nullptr;
    const int ret = OpenDevice(c, device_handle, &d);
    if (ret != MTP_ERROR_NONE) return ret;
    if (--d->openCount == 0) {
        Deadline deadline(*d);
        d->camera.reset();
    }
    return MTP_ERROR_NONE;
}

extern "C" int mtp_get_storage_ids(int device_handle, int** storage_ids, int* count) {
    if (storage_ids == nullptr || count == nullptr) return MTP_ERROR_INVALID_PARAMETER;
    *storage_ids = nullptr;
    *count = 0;
    Client& c = TheClient();
    CMtpCallScope scope(c.lock);
    Device* d = nullptr;
    int ret = OpenDevice(c, device_handle, &d);
    if (ret != MTP_ERROR_NONE) return ret;
    Deadline deadline(*d);
    ret = Ready(c, *d, deadline);
    if (ret != MTP_ERROR_NONE) return ret;
    // Asked again each time: a card may have been put in or taken out.
    const int gp = d->camera->Storages(&d->storages);
    if (gp < GP_OK) {
        AfterFailure(*d, deadline, gp);
        return ErrorOf(gp);
    }
    if (d->storages.empty()) return MTP_ERROR_NONE;
    // Freed by the caller.
    int* ids = static_cast<int*>(std::malloc(d->storages.size() * sizeof(int)));
    if (ids == nullptr) return MTP_ERROR_OUT_OF_MEMORY;
    for (size_t i = 0; i < d->storages.size(); ++i) ids[i] = d->storages[i].id;
    *storage_ids = ids;
    *count = static_cast<int>(d->storages.size());
    return MTP_ERROR_NONE;
}

extern "C" int mtp_get_object_handles(int device_handle, int storage_id, mtp_filetype_e file_type,
                                      int parent_object_handle, int** object_handles, int* count) {
    if (object_handles == nullptr || count == nullptr || !ValidFilter(file_type)) {
        return MTP_ERROR_INVALID_PARAMETER;
    }
    *object_handles = nullptr;
    *count = 0;
    Client& c = TheClient();
    CMtpCallScope scope(c.lock);
    Device* d = nullptr;
    int ret = OpenDevice(c, device_handle, &d);
    if (ret != MTP_ERROR_NONE) return ret;

    std::string folder;
    if (parent_object_handle == 0) {
        for (const CMtpCamera::Storage& s : d->storages) {
            if (s.id == storage_id) folder = s.basedir;
        }
        if (folder.empty()) return MTP_ERROR_INVALID_PARAMETER;
    } else {
        const CMtpObjectTable::Entry* parent = d->objects.Find(parent_object_handle);
        if (parent == nullptr || !parent->isFolder || parent->storage != storage_id) {
            return MTP_ERROR_INVALID_OBJECT_HANDLE;
        }
        folder = parent->Path();
    }

    Deadline deadline(*d);
    ret = Ready(c, *d, deadline);
    if (ret != MTP_ERROR_NONE) return ret;
    std::vector<int> handles;
    std::vector<std::string> names;
    int gp = GP_OK;
    if (file_type == MTP_FILETYPE_ALL || file_type == MTP_FILETYPE_FOLDER) {
        gp = d->camera->ListFolders(folder, &names);
        for (size_t i = 0; gp >= GP_OK && i < names.size(); ++i) {
            const int h =
                d->objects.Intern(storage_id, parent_object_handle, folder, names[i], true);
            if (h != 0) handles.push_back(h);
        }
    }
    if (gp >= GP_OK && file_type != MTP_FILETYPE_FOLDER) {
        gp = d->camera->ListFiles(folder, &names);
        for (size_t i = 0; gp >= GP_OK && i < names.size(); ++i) {
            const int h =
                d->objects.Intern(storage_id, parent_object_handle, folder, names[i], false);
            if (h == 0) continue;
            if (file_type != MTP_FILETYPE_ALL) {
                CMtpCamera::FileInfo info;
                if (d->camera->GetInfo(folder, names[i], &info) < GP_OK ||
                    TypeOfMime(info.mime) != file_type) {
                    continue;
                }
            }
            handles.push_back(h);
        }
    }
    if (gp < GP_OK) {
        AfterFailure(*d, deadline, gp);
        return ErrorOf(gp);
    }
    if (handles.empty()) return MTP_ERROR_NONE;
    // Freed by the caller.
    int* out = static_cast<int*>(std::malloc(handles.size() * sizeof(int)));
    if (out == nullptr) return MTP_ERROR_OUT_OF_MEMORY;
    std::memcpy(out, handles.data(), handles.size() * sizeof(int));
    *object_handles = out;
    *count = static_cast<int>(handles.size());
    return MTP_ERROR_NONE;
}

extern "C" int mtp_objectinfo_get_object_info(int device_handle, int object_handle,
                                              mtp_object_info* info) {
    if (info == nullptr) return MTP_ERROR_INVALID_PARAMETER;
    Client& c = TheClient();
    CMtpCallScope scope(c.lock);
    Device* d = nullptr;
    int ret = OpenDevice(c, device_handle, &d);
    if (ret != MTP_ERROR_NONE) return ret;
    const CMtpObjectTable::Entry* entry = d->objects.Find(object_handle);
    if (entry == nullptr) return MTP_ERROR_INVALID_OBJECT_HANDLE;

    mtp_object_info out{};
    out.storage_id = entry->storage;
    out.parent_object_handle = entry->parent;
    std::snprintf(out.filename, sizeof(out.filename), "%s", entry->name.c_str());
    out.file_type = MTP_FILETYPE_FOLDER;
    if (!entry->isFolder) {
        Deadline deadline(*d);
        ret = Ready(c, *d, deadline);
        if (ret != MTP_ERROR_NONE) return ret;
        CMtpCamera::FileInfo fi;
        const int gp = d->camera->GetInfo(entry->folder, entry->name, &fi);
        if (gp < GP_OK) {
            AfterFailure(*d, deadline, gp);
            return ErrorOf(gp);
        }
        out.file_type = TypeOfMime(fi.mime);
        out.size = fi.size;
        out.modified = fi.modified;
        out.image_width = fi.width;
        out.image_height = fi.height;
    }
    *info = out;
    return MTP_ERROR_NONE;
}

extern "C" int mtp_get_thumbnail(int device_handle, int object_handle, const char* dest_path) {
    if (dest_path == nullptr || *dest_path == '\0' || std::strlen(dest_path) >= PATH_MAX) {
        return MTP_ERROR_INVALID_PARAMETER;
    }
    Client& c = TheClient();
    CMtpCallScope scope(c.lock);
    Device* d = nullptr;
    int ret = OpenDevice(c, device_handle, &d);
    if (ret != MTP_ERROR_NONE) return ret;
    const CMtpObjectTable::Entry* entry = FileEntry(*d, object_handle);
    if (entry == nullptr) return MTP_ERROR_INVALID_OBJECT_HANDLE;

    Deadline deadline(*d);
    ret = Ready(c, *d, deadline);
    if (ret != MTP_ERROR_NONE) return ret;
    std::string bytes;
    const int gp = d->camera->GetFile(entry->folder, entry->name, true, kMaxThumbnailBytes, &bytes);
    if (gp < GP_OK) {
        AfterFailure(*d, deadline, gp);
        // A camera that still answers simply has no thumbnail of this object.
        if (gp == GP_ERROR_NO_MEMORY) return MTP_ERROR_TOO_LARGE;
        return d->camera ? MTP_ERROR_NO_THUMBNAIL : MTP_ERROR_IO;
    }
    if (bytes.empty() || !IsJpeg(bytes)) {
        QRB_LOGW("device %d: the thumbnail of %s is %s", d->handle, entry->Path().c_str(),
                 bytes.empty() ? "empty" : "not a JPEG");
        return MTP_ERROR_NO_THUMBNAIL;
    }
    // Beside the destination, renamed into place once complete (rename replaces whatever is at
    // dest, a link included, without following it).
    QRBTempFile temp;
    if (!temp.CreateBeside(dest_path) || !temp.Write(bytes.data(), bytes.size()) ||
        !temp.RenameTo(dest_path)) {
        QRB_LOGW("writing %s failed, errno=%d", dest_path, errno);
        return MTP_ERROR_FILE;
    }
    return MTP_ERROR_NONE;
}

extern "C" int mtp_get_object(int device_handle, int object_handle, unsigned char** data,
                              unsigned long* size) {
    if (data == nullptr || size == nullptr) return MTP_ERROR_INVALID_PARAMETER;
    *data = nullptr;
    *size = 0;
    Client& c = TheClient();
    CMtpCallScope scope(c.lock);
    Device* d = nullptr;
    int ret = OpenDevice(c, device_handle, &d);
    if (ret != MTP_ERROR_NONE) return ret;
    const CMtpObjectTable::Entry* entry = FileEntry(*d, object_handle);
    if (entry == nullptr) return MTP_ERROR_INVALID_OBJECT_HANDLE;

    Deadline deadline(*d);
    ret = Ready(c, *d, deadline);
    if (ret != MTP_ERROR_NONE) return ret;
    // The announced size is checked first, so that an oversized file is not fetched at all.
    CMtpCamera::FileInfo info;
    int gp = d->camera->GetInfo(entry->folder, entry->name, &info);
    if (gp >= GP_OK && info.size > kMaxObjectBytes) return MTP_ERROR_TOO_LARGE;
    std::string bytes;
    if (gp >= GP_OK)
        gp = d->camera->GetFile(entry->folder, entry->name, false, kMaxObjectBytes, &bytes);
    if (gp < GP_OK) {
        AfterFailure(*d, deadline, gp);
        return ErrorOf(gp);
    }
    // Freed by the caller; one byte at least, so that an empty file is not a null buffer.
    auto* out = static_cast<unsigned char*>(std::malloc(bytes.size() + 1));
    if (out == nullptr) return MTP_ERROR_OUT_OF_MEMORY;
    if (!bytes.empty()) std::memcpy(out, bytes.data(), bytes.size());
    *data = out;
    *size = bytes.size();
    return MTP_ERROR_NONE;
}
