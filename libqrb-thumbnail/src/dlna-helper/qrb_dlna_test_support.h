// MTA files for the DLNA tests: n chapters with a JPEG each, starting a minute apart.
#ifndef QRB_DLNA_TEST_SUPPORT_H
#define QRB_DLNA_TEST_SUPPORT_H

#include "qrb_test_jpeg_writer.h"

#include <openssl/evp.h>

#include <string>
#include <vector>

namespace qrbdlnatest {

// What a picture decodes back to: "=" is folded in as 255, so after one last byte "==" adds
// 0x0F and 0xFF, after two "=" adds 0xFF.
inline std::string Decoded(const std::string& jpeg) {
    const char* tail[] = {"", "\x0F\xFF", "\xFF"};
    return jpeg + tail[jpeg.size() % 3];
}

inline std::vector<std::string> ChapterPictures(int n) {
    std::vector<std::string> pictures;
    for (int i = 0; i < n; ++i) pictures.push_back(qrbtest::GradientJpeg(32 + 8 * i, 24 + 2 * i));
    return pictures;
}

// The MTA document of the pictures; extra goes into "Chaptering" before the first segment.
inline std::string MtaXml(const std::vector<std::string>& pictures, const std::string& extra = "") {
    std::string xml =
        "<?xml version=\"1.0\"?>\n<MediaInformation><ContentInformation><Chaptering>" + extra;
    for (size_t i = 0; i < pictures.size(); ++i) {
        std::string text(pictures[i].size() * 4 / 3 + 4, '\0');
        text.resize(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]),
                                    reinterpret_cast<const unsigned char*>(pictures[i].data()),
                                    static_cast<int>(pictures[i].size())));
        xml += "<ChapterSegment><KeyFrame><InlineMedia>" + text +
               "</InlineMedia></KeyFrame><MediaPosition><MediaTime timePoint=\"" +
               std::to_string(60000 * i) + "\"/></MediaPosition></ChapterSegment>\n";
    }
    return xml + "</Chaptering></ContentInformation></MediaInformation>\n";
}

}  // namespace qrbdlnatest

#endif
