#include "qrb_pvr_thumbnail_getter.h"

#include "image-decoder/qrb_image_util.h"
#include "qrb_log.h"
#include "video-decoder/qrb_thumbnail_pvr_decoder.h"

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

using PixelBuffer = std::unique_ptr<unsigned char, decltype(&std::free)>;

}  // namespace

const char* CQRBPVRThumbnailGetter::T_CONVERTURITOPATH(const char* uri) {
    if (uri == nullptr) return nullptr;
    static const char kScheme[] = "file://";
    if (std::strncmp(uri, kScheme, sizeof(kScheme) - 1) == 0) return uri + sizeof(kScheme) - 1;
    return uri;
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBPVRThumbnailGetter::ExtractThumbnail(
    _stExtractInfo info) {
    const char* path = T_CONVERTURITOPATH(info.strURL.c_str());
    _thumb_result result;
    std::memset(&result, 0, sizeof(result));
    CQRBThumbanailPVRDecoder decoder;
    const int ret = decoder.ParsePvrMtaFile(path, &result);
    if (ret != 0) {
        QRB_LOGW("ParsePvrMtaFile failed ret[%d]###\n", ret);
        return nullptr;
    }
    // Every stored frame is ours from here on, whichever way this ends.
    PixelBuffer stored[QRB_THUMB_MAX_IMAGES] = {
        PixelBuffer(result.pBuffer[0], &std::free), PixelBuffer(result.pBuffer[1], &std::free),
        PixelBuffer(result.pBuffer[2], &std::free), PixelBuffer(result.pBuffer[3], &std::free),
        PixelBuffer(result.pBuffer[4], &std::free)};
    // The scaler reads 4 bytes a pixel; a file of another depth was not written by this library.
    if (result.depth != 4) {
        QRB_LOGW("stored depth %d, not an ARGB raster", result.depth);
        return nullptr;
    }

    const int storedW = result.width;
    const int storedH = result.height;
    const int width = (info.width > 0 && info.height > 0) ? info.width : storedW;
    const int height = (info.width > 0 && info.height > 0) ? info.height : storedH;
    if (!CQRBImageUtil::IsRasterSizeAllowed(width, height)) {
        QRB_LOGW("requested size %dx%d refused", info.width, info.height);
        return nullptr;
    }
    const size_t bytes = static_cast<size_t>(width) * static_cast<size_t>(height) * 4;

    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    item->SetRID(0);
    item->SetThumbnailType(static_cast<qrb_media_thumbnail_type>(-1));
    item->SetURL(info.strURL);
    for (int i = 0; i < result.count && i < QRB_THUMB_MAX_IMAGES; ++i) {
        if (i >= info.FrameCount) {
            stored[i].reset();
            continue;
        }
        PixelBuffer pixels(nullptr, &std::free);
        if (width == storedW && height == storedH) {
            // The scaler leaves a same-size destination untouched: the stored raster is it.
            pixels = std::move(stored[i]);
        } else {
            pixels.reset(static_cast<unsigned char*>(std::malloc(bytes)));
            if (!pixels || !CQRBImageUtil::ScaleARGBLinear(stored[i].get(), storedW, storedH, width,
                                                           height, pixels.get())) {
                QRB_LOGW("frame[%d]: scaling %dx%d to %dx%d failed", i, storedW, storedH, width,
                         height);
                continue;
            }
            stored[i].reset();
        }
        boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
        if (image->Create(width, height, 32, 4L * height, pixels.release(), 0)) {
            image->SetBufSize(static_cast<long>(bytes));
            item->AddImage(image);
            item->SetSize(static_cast<int>(bytes));
        }
    }
    if (item->GetImageCount() == 0) return nullptr;
    return item;
}
