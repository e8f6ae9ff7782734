#include "qrb_exif_thumbnail_getter.h"

#include "image-decoder/qrb_image_processor.h"
#include "image-decoder/qrb_image_util.h"
#include "qrb_log.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

CQRBExifThumbnailGetter::CQRBExifThumbnailGetter(_eMediaJPEGExtractMode mode)
    : m_eExtractMode(mode) {}

CQRBExifThumbnailGetter::~CQRBExifThumbnailGetter() = default;

const char* CQRBExifThumbnailGetter::T_CONVERTURITOPATH(const char* uri) {
    if (uri == nullptr) return nullptr;
    if (std::strncmp(uri, "file://1", 8) == 0) return uri + 8;
    if (std::strncmp(uri, "file://", 7) == 0) return uri + 7;
    return uri;
}

qrb_picture_thumb_param CQRBExifThumbnailGetter::MakeDecoderParam(const char* url, int width,
                                                                  int height) const {
    qrb_picture_thumb_param param;  // reserved words zero
    param.path = url;
    param.width = width;
    param.height = height;
    const int32_t flag = m_eExtractMode != MEDIA_JPEG_EXTRACT_MODE1 ? 1 : 0;
    param.bModeFlag = flag;
    param.bDecoderFlag = flag;
    param.forceFull = false;
    return param;
}

void CQRBExifThumbnailGetter::BringToRequest(CQRBThumbImage& image, int orientation, int width,
                                             int height) {
    if (orientation > 1) {
        image.RotateARGB(orientation);
        QRB_LOGD("outwidth=%d, outheight=%d", image.GetWidth(), image.GetHeight());
    }

    const int w = image.GetWidth();
    const int h = image.GetHeight();
    if (w <= 0 || h <= 0) return;
    if (width > w || h < height) {
        // Either way the result covers the box and keeps the aspect ratio, rounded as the
        // getters round (one pixel short of the box at worst, and then not cropped).
        if (!image.ScaleToCoverTruncated(width, height)) {
            QRB_LOGW("no scaling of %d x %d to cover %d x %d", w, h, width, height);
        }
    }
    image.CropCentre(width, height);
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBExifThumbnailGetter::ExtractThumbnail(
    _stExtractInfo info) {
    const char* path = T_CONVERTURITOPATH(info.strURL.c_str());
    if (path == nullptr || *path == '\0') {
        QRB_LOGW("no path in url=%s", info.strURL.c_str());
        return nullptr;
    }
    const std::string url = std::string("file://") + path;

    const qrb_picture_thumb_param param = MakeDecoderParam(url.c_str(), info.width, info.height);
    int width = 0;
    int height = 0;
    int orientation = 0;
    // malloc'ed by the decoder; owned by the image once created, freed here before that.
    unsigned char* buffer =
        CQRBImageProcessor::GetThumbnailBuffer(url.c_str(), param, &width, &height, &orientation);
    if (buffer == nullptr) return nullptr;
    QRB_LOGD("url=%s, width=%d, height=%d, orientation=%d, request %d x %d", url.c_str(), width,
             height, orientation, info.width, info.height);

    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    if (!image->Create(width, height, 32, static_cast<long>(width) * 4, buffer, 0)) {
        if (image->GetBuffer() != buffer) free(buffer);
        return nullptr;
    }
    BringToRequest(*image, orientation, info.width, info.height);
    return t_PackImage(image);
}
