// MTA files for the DLNA tests: chapters with a JPEG of their own (or none) and a start time,
// written as the XML a DLNA server offers.
#ifndef QRB_DLNA_TEST_SUPPORT_H
#define QRB_DLNA_TEST_SUPPORT_H

#include "dlna-helper/qrb_dlna_base64.h"

#include "qrb_test_jpeg_writer.h"

#include <string>
#include <vector>

namespace qrbdlnatest {

struct Chapter {
    std::string picture;    // JPEG bytes; empty: the segment has no "KeyFrame"
    std::string timePoint;  // empty: the segment has no "MediaPosition"
};

// What a picture decodes back to: the decoder folds "=" in as the value 255, so after one last
// byte "==" adds 0x0F and 0xFF, after two "=" adds 0xFF.
inline std::string Decoded(const std::string& jpeg) {
    const char* tail[] = {"", "\x0F\xFF", "\xFF"};
    return jpeg + tail[jpeg.size() % 3];
}

// n chapters, each with a picture of its own colour and size, starting a minute apart.
inline std::vector<Chapter> PictureChapters(int n) {
    std::vector<Chapter> chapters;
    for (int i = 0; i < n; ++i) {
        qrbtest::JpegSpec spec;
        spec.width = 32 + 8 * i;
        spec.height = 24 + 2 * i;
        spec.color = {static_cast<uint8_t>(40 * i), 90, static_cast<uint8_t>(200 - 30 * i)};
        chapters.push_back({qrbtest::MakeJpeg(spec), std::to_string(60000 * i)});
    }
    return chapters;
}

// The MTA document of chapters; extra goes into "Chaptering" before the first segment.
inline std::string MtaXml(const std::vector<Chapter>& chapters, const std::string& extra = "") {
    std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<MediaInformation>\n"
        "<ContentInformation><Chaptering>\n" +
        extra;
    for (const Chapter& c : chapters) {
        xml += "<ChapterSegment>";
        if (!c.picture.empty()) {
            std::string bytes = c.picture;
            signed char* text = nullptr;
            const unsigned long n = QRBDlnaBase64EnDecoder().EncodeBase64(
                reinterpret_cast<unsigned char*>(&bytes[0]), bytes.size(), &text);
            xml += "<KeyFrame><InlineMedia>" + std::string(reinterpret_cast<char*>(text), n) +
                   "</InlineMedia></KeyFrame>";
            delete[] text;
        }
        if (!c.timePoint.empty()) {
            xml += "<MediaPosition><MediaTime timePoint=\"" + c.timePoint + "\"/></MediaPosition>";
        }
        xml += "</ChapterSegment>\n";
    }
    return xml + "</Chaptering></ContentInformation>\n</MediaInformation>\n";
}

}  // namespace qrbdlnatest

#endif
