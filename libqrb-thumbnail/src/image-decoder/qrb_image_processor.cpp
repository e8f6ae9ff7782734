#include "image-decoder/qrb_image_processor.h"

#include "image-decoder/qrb_image_decoder.h"
#include "qrb_failure.h"
#include "qrb_log.h"

#include <cstdlib>
#include <cstring>

unsigned char* CQRBImageProcessor::GetThumbnailBuffer(const char* url,
                                                      const qrb_picture_thumb_param& param,
                                                      int* width, int* height, int* orientation) {
    *width = 0;
    *height = 0;
    if (url == nullptr) {
        QRB_LOGW("URL IS NULL");
        return nullptr;
    }

    CQRBImageDecoder decoder(url, param.width, param.height, param.bDecoderFlag, param.forceFull);
    // The decoder bounds its output size (m_CalculateDimension), so both fit an int and the
    // byte count below cannot overflow.
    const int thumbW = static_cast<int>(decoder.GetOutputWidth());
    const int thumbH = static_cast<int>(decoder.GetOutputHeight());
    if (decoder.IsValid() && thumbW > 0 && thumbH > 0) {
        const size_t bytes = static_cast<size_t>(thumbW) * static_cast<size_t>(thumbH) * 4;
        // Handed to the caller, who frees it; freed here on every failure.
        unsigned char* output = static_cast<unsigned char*>(std::malloc(bytes));
        if (output == nullptr) {
            QRB_LOGW("pOutput is NULL, thumbw=%d, thumbh=%d", thumbW, thumbH);
            return nullptr;
        }
        std::memset(output, 0, bytes);
        if (decoder.ExtractThumbnail(output) == 0) {
            *width = thumbW;
            *height = thumbH;
            if (orientation != nullptr) *orientation = static_cast<int>(decoder.GetOrientation());
            return output;
        }
        QRB_LOGW("THUMBNAIL EXTRACTION HAS FAILED");
        std::free(output);
    }
    // Whatever failed beyond a cause noted where it was found (no file, another format, too
    // large) is a picture that does not decode.
    QRBNoteFailure(QRBFailure::kDamaged);
    QRB_LOGW("INVALID WIDTH AND HEIGHT");
    *width = 0;
    *height = 0;
    if (orientation != nullptr) *orientation = 0;
    return nullptr;
}
