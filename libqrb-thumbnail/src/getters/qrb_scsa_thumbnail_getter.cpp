#include "qrb_scsa_thumbnail_getter.h"

#include "image-decoder/qrb_image_processor.h"
#include "image-decoder/qrb_picture_thumb_param.h"
#include "qrb_failure.h"
#include "qrb_log.h"
#include "qrb_scoped.h"
#include "qrb_system_path.h"
#include "qrb_temp_file.h"
#include "qrb_util.h"
#include "scsa/qrb_dmp_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

std::atomic<int32_t> CQRBSCSAThumbnailGetter::m_lSCSAFileID{0};

namespace {

void FreeBytes(char* p) { std::free(p); }
using ScopedBytes = QRBScoped<char, FreeBytes>;  // buffers the DMP source malloc'ed

}  // namespace

std::string CQRBSCSAThumbnailGetter::m_TempName(int pid, int counter) {
    char name[64];  // the fixed path with both numbers fits with room to spare
    std::snprintf(name, sizeof(name), QRB_DATA_DIR "scsa%d%05d.jpg", pid, counter);
    return QRBSystemPath(name);
}

bool CQRBSCSAThumbnailGetter::m_WriteFlashFile(QRBTempFile& file, const char* buffer,
                                               size_t size) {
    return t_WriteFlashFile(
        file, [] { return m_TempName(static_cast<int>(getpid()), ++m_lSCSAFileID & INT32_MAX); },
        buffer, size);
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBSCSAThumbnailGetter::ExtractThumbnail(
    _stExtractInfo info) {
    QRB_LOGD("start scsa decode");
    const std::string& uri = info.strURL;
    if (uri.empty()) {
        QRB_LOGW("url empty");
        return nullptr;
    }
    CQRBDmpSource dmpSourceObj;
    if (!dmpSourceObj.MoveToIndex(uri)) {
        QRB_LOGW("dmpSourceObj.MoveToIndex fail");
        return nullptr;
    }
    int count = 0;
    dmpSourceObj.GetThumbCount(uri, count);
    QRB_LOGD("nCount=%d", count);
    if (count < 1) return nullptr;

    unsigned long long size = 0;
    char* raw = nullptr;
    bool found = false;
    for (int content = 0; content < count && !found; ++content) {
        found = dmpSourceObj.GetThumbImage(uri, content, 0, size, &raw);
        if (!found) QRB_LOGW("dmpSourceObj.GetThumbImage fail");
    }
    const ScopedBytes picture(raw);
    if (!found) return nullptr;
    QRB_LOGD("ullBuffSize = [%llu], pImageBuf = [%p]", size, static_cast<void*>(picture.get()));
    // The extractor caps pictures far below this; the file is written with an int count.
    if (size == 0 || size > static_cast<unsigned long long>(INT32_MAX)) return nullptr;

    QRBTempFile file;  // removed on every way out
    // The folders get 0755 exactly, whatever the umask.
    if (CQRBUtil::MakeDirs(QRBSystemPath(QRB_DATA_DIR), 0755, true) != nullptr ||
        !m_WriteFlashFile(file, picture.get(), static_cast<size_t>(size))) {
        QRBNoteFailure(QRBFailure::kScratch);
        QRB_LOGW("Write JPG Buffer fail");
        return nullptr;
    }
    QRB_LOGD("Write JPG Buffer Succeed");
    boost::intrusive_ptr<CQRBThumbImage> image =
        t_DecodePictureFile(file.Path(), info.width, info.height);
    if (!image) return nullptr;
    return t_PackImage(image);
}
