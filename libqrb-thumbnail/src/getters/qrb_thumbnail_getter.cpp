#include "qrb_thumbnail_getter.h"

#include "image-decoder/qrb_image_processor.h"
#include "image-decoder/qrb_picture_thumb_param.h"
#include "qrb_failure.h"
#include "qrb_log.h"
#include "qrb_system_path.h"
#include "qrb_temp_file.h"
#include "qrb_util.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

boost::intrusive_ptr<CQRBThumbnailItem> CQRBThumbnailGetter::ExtractThumbnail(std::string&, int,
                                                                              int) {
    return nullptr;
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBThumbnailGetter::t_PackImage(
    boost::intrusive_ptr<CQRBThumbImage> image) {
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    item->SetRID(0);
    item->AddImage(image);
    if (image) {
        item->SetSize(image->GetWidth() * image->GetHeight() * 4);
    }
    return item;
}

bool CQRBThumbnailGetter::t_WriteFlashFile(QRBTempFile& file,
                                           const std::function<std::string()>& nextName,
                                           const void* data, size_t size) {
    bool created = false;
    for (int attempt = 0; attempt < QRBTempFile::kNameAttempts && !created; ++attempt) {
        const std::string path = nextName();
        QRB_LOGD("Writing the data to flash ,path is %s.............\n", path.c_str());
        created = file.CreateAt(path);
        if (!created) {
            QRB_LOGW("Failed to create %s  file.\n", path.c_str());
            QRB_LOGW("error no=%d desc: %s", file.Error(), std::strerror(file.Error()));
            // Only a taken name is worth another try; any other failure would repeat.
            if (file.Error() != EEXIST) return false;
        }
    }
    if (!created) return false;
    if (!file.Write(data, size) || !file.Close()) {
        QRB_LOGW("writing %s failed, errno=%d", file.Path().c_str(), file.Error());
        file.Remove();
        return false;
    }
    QRB_LOGD("Writing Done .............\n");
    return true;
}

boost::intrusive_ptr<CQRBThumbImage> CQRBThumbnailGetter::t_DecodePictureFile(
    const std::string& path, int width, int height, bool fastDecode) {
    const std::string url = "file://" + path;
    qrb_picture_thumb_param param;  // reserved words and the other flags zero
    param.path = url.c_str();
    param.width = width;
    param.height = height;
    param.bModeFlag = fastDecode ? 1 : 0;
    param.bDecoderFlag = fastDecode ? 1 : 0;
    int w = 0;
    int h = 0;
    // malloc'ed by the decoder; the image owns it once created.
    unsigned char* raster =
        CQRBImageProcessor::GetThumbnailBuffer(url.c_str(), param, &w, &h, nullptr);
    QRB_LOGD("MediaManager.GetThumbnailBuffer Succeed, pucThumbBuffer=%p",
             static_cast<void*>(raster));
    if (raster == nullptr) return nullptr;
    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    if (!image->Create(w, h, 32, static_cast<long>(w) * 4, raster, 0)) {
        if (image->GetBuffer() != raster) std::free(raster);
        return nullptr;
    }
    // No scaling here: the decoder already covers the request.
    image->CropCentre(width, height);
    return image;
}

bool CQRBThumbnailGetter::t_CreateDir(const char* path) {
    if (path == nullptr || *path == '\0') return false;
    if (const char* failed = CQRBUtil::MakeDirs(path, 0755, true)) {
        QRB_LOGW("%s   error", failed);
        return false;
    }
    return true;
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBThumbnailGetter::t_DecodeDownloaded(
    const std::string& bytes, int width, int height,
    const std::function<bool(QRBTempFile&)>& write) {
    // The file is written with an int count; the download caps keep bodies far below that.
    if (bytes.empty() || bytes.size() > static_cast<size_t>(INT32_MAX)) return nullptr;
    QRBTempFile file;  // removed on every way out
    if (!t_CreateDir(QRBSystemPath(QRB_DATA_DIR).c_str()) || !write(file)) {
        QRBNoteFailure(QRBFailure::kScratch);
        QRB_LOGW("Write JPG Buffer fail");
        return nullptr;
    }
    QRB_LOGD("Write JPG Buffer Succeed");
    boost::intrusive_ptr<CQRBThumbImage> image =
        t_DecodePictureFile(file.Path(), width, height, true);
    if (!image) return nullptr;
    return t_PackImage(image);
}
