#include "qrb_ptp_thumbnail_getter.h"

#include "image-decoder/qrb_image_processor.h"
#include "image-decoder/qrb_image_util.h"
#include "image-decoder/qrb_picture_thumb_param.h"
#include "qrb_log.h"
#include "qrb_scoped.h"
#include "qrb_system_path.h"
#include "qrb_temp_file.h"
#include "qrb_util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <libexif/exif-data.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

CQRBMutex CQRBPTPThumbnailGetter::m_FileIDMutex;
int32_t CQRBPTPThumbnailGetter::m_lPTPFileID = 0;

namespace {

void FreeRaster(unsigned char* p) { std::free(p); }
using ScopedRaster = QRBScoped<unsigned char, FreeRaster>;
void FreeExif(ExifData* data) { exif_data_unref(data); }
using ScopedExif = QRBScoped<ExifData, FreeExif>;

}  // namespace

const char* CQRBPTPThumbnailGetter::T_CONVERTURITOPATH(const char* uri) {
    if (uri == nullptr || std::strncmp(uri, "ptp://", 6) != 0) return nullptr;
    return uri + 6;
}

std::string CQRBPTPThumbnailGetter::m_TempName(int pid, int32_t counter) {
    char name[128];  // the fixed path with both numbers fits with room to spare
    std::snprintf(name, sizeof(name), QRB_DATA_DIR "ptp%d%05d.jpg", pid, counter);
    return QRBSystemPath(name);
}

int32_t CQRBPTPThumbnailGetter::m_LastFileID() {
    CQRBAutoLock lock(m_FileIDMutex);
    return m_lPTPFileID;
}

bool CQRBPTPThumbnailGetter::m_CreateDir(const char* path) { return t_CreateDir(path); }

bool CQRBPTPThumbnailGetter::m_GetRotation(const char* path, int& rotation) {
    ScopedExif ed(path != nullptr ? exif_data_new_from_file(path) : nullptr);
    if (!ed) {
        QRB_LOGW("ed is null");
        return false;
    }
    static const ExifIfd kOrder[] = {EXIF_IFD_0, EXIF_IFD_1, EXIF_IFD_EXIF, EXIF_IFD_GPS,
                                     EXIF_IFD_INTEROPERABILITY};
    ExifEntry* entry = nullptr;
    for (ExifIfd ifd : kOrder) {
        entry = exif_content_get_entry(ed->ifd[ifd], EXIF_TAG_ORIENTATION);
        if (entry != nullptr) break;
    }
    if (entry == nullptr || entry->data == nullptr || entry->size < 2) {
        QRB_LOGW("entry is null");
        return false;
    }
    rotation = exif_get_short(entry->data, exif_data_get_byte_order(ed.get()));
    QRB_LOGD("orientation=%d", rotation);
    return true;
}

void CQRBPTPThumbnailGetter::m_FillAndCrop(CQRBThumbImage& image, int width, int height) {
    const int w = image.GetWidth();
    const int h = image.GetHeight();
    if (w != width || h != height) {
        // Scale to fill with integer division as the getters round it: t = h x width / w
        // decides, so 213 x 160 into 160 x 120 becomes 159 x 120, a pixel short, and is then
        // left uncropped. A zero side (a quotient by zero) or one beyond int is no scaling.
        if (!image.ScaleToCoverTruncated(width, height)) {
            QRB_LOGW("no scaling of %d x %d to cover %d x %d", w, h, width, height);
        }
    }
    image.CropCentre(width, height);
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBPTPThumbnailGetter::ExtractThumbnail(
    _stExtractInfo info) {
    QRB_LOGD("URI:%s,w:%d,h:%d", info.strURL.c_str(), info.width, info.height);
    const char* rest = T_CONVERTURITOPATH(info.strURL.c_str());
    if (rest == nullptr) {
        QRB_LOGW("Please check params, strURI=%s", info.strURL.c_str());
        return nullptr;
    }

    // strtok semantics: empty fields are skipped, so "ptp://;1;;2;7" is bus 1, device 2.
    std::string fields(rest);
    char* save = nullptr;
    const char* busText = strtok_r(&fields[0], ";", &save);
    const char* deviceText = strtok_r(nullptr, ";", &save);
    const char* objectText = strtok_r(nullptr, ";", &save);
    const int bus = busText != nullptr ? static_cast<int>(std::strtol(busText, nullptr, 10)) : 0;
    const int device =
        deviceText != nullptr ? static_cast<int>(std::strtol(deviceText, nullptr, 10)) : 0;
    if (objectText == nullptr) {
        QRB_LOGW("Camera Download Fail or szFilePath is NULL");
        return nullptr;
    }

    if (!m_CreateDir(QRBSystemPath(QRB_DATA_DIR).c_str())) return nullptr;
    // An empty file of ours, removed on every way out, for the camera to write into.
    QRBTempFile temp;
    const bool claimed = temp.Create([] {
        CQRBAutoLock lock(m_FileIDMutex);
        m_lPTPFileID = m_lPTPFileID == INT32_MAX ? 1 : m_lPTPFileID + 1;
        return m_TempName(static_cast<int>(getpid()), m_lPTPFileID);
    });
    if (!claimed || !temp.Close()) {
        QRB_LOGW("Failed to create %s, errno=%d", temp.Path().c_str(), temp.Error());
        return nullptr;
    }

    if (!m_PtpManage.DownloadExif(bus, device, objectText, temp.Path())) {
        QRB_LOGW("download normal file fail");
        return nullptr;
    }

    const std::string url = "file://" + temp.Path();
    qrb_picture_thumb_param param;  // everything else zero
    param.path = url.c_str();
    param.width = info.width;
    param.height = info.height;
    int width = 0;
    int height = 0;
    // malloc'ed by the decoder; owned here until the image takes it.
    ScopedRaster raster(
        CQRBImageProcessor::GetThumbnailBuffer(url.c_str(), param, &width, &height, nullptr));
    QRB_LOGD("MediaManager.GetThumbnailBuffer Succeed, pucThumbBuffer=%p",
             static_cast<void*>(raster.get()));
    if (!raster) return nullptr;

    int rotation = 0;
    m_GetRotation(temp.Path().c_str(), rotation);

    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    const bool created =
        image->Create(width, height, 32, static_cast<long>(width) * 4, raster.get(), 0);
    if (image->GetBuffer() == raster.get()) raster.release();  // the image frees it now
    if (!created) return nullptr;
    if (rotation > 1) {
        image->RotateARGB(rotation);
        QRB_LOGD("outwidth=%d, outheight=%d", image->GetWidth(), image->GetHeight());
    }
    m_FillAndCrop(*image, info.width, info.height);
    return t_PackImage(image);
}
