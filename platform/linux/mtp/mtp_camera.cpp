#include "mtp_camera.h"

#include <cstdio>
#include <cstdlib>

namespace {

// libgphoto2 allocates the storage array with malloc and leaves it to the caller.
void FreeStorages(CameraStorageInformation* s) { std::free(s); }
using ScopedStorages = QRBScoped<CameraStorageInformation, FreeStorages>;

int ListNames(const std::string& folder, std::vector<std::string>* names,
              int (*list)(Camera*, const char*, CameraList*, GPContext*), Camera* camera,
              GPContext* context) {
    names->clear();
    CameraList* raw = nullptr;
    int ret = gp_list_new(&raw);
    MtpScopedList entries(raw);
    if (ret < GP_OK) return ret;
    ret = list(camera, folder.c_str(), entries.get(), context);
    if (ret < GP_OK) return ret;
    const int count = gp_list_count(entries.get());
    for (int i = 0; i < count; ++i) {
        const char* name = nullptr;
        if (gp_list_get_name(entries.get(), i, &name) == GP_OK && name != nullptr) {
            names->push_back(name);
        }
    }
    return GP_OK;
}

}  // namespace

CMtpCamera::~CMtpCamera() { Close(); }

int CMtpCamera::Open(GPContext* context, CameraAbilitiesList* abilities, GPPortInfoList* ports,
                     const std::string& model, const std::string& port) {
    Close();
    m_pContext = context;
    Camera* raw = nullptr;
    int ret = gp_camera_new(&raw);
    MtpScopedCamera camera(raw);
    if (ret < GP_OK) return ret;

    const int model_index = gp_abilities_list_lookup_model(abilities, model.c_str());
    if (model_index < GP_OK) return model_index;
    CameraAbilities a;
    ret = gp_abilities_list_get_abilities(abilities, model_index, &a);
    if (ret < GP_OK) return ret;
    ret = gp_camera_set_abilities(camera.get(), a);
    if (ret < GP_OK) return ret;

    const int port_index = gp_port_info_list_lookup_path(ports, port.c_str());
    if (port_index < GP_OK) return port_index;
    GPPortInfo info;
    ret = gp_port_info_list_get_info(ports, port_index, &info);
    if (ret < GP_OK) return ret;
    // The camera copies what it needs of the port information.
    ret = gp_camera_set_port_info(camera.get(), info);
    if (ret < GP_OK) return ret;

    ret = gp_camera_init(camera.get(), context);
    if (ret < GP_OK) return ret;
    m_Camera = std::move(camera);
    return GP_OK;
}

void CMtpCamera::Close() {
    if (!m_Camera) return;
    // Ends the session; against a camera that has gone, the exchange fails at once (its
    // sockets are closed or shut down) and the handles are released all the same.
    gp_camera_exit(m_Camera.get(), m_pContext);
    m_Camera.reset();
}

int CMtpCamera::Storages(std::vector<Storage>* storages) {
    storages->clear();
    CameraStorageInformation* raw = nullptr;
    int count = 0;
    const int ret = gp_camera_get_storageinfo(m_Camera.get(), &raw, &count, m_pContext);
    ScopedStorages infos(raw);
    if (ret == GP_ERROR_NOT_SUPPORTED) {
        storages->push_back(Storage{1, "/"});
        return GP_OK;
    }
    if (ret < GP_OK) return ret;
    for (int i = 0; i < count; ++i) {
        const CameraStorageInformation& s = infos.get()[i];
        if (!(s.fields & GP_STORAGEINFO_BASE)) continue;
        Storage storage;
        storage.basedir = s.basedir;
        // A PTP camera's storages are the folders "/store_<storage id in hex>".
        unsigned int id = 0;
        char tail = 0;
        if (std::sscanf(s.basedir, "/store_%8x%c", &id, &tail) == 1 && id != 0 &&
            id <= 0x7FFFFFFFu) {
            storage.id = static_cast<int>(id);
        } else {
            storage.id = i + 1;
        }
        storages->push_back(storage);
    }
    return GP_OK;
}

int CMtpCamera::ListFolders(const std::string& folder, std::vector<std::string>* names) {
    return ListNames(folder, names, gp_camera_folder_list_folders, m_Camera.get(), m_pContext);
}

int CMtpCamera::ListFiles(const std::string& folder, std::vector<std::string>* names) {
    return ListNames(folder, names, gp_camera_folder_list_files, m_Camera.get(), m_pContext);
}

int CMtpCamera::GetInfo(const std::string& folder, const std::string& name, FileInfo* info) {
    CameraFileInfo raw;
    const int ret =
        gp_camera_file_get_info(m_Camera.get(), folder.c_str(), name.c_str(), &raw, m_pContext);
    if (ret < GP_OK) return ret;
    *info = FileInfo();
    const CameraFileInfoFile& f = raw.file;
    if (f.fields & GP_FILE_INFO_TYPE) info->mime = f.type;
    if (f.fields & GP_FILE_INFO_SIZE) info->size = f.size;
    if (f.fields & GP_FILE_INFO_MTIME) info->modified = static_cast<long long>(f.mtime);
    if (f.fields & GP_FILE_INFO_WIDTH) info->width = static_cast<int>(f.width);
    if (f.fields & GP_FILE_INFO_HEIGHT) info->height = static_cast<int>(f.height);
    return GP_OK;
}

int CMtpCamera::GetFile(const std::string& folder, const std::string& name, bool preview,
                        size_t maxBytes, std::string* bytes) {
    bytes->clear();
    CameraFile* raw = nullptr;
    int ret = gp_file_new(&raw);
    MtpScopedFile file(raw);
    if (ret < GP_OK) return ret;
    ret = gp_camera_file_get(m_Camera.get(), folder.c_str(), name.c_str(),
                             preview ? GP_FILE_TYPE_PREVIEW : GP_FILE_TYPE_NORMAL, file.get(),
                             m_pContext);
    if (ret < GP_OK) return ret;
    const char* data = nullptr;
    unsigned long size = 0;
    ret = gp_file_get_data_and_size(file.get(), &data, &size);
    if (ret < GP_OK) return ret;
    if (size > maxBytes) return GP_ERROR_NO_MEMORY;
    if (size > 0) bytes->assign(data, size);
    return GP_OK;
}

bool CMtpCamera::Answers() {
    if (!m_Camera) return false;
    CameraStorageInformation* raw = nullptr;
    int count = 0;
    const int ret = gp_camera_get_storageinfo(m_Camera.get(), &raw, &count, m_pContext);
    ScopedStorages infos(raw);
    return ret >= GP_OK || ret == GP_ERROR_NOT_SUPPORTED;
}
