// The request URIs the library takes apart, on arbitrary text: the video worker's
// "media id;path", a recording's ".srf" path, the getters' scheme stripping, the DLNA item's
// "path;remote URI;MIME type" and the camera object's "ptp://BUS;DEVICE;OBJECT". The DLNA and
// camera getters are driven whole, with the platform's download and MTP client replaced here
// (the only fakes): the download records what it was asked and fails, the camera client knows
// one camera (bus 1, device 2) whose thumbnails all fail. Each split must give back parts of
// the URI, the MTA file of a media id must lie in the video folder, and a camera request must
// leave no file in the data folder.
#include "asf_provider.h"
#include "dlog_sink.h"
#include "mtp.h"
#include "qrb_dlna_thumbnail_getter.h"
#include "qrb_exif_thumbnail_getter.h"
#include "qrb_extract_info.h"
#include "qrb_fuzz_scratch.h"
#include "qrb_id3_thumbnail_getter.h"
#include "qrb_ptp_thumbnail_getter.h"
#include "qrb_pvr_thumbnail_getter.h"
#include "qrb_system_path.h"
#include "video-decoder/qrb_thumbnail_pvr_decoder.h"
#include "video-decoder/qrb_thumbnail_video_decoder.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

namespace {

struct Download {
    bool asked = false;
    std::string uri;
    std::string mimetype;
    std::string dlpath;
};
Download g_download;
std::string g_thumbnailPath;  // where the camera was asked to write, empty when it was not

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// Entries in the data folder other than its sub-folders.
int FilesIn(const std::string& folder) {
    DIR* dir = opendir(folder.c_str());
    if (dir == nullptr) return 0;
    int files = 0;
    while (const dirent* entry = readdir(dir)) {
        struct stat st;
        const std::string path = folder + "/" + entry->d_name;
        if (lstat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) ++files;
    }
    closedir(dir);
    return files;
}

void CheckScheme(const char* uri, const char* path) {
    if (path == nullptr) return;
    if (path < uri || path > uri + std::strlen(uri)) abort();  // a part of the URI
}

}  // namespace

// The platform's download: records the request and reports its failure at once.
extern "C" int asf_provider_download(const char* uri, const char* mimetype, const char* dlpath, int,
                                     asf_provider_download_cb callback, void* user_data,
                                     int* token) {
    g_download.asked = true;
    g_download.uri = uri != nullptr ? uri : "";
    g_download.mimetype = mimetype != nullptr ? mimetype : "";
    g_download.dlpath = dlpath != nullptr ? dlpath : "";
    *token = 1;
    asf_provider_download_status_s status{ASF_PROVIDER_DOWNLOAD_ERROR, 0, 0};
    callback(1, &status, user_data);
    return 0;
}

// The platform's MTP client: one camera at bus 1, device 2, with one storage and no thumbnail.
extern "C" {
int mtp_initialize(void) { return MTP_ERROR_NONE; }
int mtp_deinitialize(void) { return MTP_ERROR_NONE; }
int mtp_get_device_list(mtp_device_list** list) {
    auto* devices = static_cast<mtp_device_list*>(std::calloc(1, sizeof(mtp_device_list)));
    devices->device_num = 1;
    devices->devices = static_cast<mtp_raw_device*>(std::calloc(1, sizeof(mtp_raw_device)));
    devices->devices[0].bus_location = 1;
    devices->devices[0].device_number = 2;
    *list = devices;
    return MTP_ERROR_NONE;
}
void mtp_destroy_device_list(mtp_device_list* list) {
    if (list == nullptr) return;
    std::free(list->devices);
    std::free(list);
}
int mtp_get_device_handle_internal(int, int, int* device_handle) {
    *device_handle = 1;
    return MTP_ERROR_NONE;
}
int mtp_close_device(int) { return MTP_ERROR_NONE; }
int mtp_get_storage_ids(int, int** storage_ids, int* count) {
    *storage_ids = static_cast<int*>(std::malloc(sizeof(int)));
    (*storage_ids)[0] = 0x10001;
    *count = 1;
    return MTP_ERROR_NONE;
}
int mtp_get_thumbnail(int, int, const char* dest_path) {
    g_thumbnailPath = dest_path;
    return MTP_ERROR_NO_THUMBNAIL;
}
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dlog_set_stderr_level(7);
    setenv("QRB_ROOT", qrbfuzz::ScratchRoot("uri").c_str(), 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The library is handed C strings: the text ends at its first NUL.
    const char* text = reinterpret_cast<const char*>(data);
    const std::string url(text, strnlen(text, size));
    const char* uri = url.c_str();

    // A video: "media id;path", or the path alone.
    {
        std::string mediaId;
        std::string path;
        CQRBThumbnailVideoDecoder::m_SplitVideoURL(url, &mediaId, &path);
        if (mediaId.find('/') != std::string::npos) abort();
        if (!mediaId.empty()) {
            if (url != mediaId + ";" + path) abort();
            const std::string folder = QRBSystemPath(QRB_VIDEO_DIR);
            const std::string mta = CQRBThumbnailVideoDecoder::m_VideoMtaPath(mediaId);
            if (!StartsWith(mta, folder) || mta.find('/', folder.size()) != std::string::npos) {
                abort();
            }
        } else if (path != url && url != url.substr(0, url.find(';')) + ";" + path) {
            abort();
        }
    }

    // A recording: cut at its last ".srf".
    {
        std::string base;
        std::string name;
        if (CQRBThumbanailPVRDecoder::m_SplitSrfPath(uri, &base, &name)) {
            if (!StartsWith(url, base) || url.compare(base.size(), 4, ".srf") != 0) abort();
            if (name.find('/') != std::string::npos || base.size() < name.size() + 1 ||
                base.compare(base.size() - name.size(), name.size(), name) != 0) {
                abort();
            }
        }
    }

    // The scheme stripping of the file and camera getters.
    {
        static CQRBExifThumbnailGetter exif(MEDIA_JPEG_EXTRACT_MODE0);
        static CQRBID3ThumbnailGetter id3;
        static CQRBPVRThumbnailGetter pvr;
        static CQRBPTPThumbnailGetter ptp;
        CheckScheme(uri, exif.T_CONVERTURITOPATH(uri));
        CheckScheme(uri, id3.T_CONVERTURITOPATH(uri));
        CheckScheme(uri, pvr.T_CONVERTURITOPATH(uri));
        CheckScheme(uri, ptp.T_CONVERTURITOPATH(uri));
    }

    // A DLNA item: three fields or more, the first three used; fewer leave by out_of_range.
    {
        CQRBDLNAThumbnailGetter dlna;
        g_download = Download();
        std::string dstPath;
        size_t separators = 0;
        for (char c : url) separators += c == ';';
        bool threw = false;
        try {
            if (dlna.DlnaMtaDownload(uri, &dstPath)) abort();  // every download fails here
        } catch (const std::out_of_range&) {
            threw = true;
        }
        if (threw != (separators < 2)) abort();
        if (g_download.asked) {
            if (g_download.dlpath != dstPath) abort();
            const std::string fields =
                g_download.dlpath + ";" + g_download.uri + ";" + g_download.mimetype;
            if (!StartsWith(url, fields) ||
                (url.size() > fields.size() && url[fields.size()] != ';')) {
                abort();
            }
        }
    }

    // A camera object, through the getter whole.
    {
        // Kept for the process: its manager holds the camera open between requests.
        static CQRBPTPThumbnailGetter* ptp = new CQRBPTPThumbnailGetter;
        g_thumbnailPath.clear();
        _stExtractInfo info;
        info.strURL = url;
        info.width = 32;
        info.height = 24;
        if (ptp->ExtractThumbnail(info)) abort();  // the camera has no thumbnail
        const std::string folder = QRBSystemPath(QRB_DATA_DIR);
        if (!g_thumbnailPath.empty() && !StartsWith(g_thumbnailPath, folder)) abort();
        if (FilesIn(folder) != 0) abort();  // the temporary file went
    }
    return 0;
}
