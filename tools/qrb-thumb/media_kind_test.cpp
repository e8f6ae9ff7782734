#include "media_kind.h"

#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <string>

namespace qrbthumb {
namespace {

std::string Bytes(const char* data, size_t n) { return std::string(data, n); }

// A transport stream's start: sync bytes at 0 and 188.
std::string TransportStream() {
    std::string ts(376, '\0');
    ts[0] = 0x47;
    ts[188] = 0x47;
    return ts;
}

TEST(ToolMediaKind, GuessesKindsFromExtensionsWhateverTheirCase) {
    EXPECT_EQ(GuessKind("a/photo.jpg", ""), MediaKind::Picture);
    EXPECT_EQ(GuessKind("PHOTO.JPEG", ""), MediaKind::Picture);
    EXPECT_EQ(GuessKind("x.png", ""), MediaKind::Picture);
    EXPECT_EQ(GuessKind("x.Bmp", ""), MediaKind::Picture);
    EXPECT_EQ(GuessKind("song.mp3", ""), MediaKind::Music);
    EXPECT_EQ(GuessKind("song.WMA", ""), MediaKind::Music);
    EXPECT_EQ(GuessKind("song.m4a", ""), MediaKind::Music);
    for (const char* name : {"v.mp4", "v.mkv", "v.ts", "v.avi", "v.mov", "v.mpg"}) {
        EXPECT_EQ(GuessKind(name, ""), MediaKind::Video) << name;
    }
    EXPECT_EQ(GuessKind("/rec/show.srf", ""), MediaKind::Recording);
    for (const char* name : {"p.uvu", "p.uva", "p.uvt", "p.scsa"}) {
        EXPECT_EQ(GuessKind(name, ""), MediaKind::Scsa) << name;
    }
}

TEST(ToolMediaKind, UnknownWithoutAUsableExtensionOrSignature) {
    EXPECT_EQ(GuessKind("notes.txt", "plain text"), MediaKind::Unknown);
    EXPECT_EQ(GuessKind("noextension", ""), MediaKind::Unknown);
    // A dot in a folder name is not an extension.
    EXPECT_EQ(GuessKind("holiday.jpg/readme", ""), MediaKind::Unknown);
    EXPECT_EQ(GuessKind("", ""), MediaKind::Unknown);
}

TEST(ToolMediaKind, NetworkAndCameraFormsGoToTheirDevices) {
    EXPECT_EQ(GuessKind("http://example.test/a.mp3", ""), MediaKind::Web);
    EXPECT_EQ(GuessKind("HTTPS://example.test/pic", ""), MediaKind::Web);
    EXPECT_EQ(GuessKind("ptp://001;002;7", ""), MediaKind::Ptp);
    EXPECT_EQ(GuessKind("/media/clip.mp4;http://server/clip.mta;video/mp4", ""), MediaKind::Dlna);
    // Two fields are a video's "id;path" form, not a DLNA item.
    EXPECT_EQ(GuessKind("42;/media/clip.mp4", ""), MediaKind::Video);
}

TEST(ToolMediaKind, PictureAndTagSignaturesOverrideTheExtension) {
    EXPECT_EQ(GuessKind("really-a-jpeg.mp3", Bytes("\xFF\xD8\xFF\xE0", 4)), MediaKind::Picture);
    EXPECT_EQ(GuessKind("really-a-png.mp4", Bytes("\x89PNG\r\n\x1A\n\0", 9)), MediaKind::Picture);
    EXPECT_EQ(GuessKind("really-a-bmp.txt", Bytes("BM\x36\0\0\0\0\0\0\0\x36\0\0\0", 14)),
              MediaKind::Picture);
    EXPECT_EQ(GuessKind("tagged.jpg", "ID3\x03\x00"), MediaKind::Music);
}

TEST(ToolMediaKind, TwoLettersOfTextAreNotABitmap) {
    EXPECT_EQ(GuessKind("BMW.txt", "BMW is a car maker"), MediaKind::Unknown);
    EXPECT_EQ(GuessKind("BMW.mp3", "BMW is a car maker"), MediaKind::Music);
}

TEST(ToolMediaKind, ContainerSignaturesDecideOnlyWhenTheNameDoesNot) {
    const std::string mp4 = Bytes(
        "\0\0\0\x20"
        "ftypisom",
        12);
    const std::string m4a = Bytes(
        "\0\0\0\x20"
        "ftypM4A ",
        12);
    const std::string asf = Bytes("\x30\x26\xB2\x75\x8E\x66\xCF\x11", 8);
    const std::string mkv = Bytes("\x1A\x45\xDF\xA3", 4);
    EXPECT_EQ(GuessKind("clip", mp4), MediaKind::Video);
    EXPECT_EQ(GuessKind("clip.jpg", mp4), MediaKind::Video);
    EXPECT_EQ(GuessKind("song", m4a), MediaKind::Music);
    EXPECT_EQ(GuessKind("audio-only.m4a", mp4), MediaKind::Music);
    EXPECT_EQ(GuessKind("song", asf), MediaKind::Music);
    EXPECT_EQ(GuessKind("movie.wmv", asf), MediaKind::Video);
    EXPECT_EQ(GuessKind("film", mkv), MediaKind::Video);
    EXPECT_EQ(GuessKind("capture", TransportStream()), MediaKind::Video);
    EXPECT_EQ(GuessKind("avi", Bytes("RIFF\0\0\0\0AVI LIST", 16)), MediaKind::Video);
    EXPECT_EQ(GuessKind("raw-mp3", Bytes("\xFF\xFB\x90\x00", 4)), MediaKind::Music);
}

TEST(ToolMediaKind, PackageExtensionsWinOverTheirCarrierContainers) {
    EXPECT_EQ(GuessKind("show.srf", TransportStream()), MediaKind::Recording);
    EXPECT_EQ(GuessKind("title.uvu", Bytes("\0\0\0\x20"
                                           "ftypccff",
                                           12)),
              MediaKind::Scsa);
}

TEST(ToolMediaKind, OneSyncByteIsNotATransportStream) {
    std::string almost = TransportStream();
    almost[188] = 0;
    EXPECT_EQ(GuessKind("capture", almost), MediaKind::Unknown);
}

TEST(ToolMediaKind, LocalPathOfStripsFileSchemeAndRejectsOtherForms) {
    EXPECT_EQ(LocalPathOf("/tmp/a.jpg"), "/tmp/a.jpg");
    EXPECT_EQ(LocalPathOf("file:///tmp/a.jpg"), "/tmp/a.jpg");
    EXPECT_EQ(LocalPathOf("FILE:///tmp/a.jpg"), "/tmp/a.jpg");
    EXPECT_EQ(LocalPathOf("http://host/a.jpg"), "");
    EXPECT_EQ(LocalPathOf("ptp://001;002;3"), "");
    EXPECT_EQ(LocalPathOf("/a.mp4;uri;video/mp4"), "");
    EXPECT_EQ(LocalPathOf(""), "");
}

TEST(ToolMediaKind, ReadHeadReadsTheFileStartAndNothingForMissingFiles) {
    qrbtest::ScratchRoot root;
    const std::string big = root.WriteFile("big.bin", std::string(4096, 'x') + "tail");
    const std::string small = root.WriteFile("small.bin", Bytes("\xFF\xD8\xFF", 3));
    EXPECT_EQ(ReadHead(big), std::string(kHeadBytes, 'x'));
    EXPECT_EQ(ReadHead(small), Bytes("\xFF\xD8\xFF", 3));
    EXPECT_EQ(ReadHead(root.Path() + "/missing"), "");
    // The whole chain on a real file named as something else.
    EXPECT_EQ(GuessKind(small + ".mp3", ReadHead(small)), MediaKind::Picture);
}

TEST(ToolMediaKind, KindNamesRoundTripAndRouteToTheLibrarysTypes) {
    struct Row {
        const char* name;
        MediaKind kind;
        qrb_item_media_type media;
        qrb_extend_dev_type dev;
    } rows[] = {
        {"picture", MediaKind::Picture, MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL},
        {"music", MediaKind::Music, MEDIA_TYPE_MUSIC, DEV_TYPE_LOCAL},
        {"video", MediaKind::Video, MEDIA_TYPE_VIDEO, DEV_TYPE_LOCAL},
        {"recording", MediaKind::Recording, MEDIA_TYPE_PVR, DEV_TYPE_LOCAL},
        {"scsa", MediaKind::Scsa, MEDIA_TYPE_SCSA, DEV_TYPE_LOCAL},
        {"dlna", MediaKind::Dlna, MEDIA_TYPE_DLNA, DEV_TYPE_DLNA},
        {"web", MediaKind::Web, MEDIA_TYPE_PICTURE, DEV_TYPE_SNS},
        {"ptp", MediaKind::Ptp, MEDIA_TYPE_PICTURE, DEV_TYPE_PTP},
        {"ra", MediaKind::Ra, MEDIA_TYPE_PICTURE, DEV_TYPE_RA},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(KindFromName(row.name), row.kind) << row.name;
        EXPECT_STREQ(KindName(row.kind), row.name);
        EXPECT_EQ(RouteOf(row.kind).media, row.media) << row.name;
        EXPECT_EQ(RouteOf(row.kind).dev, row.dev) << row.name;
    }
    EXPECT_EQ(KindFromName("Picture"), MediaKind::Unknown);
    EXPECT_EQ(KindFromName("unknown"), MediaKind::Unknown);
    EXPECT_EQ(RouteOf(MediaKind::Unknown).media, MEDIA_TYPE_NONE);
}

TEST(ToolMediaKind, NewerPictureAndSongFormatsByContentThenName) {
    const std::string ogg = Bytes("OggS\0\x02", 6) + std::string(20, '\0') + Bytes("\x01\x1E", 2);
    const struct {
        const char* name;
        std::string head;
        MediaKind want;
    } rows[] = {
        // Signatures decide whatever the name says.
        {"photo.jpg", Bytes("\0\0\0\x18" "ftypheic\0\0\0\0", 16), MediaKind::Picture},
        {"photo", Bytes("\0\0\0\x1C" "ftypavif\0\0\0\0", 16), MediaKind::Picture},
        {"photo.mp4", Bytes("\0\0\0\x18" "ftypmif1\0\0\0\0", 16), MediaKind::Picture},
        {"anim.mp3", "GIF89a\x10\0\x10\0", MediaKind::Picture},
        {"pic", Bytes("RIFF\x24\0\0\0WEBPVP8 ", 16), MediaKind::Picture},
        {"scan", Bytes("II*\0\x08\0\0\0", 8), MediaKind::Picture},
        {"scan.mp4", Bytes("MM\0*\0\0\0\x08", 8), MediaKind::Picture},
        {"song.jpg", "fLaC\0\0\0\x22", MediaKind::Music},
        {"song", "MAC \x96\x0f", MediaKind::Music},
        {"song", "wvpk\x20\0\0\0", MediaKind::Music},
        // Ogg decides by its first codec only when the name does not.
        {"song", ogg + "\x01vorbis", MediaKind::Music},
        {"song", ogg + "OpusHead", MediaKind::Music},
        {"clip", ogg + "\x80theora", MediaKind::Video},
        {"clip.ogv", ogg + "\x01vorbis", MediaKind::Video},
        // Names alone.
        {"a.HEIC", "", MediaKind::Picture}, {"a.heif", "", MediaKind::Picture},
        {"a.avif", "", MediaKind::Picture}, {"a.webp", "", MediaKind::Picture},
        {"a.gif", "", MediaKind::Picture},  {"a.tif", "", MediaKind::Picture},
        {"a.tiff", "", MediaKind::Picture}, {"a.flac", "", MediaKind::Music},
        {"a.ogg", "", MediaKind::Music},    {"a.oga", "", MediaKind::Music},
        {"a.opus", "", MediaKind::Music},   {"a.m4b", "", MediaKind::Music},
        {"a.ape", "", MediaKind::Music},    {"a.wv", "", MediaKind::Music},
    };
    for (const auto& row : rows) EXPECT_EQ(GuessKind(row.name, row.head), row.want) << row.name;
}

}  // namespace
}  // namespace qrbthumb
