#include "qrb_test_picture.h"

#include "image-decoder/qrb_image_processor.h"
#include "qrb_test_files.h"

#include <png.h>

#include <algorithm>
#include <cstdlib>

namespace qrbtest {

Raster DecodePicture(const std::string& url, int width, int height, bool forceFull,
                     bool decoderFlags) {
    qrb_picture_thumb_param param;
    param.path = url.c_str();
    param.width = width;
    param.height = height;
    param.forceFull = forceFull;
    param.bModeFlag = decoderFlags ? 1 : 0;
    param.bDecoderFlag = decoderFlags ? 1 : 0;
    Raster r;
    unsigned char* buffer = CQRBImageProcessor::GetThumbnailBuffer(url.c_str(), param, &r.width,
                                                                   &r.height, &r.orientation);
    if (buffer != nullptr) {
        r.pixels.assign(buffer, buffer + static_cast<size_t>(r.width) * r.height * 4);
        std::free(buffer);  // the decoder's raster is the caller's to free
    }
    return r;
}

Raster RasterOf(const boost::intrusive_ptr<CQRBThumbnailItem>& item) {
    if (!item || item->GetImages().size() != 1 || !item->GetImages()[0]) return Raster();
    const CQRBThumbImage& image = *item->GetImages()[0];
    const unsigned char* p = image.GetBuffer();
    return RasterOf(
        std::string(p, p + static_cast<size_t>(image.GetWidth()) * image.GetHeight() * 4),
        image.GetWidth(), image.GetHeight());
}

Raster RasterOf(const std::string& bytes, int width, int height) {
    Raster r;
    r.width = width;
    r.height = height;
    r.pixels.assign(bytes.begin(), bytes.end());
    return r;
}

std::string Quadrants(const Raster& r) {
    if (r.width < 2 || r.height < 2) return "too small";
    const int palette[5][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 255}, {0, 0, 0}};
    std::string letters;
    for (const auto& [qx, qy] : {std::pair{1, 1}, {3, 1}, {3, 3}, {1, 3}}) {  // in quarters
        int sum[3] = {0, 0, 0};
        for (int d = 0; d < 9; ++d) {
            const uint8_t* p = r.At(std::clamp(qx * r.width / 4 + d % 3 - 1, 0, r.width - 1),
                                    std::clamp(qy * r.height / 4 + d / 3 - 1, 0, r.height - 1));
            for (int k = 0; k < 3; ++k) sum[k] += p[2 - k];
        }
        long best = -1;
        char chosen = '?';
        for (int c = 0; c < 5; ++c) {
            long d = 0;
            for (int k = 0; k < 3; ++k)
                d += (sum[k] / 9 - palette[c][k]) * (sum[k] / 9 - palette[c][k]);
            if (best < 0 || d < best) {
                best = d;
                chosen = "RGBWK"[c];
            }
        }
        letters.push_back(chosen);
    }
    return letters;
}

Raster CropCentre(const Raster& in, int width, int height) {
    if (width <= 0 || height <= 0 || width > in.width || height > in.height) return in;
    Raster out;
    out.width = width;
    out.height = height;
    const int x0 = (in.width - width) / 2;
    const int y0 = (in.height - height) / 2;
    for (int y = 0; y < height; ++y) {
        const uint8_t* row = in.At(x0, y0 + y);
        out.pixels.insert(out.pixels.end(), row, row + static_cast<size_t>(width) * 4);
    }
    return out;
}

bool ReadPng(const std::string& path, Raster* out) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) return false;
    image.format = PNG_FORMAT_BGRA;
    out->width = static_cast<int>(image.width);
    out->height = static_cast<int>(image.height);
    out->pixels.resize(PNG_IMAGE_SIZE(image));
    if (png_image_finish_read(&image, nullptr, out->pixels.data(), 0, nullptr)) return true;
    png_image_free(&image);
    return false;
}

}  // namespace qrbtest
