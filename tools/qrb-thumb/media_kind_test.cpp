#include "media_kind.h"

#include <gtest/gtest.h>

#include <string>

namespace qrbthumb {
namespace {

// A transport stream's start: sync bytes at 0 and 188 (or only at 0).
std::string TransportStream(bool secondSync = true) {
    std::string ts(376, '\0');
    ts[0] = 0x47;
    ts[188] = secondSync ? 0x47 : 0;
    return ts;
}

// An ISO file type box of a brand.
std::string Ftyp(const char* brand) { return std::string("\0\0\0 ftyp", 8) + brand; }

TEST(ToolMediaKind, GuessFromFormThenSignatureThenName) {
    const std::string asf("\x30\x26\xB2\x75\x8E\x66\xCF\x11", 8);
    const std::string ogg = std::string("OggS\0\x02", 6) + std::string(20, '\0') + "\x01\x1E";
    const struct {
        const char* name;
        std::string head;
        MediaKind want;
    } rows[] = {
        // Names alone, whatever their case; a dot in a folder name is not an extension.
        {"PHOTO.JPEG", "", MediaKind::Picture},
        {"holiday.jpg/readme", "", MediaKind::Unknown},
        // Network and camera forms; two fields are a video's "id;path", three a DLNA item.
        {"HTTPS://example.test/pic", "", MediaKind::Web},
        {"ptp://001;002;7", "", MediaKind::Ptp},
        {"/m/clip.mp4;http://s/clip.mta;video/mp4", "", MediaKind::Dlna},
        {"42;/media/clip.mp4", "", MediaKind::Video},
        // Picture and tag signatures win over the name.
        {"really-a-jpeg.mp3", std::string("\xFF\xD8\xFF\xE0", 4), MediaKind::Picture},
        {"photo.mp4", Ftyp("mif1"), MediaKind::Picture},
        {"tagged.jpg", "ID3\x03", MediaKind::Music},
        // Two letters of text are not a bitmap.
        {"BMW.txt", "BMW is a car maker", MediaKind::Unknown},
        // Container signatures decide only when the name does not.
        {"clip", Ftyp("isom"), MediaKind::Video},
        {"audio-only.m4a", Ftyp("isom"), MediaKind::Music},
        {"song", asf, MediaKind::Music},
        {"capture", TransportStream(), MediaKind::Video},
        {"capture", TransportStream(false), MediaKind::Unknown},
        {"raw-mp3", std::string("\xFF\xFB\x90\x00", 4), MediaKind::Music},
        {"clip", ogg + "\x80theora", MediaKind::Video},
        // Package extensions win over their carrier containers.
        {"show.srf", TransportStream(), MediaKind::Recording},
        {"title.uvu", Ftyp("ccff"), MediaKind::Scsa},
    };
    for (const auto& row : rows) EXPECT_EQ(GuessKind(row.name, row.head), row.want) << row.name;
}

}  // namespace
}  // namespace qrbthumb
