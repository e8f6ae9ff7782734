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

boost::intrusive_ptr<CQRBThumbnailItem> CQRBSNSThumbnailGetter::ExtractThumbnail(
    std::string& buffer, int width, int height) {
    return t_DecodeDownloaded(buffer, width, height, [&buffer](QRBTempFile& file) {
        return m_WriteFlashFile(file, buffer);
    });
}
