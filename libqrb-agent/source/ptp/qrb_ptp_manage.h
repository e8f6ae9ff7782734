// Access to a digital camera attached over USB and spoken to with PTP, through the platform's
// MTP client (mtp.h): the camera is found by its USB bus and device numbers, the objects of the
// storage in use (its first) or of one of its folders are listed as data items, and a picture's
// own thumbnail or a whole file is downloaded.
//
// Only one camera is open at a time: asking for another closes the first. Every entry point
// takes the manager's lock, so one thread at a time talks to the camera. The listings hand
// their items to the callback after the lock is released, so a callback may call the manager
// again. Every failure is logged once, where it happened, and answered false; the camera that
// was open stays open.
#ifndef QRB_PTP_MANAGE_H
#define QRB_PTP_MANAGE_H

#include "qrb_mutex.h"
#include "qrb_ptp_data_item.h"

#include <string>
#include <vector>

class CQRBPTPManage {
public:
    // Called once per item, in the listing's order; false ends the walk.
    typedef bool (*DataItemCallback)(_ptp_data_item& item, void* user);

    // Folder levels a whole-storage listing descends. Camera folder trees are two or three
    // levels deep; a deeper one is a loop or a hostile device.
    static constexpr int kMaxFolderDepth = 16;

    CQRBPTPManage() = default;
    // Closes the camera.
    ~CQRBPTPManage();
    CQRBPTPManage(const CQRBPTPManage&) = delete;
    CQRBPTPManage& operator=(const CQRBPTPManage&) = delete;

    // Writes the camera's thumbnail of an object to strDownloadPath (at most 4095 bytes);
    // strFilePath is the object's handle in decimal, as the items' URIs carry it.
    bool DownloadExif(int nBusID, int nDeviceID, std::string strFilePath,
                      std::string strDownloadPath);
    // Reads the file at strFilePath ("/DCIM/100TEST/a.jpg": folders from a storage's root; the
    // first storage holding it wins) into *ppBuffer, malloc'ed, *pSize bytes; the caller frees
    // it with free().
    bool DownloadFileToBuffer(int nBusID, int nDeviceID, std::string strFilePath, char** ppBuffer,
                              unsigned long* pSize);
    // Every folder and picture of the storage in use, at every depth.
    bool GetDataItem(int nBusID, int nDeviceID, DataItemCallback callback, void* user);
    // The folders and pictures directly in folder nParent of the storage in use (0: its root).
    // A parent that is not one of its folders fails at mtp_get_object_handles.
    bool GetDataItem(int nBusID, int nDeviceID, int nParent, DataItemCallback callback, void* user);

private:
    // Opens the camera at nBusID / nDeviceID, or reuses it when it is the one open. With
    // bNeedStorage a camera without a storage is refused; without, it is kept with storage 0
    // (a thumbnail needs only an object handle).
    bool m_FindCamera(int nBusID, int nDeviceID, int* pHandle, bool bNeedStorage);
    void m_ReleaseCamera();
    // The items directly in parent (and, with recurse, below it) of a storage.
    bool m_CollectFolder(int nStorage, int nParent, int nDepth, bool bRecurse,
                         std::vector<_ptp_data_item>* items);
    // The item of an object; false for an object that is not listed (or whose information
    // cannot be had).
    bool m_MakeItem(int nObject, _ptp_data_item* item);
    // The handle of the file at a folder path and name, 0 when there is none.
    int m_FindFile(const std::string& strFolder, const std::string& strName);
    int m_FindChild(int nStorage, int nParent, const std::string& strName, bool bFolder);
    static bool m_Deliver(std::vector<_ptp_data_item>& items, DataItemCallback callback,
                          void* user);

    CQRBMutex m_Mutex;
    int m_nBusID = -1;
    int m_nDeviceID = -1;
    int m_nDeviceHandle = 0;  // 0: no camera open
    int m_nStorageID = 0;
};

#endif
