// One camera opened through libgphoto2, and the few things the MTP client asks of it: its
// storages, the folders and files of a folder, a file's information, a file or its thumbnail.
// Every libgphoto2 handle it holds is owned here and released with it. The caller holds the
// client's call scope (lock, locale, SIGPIPE) around every member call; results are
// libgphoto2's (GP_OK or a negative GP_ERROR_*).
#ifndef QRB_PLATFORM_MTP_CAMERA_H
#define QRB_PLATFORM_MTP_CAMERA_H

#include "qrb_scoped.h"

#include <gphoto2/gphoto2.h>

#include <string>
#include <vector>

inline void MtpUnrefContext(GPContext* context) { gp_context_unref(context); }
inline void MtpFreeAbilities(CameraAbilitiesList* list) { gp_abilities_list_free(list); }
inline void MtpFreePorts(GPPortInfoList* list) { gp_port_info_list_free(list); }
inline void MtpUnrefList(CameraList* list) { gp_list_unref(list); }
inline void MtpUnrefFile(CameraFile* file) { gp_file_unref(file); }
inline void MtpUnrefCamera(Camera* camera) { gp_camera_unref(camera); }
using MtpScopedContext = QRBScoped<GPContext, MtpUnrefContext>;
using MtpScopedAbilities = QRBScoped<CameraAbilitiesList, MtpFreeAbilities>;
using MtpScopedPorts = QRBScoped<GPPortInfoList, MtpFreePorts>;
using MtpScopedList = QRBScoped<CameraList, MtpUnrefList>;
using MtpScopedFile = QRBScoped<CameraFile, MtpUnrefFile>;
using MtpScopedCamera = QRBScoped<Camera, MtpUnrefCamera>;

class CMtpCamera {
public:
    struct Storage {
        int id = 0;
        std::string basedir;  // the libgphoto2 folder of the storage's root
    };
    struct FileInfo {
        std::string mime;  // empty when the camera gave none
        unsigned long long size = 0;
        long long modified = 0;
        int width = 0;
        int height = 0;
    };

    CMtpCamera() = default;
    // Closes the camera (the session is ended when the camera still answers).
    ~CMtpCamera();
    CMtpCamera(const CMtpCamera&) = delete;
    CMtpCamera& operator=(const CMtpCamera&) = delete;

    // Opens the camera of a libgphoto2 model at a port path ("usb:001,005",
    // "ptpip:127.0.0.1:PORT:PORT"). ports may gain an entry (a network path).
    int Open(GPContext* context, CameraAbilitiesList* abilities, GPPortInfoList* ports,
             const std::string& model, const std::string& port);
    bool IsOpen() const { return m_Camera != nullptr; }
    void Close();

    // Cameras without storage information (not PTP) have one storage, id 1, at "/".
    int Storages(std::vector<Storage>* storages);
    int ListFolders(const std::string& folder, std::vector<std::string>* names);
    int ListFiles(const std::string& folder, std::vector<std::string>* names);
    int GetInfo(const std::string& folder, const std::string& name, FileInfo* info);
    // The file (preview false) or the camera's thumbnail of it (preview true); more than
    // maxBytes is refused with GP_ERROR_NO_MEMORY.
    int GetFile(const std::string& folder, const std::string& name, bool preview, size_t maxBytes,
                std::string* bytes);
    // One cheap exchange: false when the camera no longer answers.
    bool Answers();

private:
    GPContext* m_pContext = nullptr;  // the client's; outlives every camera
    MtpScopedCamera m_Camera;
};

#endif
