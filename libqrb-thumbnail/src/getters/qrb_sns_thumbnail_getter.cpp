#include "qrb_sns_thumbnail_getter.h"

#include "image-decoder/qrb_image_processor.h"
#include "image-decoder/qrb_picture_thumb_param.h"
#include "qrb_log.h"
#include "qrb_scoped.h"
#include "qrb_system_path.h"
#include "qrb_temp_file.h"
#include "qrb_util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

std::atomic<int32_t> CQRBSNSThumbnailGetter::m_lSNSFileID{0};

boost::intrusive_ptr<CQRBThumbnailItem> CQRBSNSThumbnailGetter::ExtractThumbnail(_stExtractInfo) {
    return nullptr;
}

const char* CQRBSNSThumbnailGetter::T_CONVERTURITOPATH(const char* uri) { return uri; }

std::string CQRBSNSThumbnailGetter::m_TempName(int pid, int counter) {
    char name[64];  // the fixed path with both numbers fits with room to spare
    std::snprintf(name, sizeof(name), QRB_DATA_DIR "%d%05d.jpg", pid, counter);
    return QRBSystemPath(name);
}

bool CQRBSNSThumbnailGetter::m_CreateDir(const char* path) { return t_CreateDir(path); }

bool CQRBSNSThumbnailGetter::m_WriteFlashFile(QRBTempFile& file, const std::string& data) {
    return t_WriteFlashFile(
        file, [] { return m_TempName(static_cast<int>(getpid()), ++m_lSNSFileID & INT32_MAX); },
        data.data(), data.size());
}

boost::intrusive_ptr<CQRBThumbImage> CQRBSNSThumbnailGetter::m_DecodeBytes(
    const std::string& buffer, int width, int height) {
    const std::string dataDir = QRBSystemPath(QRB_DATA_DIR);
    if (!m_CreateDir(dataDir.c_str())) {
        QRB_LOGW("Write JPG Buffer fail");
        return nullptr;
    }

    QRBTempFile file;  // removed on every way out
    if (!m_WriteFlashFile(file, buffer)) {
        QRB_LOGW("Write JPG Buffer fail");
        return nullptr;
    }
    QRB_LOGD("Write JPG Buffer Succeed");
    return t_DecodePictureFile(file.Path(), width, height, true);
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBSNSThumbnailGetter::ExtractThumbnail(
    std::string& buffer, int width, int height) {
    if (buffer.empty()) return nullptr;
    // The file is written with an int count; no download comes near that (5 MiB cap).
    if (buffer.size() > static_cast<size_t>(INT32_MAX)) return nullptr;
    // The temporary file is gone by the time the image is packed.
    boost::intrusive_ptr<CQRBThumbImage> image = m_DecodeBytes(buffer, width, height);
    if (!image) return nullptr;
    return t_PackImage(image);
}
