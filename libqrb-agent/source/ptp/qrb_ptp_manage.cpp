#define QRB_LOG_TAG "QRB-LOCAL"

#include "qrb_ptp_manage.h"

#include "mtp.h"
#include "qrb_log.h"
#include "qrb_scoped.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace {

void FreeInts(int* p) { std::free(p); }
using ScopedInts = QRBScoped<int, FreeInts>;
using ScopedDeviceList = QRBScoped<mtp_device_list, mtp_destroy_device_list>;

// The download path is handed on in a buffer of this size, as the MTP client's callers do.
constexpr size_t kMaxDownloadPath = 4096;

const char* TypeName(int fileType) {
    switch (fileType) {
        case MTP_FILETYPE_FOLDER:
            return "FOLDER";
        case MTP_FILETYPE_JPEG:
            return "JPEG";
        case MTP_FILETYPE_BMP:
            return "BMP";
        case MTP_FILETYPE_PNG:
            return "PNG";
        default:
            return nullptr;  // not listed
    }
}

}  // namespace

CQRBPTPManage::~CQRBPTPManage() {
    CQRBAutoLock lock(m_Mutex);
    m_ReleaseCamera();
}

void CQRBPTPManage::m_ReleaseCamera() {
    if (m_nDeviceHandle == 0) return;
    mtp_close_device(m_nDeviceHandle);
    mtp_deinitialize();
    m_nDeviceHandle = 0;
    m_nStorageID = 0;
    m_nBusID = -1;
    m_nDeviceID = -1;
}

bool CQRBPTPManage::m_FindCamera(int nBusID, int nDeviceID, int* pHandle, bool bNeedStorage) {
    if (nBusID < 0 || nDeviceID < 0) {
        QRB_LOGW("nBusID or nDeviceID param error");
        return false;
    }
    if (m_nDeviceHandle != 0 && m_nBusID == nBusID && m_nDeviceID == nDeviceID) {
        QRB_LOGD("Camera found, return directly");
        if (m_nStorageID == 0 && bNeedStorage) {
            // A card may have been put in since the camera was opened without one.
            int* raw = nullptr;
            int count = 0;
            const int ret = mtp_get_storage_ids(m_nDeviceHandle, &raw, &count);
            ScopedInts ids(raw);
            QRB_LOGD("mtp_get_storage_ids %d", ret);
            if (ret != MTP_ERROR_NONE || count == 0) return false;
            m_nStorageID = ids.get()[0];
        }
        *pHandle = m_nDeviceHandle;
        return true;
    }

    QRB_LOGI("release old camera, new one ,nBusID : %d, nDeviceID : %d", nBusID, nDeviceID);
    m_ReleaseCamera();
    int ret = mtp_initialize();
    if (ret != MTP_ERROR_NONE) {
        QRB_LOGW("[ptp performance] mtp_initialize failed %d", ret);
        return false;
    }
    mtp_device_list* rawList = nullptr;
    ret = mtp_get_device_list(&rawList);
    ScopedDeviceList devList(rawList);
    if (ret != MTP_ERROR_NONE || !devList) {
        QRB_LOGW("[ptp performance] mtp_get_device_list failed %d", ret);
        mtp_deinitialize();
        return false;
    }
    QRB_LOGI("[ptp performance]after mtp_initialize %p,dev_list->device_num : %d",
             static_cast<void*>(devList.get()), devList->device_num);
    bool found = false;
    for (int i = 0; i < devList->device_num && !found; ++i) {
        const mtp_raw_device& d = devList->devices[i];
        QRB_LOGD("dev_list bus_location : %d,device_number: %d .", d.bus_location, d.device_number);
        found = d.bus_location == nBusID && d.device_number == nDeviceID;
    }
    if (!found) {
        mtp_deinitialize();
        return false;
    }

    int handle = 0;
    ret = mtp_get_device_handle_internal(nBusID, nDeviceID, &handle);
    if (ret != MTP_ERROR_NONE) {
        QRB_LOGW("mtp_get_device_handle_internal failed : %d", ret);
        mtp_deinitialize();
        return false;
    }
    QRB_LOGI("[ptp performance]get device handle success");

    int* rawIds = nullptr;
    int count = 0;
    ret = mtp_get_storage_ids(handle, &rawIds, &count);
    ScopedInts ids(rawIds);
    QRB_LOGD("mtp_get_storage_ids %d", ret);
    const int storage = (ret == MTP_ERROR_NONE && count > 0) ? ids.get()[0] : 0;
    if (storage == 0 && bNeedStorage) {
        mtp_close_device(handle);
        mtp_deinitialize();
        return false;
    }

    m_nBusID = nBusID;
    m_nDeviceID = nDeviceID;
    m_nDeviceHandle = handle;
    m_nStorageID = storage;
    QRB_LOGI("[ptp performance]Camera : %d, Storage : %d", m_nDeviceHandle, m_nStorageID);
    *pHandle = handle;
    return true;
}

bool CQRBPTPManage::DownloadExif(int nBusID, int nDeviceID, std::string strFilePath,
                                 std::string strDownloadPath) {
    if (strFilePath.empty() || strDownloadPath.empty()) {
        QRB_LOGW("Please check param, strFilePath or strDownloadPath is empty");
        return false;
    }
    if (strDownloadPath.size() >= kMaxDownloadPath) {
        QRB_LOGW("strDownloadPath is longer than %zu bytes", kMaxDownloadPath - 1);
        return false;
    }
    CQRBAutoLock lock(m_Mutex);
    QRB_LOGD("after lock");
    int handle = 0;
    if (!m_FindCamera(nBusID, nDeviceID, &handle, false)) {
        QRB_LOGW("Can not find camera");
        return false;
    }
    errno = 0;
    const long parsed = std::strtol(strFilePath.c_str(), nullptr, 10);
    // A number beyond int names no object; -1 is refused by the client like any unknown one.
    const int object =
        (errno == ERANGE || parsed > INT_MAX || parsed < INT_MIN) ? -1 : static_cast<int>(parsed);
    QRB_LOGD("object_handle : %d", object);
    char szDownloadPath[kMaxDownloadPath] = {0};
    std::memcpy(szDownloadPath, strDownloadPath.data(), strDownloadPath.size());
    const int ret = mtp_get_thumbnail(handle, object, szDownloadPath);
    if (ret != MTP_ERROR_NONE) {
        QRB_LOGW("mtp_get_thumbnail error: %d", ret);
        return false;
    }
    return true;
}

int CQRBPTPManage::m_FindChild(int nStorage, int nParent, const std::string& strName,
                               bool bFolder) {
    int* raw = nullptr;
    int count = 0;
    const int ret = mtp_get_object_handles(m_nDeviceHandle, nStorage,
                                           bFolder ? MTP_FILETYPE_FOLDER : MTP_FILETYPE_ALL,
                                           nParent, &raw, &count);
    ScopedInts handles(raw);
    if (ret != MTP_ERROR_NONE) return 0;
    for (int i = 0; i < count; ++i) {
        mtp_object_info info{};
        if (mtp_objectinfo_get_object_info(m_nDeviceHandle, handles.get()[i], &info) !=
            MTP_ERROR_NONE) {
            continue;
        }
        if ((info.file_type == MTP_FILETYPE_FOLDER) == bFolder && strName == info.filename) {
            return handles.get()[i];
        }
    }
    return 0;
}

int CQRBPTPManage::m_FindFile(const std::string& strFolder, const std::string& strName) {
    int* raw = nullptr;
    int count = 0;
    if (mtp_get_storage_ids(m_nDeviceHandle, &raw, &count) != MTP_ERROR_NONE) return 0;
    ScopedInts storages(raw);
    for (int s = 0; s < count; ++s) {
        const int storage = storages.get()[s];
        int parent = 0;
        bool found = true;
        std::stringstream parts(strFolder);
        std::string part;
        while (found && std::getline(parts, part, '/')) {
            if (part.empty()) continue;
            parent = m_FindChild(storage, parent, part, true);
            found = parent != 0;
        }
        if (!found) continue;
        const int file = m_FindChild(storage, parent, strName, false);
        if (file != 0) return file;
    }
    return 0;
}

bool CQRBPTPManage::DownloadFileToBuffer(int nBusID, int nDeviceID, std::string strFilePath,
                                         char** ppBuffer, unsigned long* pSize) {
    if (strFilePath.empty()) {
        QRB_LOGW("Please check param, strFilePath is empty");
        return false;
    }
    if (ppBuffer == nullptr || pSize == nullptr) return false;
    *ppBuffer = nullptr;
    *pSize = 0;
    const size_t slash = strFilePath.rfind('/');
    const std::string strFolderPath =
        slash == std::string::npos ? "" : strFilePath.substr(0, slash);
    const std::string strFileName =
        slash == std::string::npos ? strFilePath : strFilePath.substr(slash + 1);
    QRB_LOGD("strFolderPath=%s", strFolderPath.c_str());
    QRB_LOGD("strFileName=%s", strFileName.c_str());

    CQRBAutoLock lock(m_Mutex);
    QRB_LOGD("after lock");
    int handle = 0;
    if (!m_FindCamera(nBusID, nDeviceID, &handle, true)) {
        QRB_LOGW("Can not find camera");
        return false;
    }
    const int object = m_FindFile(strFolderPath, strFileName);
    if (object == 0) {
        QRB_LOGW("no file %s on the camera", strFilePath.c_str());
        return false;
    }
    QRB_LOGD("[ptp performance]after open");
    unsigned char* data = nullptr;
    unsigned long size = 0;
    const int ret = mtp_get_object(handle, object, &data, &size);
    QRB_LOGD("[ptp performance]before close");
    if (ret != MTP_ERROR_NONE) {
        QRB_LOGW("mtp_get_object error: %d", ret);
        return false;
    }
    *ppBuffer = reinterpret_cast<char*>(data);  // malloc'ed by the client; the caller frees it
    *pSize = size;
    return true;
}

bool CQRBPTPManage::m_MakeItem(int nObject, _ptp_data_item* item) {
    mtp_object_info info{};
    const int ret = mtp_objectinfo_get_object_info(m_nDeviceHandle, nObject, &info);
    if (ret != MTP_ERROR_NONE) {
        QRB_LOGW("mtp_objectinfo_get_object_info failed : %d", ret);
        return false;
    }
    const char* type = TypeName(info.file_type);
    if (type == nullptr) return false;
    item->strType = type;
    item->strName = info.filename;
    item->nObjectHandle = nObject;
    item->nParentHandle = info.parent_object_handle;
    item->nStorageID = info.storage_id;
    item->nFileType = info.file_type;
    item->ullSize = info.size;
    item->llModified = info.modified;
    item->nWidth = info.image_width;
    item->nHeight = info.image_height;
    if (info.file_type != MTP_FILETYPE_FOLDER) {
        char text[64];
        std::snprintf(text, sizeof(text), "ptp://%03d;%03d;%d", m_nBusID, m_nDeviceID, nObject);
        item->strURI = text;
        std::snprintf(text, sizeof(text), "ptp://%d/%d", m_nDeviceHandle, nObject);
        item->strAddress = text;
    }
    return true;
}

bool CQRBPTPManage::m_CollectFolder(int nStorage, int nParent, int nDepth, bool bRecurse,
                                    std::vector<_ptp_data_item>* items) {
    int* raw = nullptr;
    int count = 0;
    // The client's filter constant for every object: folders are wanted as well as pictures.
    const int ret =
        mtp_get_object_handles(m_nDeviceHandle, nStorage, MTP_FILETYPE_ALL, nParent, &raw, &count);
    ScopedInts handles(raw);
    if (ret < 0) {
        QRB_LOGW("%mtp_get_object_handles failed : %d", ret);
        return false;
    }
    std::vector<int> folders;
    for (int i = 0; i < count; ++i) {
        _ptp_data_item item;
        if (!m_MakeItem(handles.get()[i], &item)) continue;
        if (item.nFileType == MTP_FILETYPE_FOLDER) folders.push_back(item.nObjectHandle);
        items->push_back(item);
    }
    if (!bRecurse || nDepth >= kMaxFolderDepth) return true;
    for (int folder : folders) {
        if (!m_CollectFolder(nStorage, folder, nDepth + 1, true, items)) return false;
    }
    return true;
}

bool CQRBPTPManage::m_Deliver(std::vector<_ptp_data_item>& items, DataItemCallback callback,
                              void* user) {
    std::make_heap(items.begin(), items.end());
    std::sort_heap(items.begin(), items.end());
    for (_ptp_data_item& item : items) {
        if (!callback(item, user)) {
            QRB_LOGW("Error in CallBack");
            return false;
        }
    }
    return true;
}

bool CQRBPTPManage::GetDataItem(int nBusID, int nDeviceID, DataItemCallback callback, void* user) {
    if (callback == nullptr) return false;
    std::vector<_ptp_data_item> items;
    {
        CQRBAutoLock lock(m_Mutex);
        QRB_LOGD("after lock");
        int handle = 0;
        if (!m_FindCamera(nBusID, nDeviceID, &handle, true)) {
            QRB_LOGW("can not find camera");
            return false;
        }
        // The storage in use, at every depth; a camera's other storages are not listed.
        if (!m_CollectFolder(m_nStorageID, 0, 0, true, &items)) return false;
        QRB_LOGD("[ptp performance]after insert into data item");
    }
    return m_Deliver(items, callback, user);
}

bool CQRBPTPManage::GetDataItem(int nBusID, int nDeviceID, int nParent, DataItemCallback callback,
                                void* user) {
    if (callback == nullptr) return false;
    std::vector<_ptp_data_item> items;
    {
        CQRBAutoLock lock(m_Mutex);
        QRB_LOGD("CQRBPTPManage::GetDataItem folder view after lock");
        int handle = 0;
        if (!m_FindCamera(nBusID, nDeviceID, &handle, true)) {
            QRB_LOGW("can not find camera");
            return false;
        }
        // Asked of the storage in use: a parent that is no folder of it (unknown, a file, or a
        // folder of another storage) fails at mtp_get_object_handles, with its message.
        if (!m_CollectFolder(m_nStorageID, nParent, 0, false, &items)) return false;
        QRB_LOGD("[ptp performance]after insert into data item");
    }
    return m_Deliver(items, callback, user);
}
