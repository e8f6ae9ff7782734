#include "media_kind.h"

#include "qrb_scoped.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>

namespace qrbthumb {

namespace {

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool StartsWith(const std::string& text, const char* prefix) {
    return text.compare(0, std::strlen(prefix), prefix) == 0;
}

// "path;mta-uri;mime": exactly three fields, the first (the item's local path) non-empty.
bool IsDlnaTriple(const std::string& input) {
    return !input.empty() && input.front() != ';' &&
           std::count(input.begin(), input.end(), ';') == 2;
}

MediaKind ExtensionKind(const std::string& path) {
    const size_t slash = path.rfind('/');
    const size_t dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) {
        return MediaKind::Unknown;
    }
    const std::string ext = Lower(path.substr(dot + 1));
    static const struct {
        const char* ext;
        MediaKind kind;
    } kTable[] = {
        {"jpg", MediaKind::Picture},   {"jpeg", MediaKind::Picture}, {"png", MediaKind::Picture},
        {"bmp", MediaKind::Picture},   {"mp3", MediaKind::Music},    {"wma", MediaKind::Music},
        {"m4a", MediaKind::Music},     {"mp4", MediaKind::Video},    {"m4v", MediaKind::Video},
        {"mkv", MediaKind::Video},     {"webm", MediaKind::Video},   {"ts", MediaKind::Video},
        {"m2ts", MediaKind::Video},    {"avi", MediaKind::Video},    {"mov", MediaKind::Video},
        {"mpg", MediaKind::Video},     {"mpeg", MediaKind::Video},   {"wmv", MediaKind::Video},
        {"srf", MediaKind::Recording}, {"uvu", MediaKind::Scsa},     {"uva", MediaKind::Scsa},
        {"uvt", MediaKind::Scsa},      {"scsa", MediaKind::Scsa},     {"heic", MediaKind::Picture},
        {"heif", MediaKind::Picture},  {"avif", MediaKind::Picture},  {"webp", MediaKind::Picture},
        {"gif", MediaKind::Picture},   {"tif", MediaKind::Picture},   {"tiff", MediaKind::Picture},
        {"flac", MediaKind::Music},    {"ogg", MediaKind::Music},     {"oga", MediaKind::Music},
        {"opus", MediaKind::Music},    {"m4b", MediaKind::Music},     {"ape", MediaKind::Music},
        {"wv", MediaKind::Music},      {"ogv", MediaKind::Video},
    };
    for (const auto& row : kTable) {
        if (ext == row.ext) return row.kind;
    }
    return MediaKind::Unknown;
}

bool HasBytes(const std::string& head, size_t offset, const char* bytes, size_t n) {
    return head.size() >= offset + n && std::memcmp(head.data() + offset, bytes, n) == 0;
}

// The major brands of HEIF and AVIF pictures (and picture sequences) in an ISO file type box.
bool IsHeifBrand(const std::string& head) {
    if (!HasBytes(head, 4, "ftyp", 4) || head.size() < 12) return false;
    static const char* const kBrands[] = {"heic", "heix", "heim", "heis", "hevc", "hevx",
                                          "mif1", "msf1", "avif", "avis"};
    for (const char* brand : kBrands) {
        if (HasBytes(head, 8, brand, 4)) return true;
    }
    return false;
}

// Signatures that say what the content is, whatever the name claims.
MediaKind ContentMagic(const std::string& head) {
    if (HasBytes(head, 0, "\xFF\xD8\xFF", 3)) return MediaKind::Picture;
    if (HasBytes(head, 0, "GIF87a", 6) || HasBytes(head, 0, "GIF89a", 6)) return MediaKind::Picture;
    if (HasBytes(head, 0, "RIFF", 4) && HasBytes(head, 8, "WEBP", 4)) return MediaKind::Picture;
    if (HasBytes(head, 0, "II*\0", 4) || HasBytes(head, 0, "MM\0*", 4) ||
        HasBytes(head, 0, "II+\0", 4) || HasBytes(head, 0, "MM\0+", 4)) {
        return MediaKind::Picture;  // TIFF and BigTIFF
    }
    if (IsHeifBrand(head)) return MediaKind::Picture;
    if (HasBytes(head, 0, "fLaC", 4) || HasBytes(head, 0, "MAC ", 4) ||
        HasBytes(head, 0, "wvpk", 4)) {
        return MediaKind::Music;  // FLAC, Monkey's Audio, WavPack
    }
    if (HasBytes(head, 0, "\x89PNG\r\n\x1A\n", 8)) return MediaKind::Picture;
    // "BM" alone is two letters of text; the four reserved header bytes must be zero as well.
    if (HasBytes(head, 0, "BM", 2) && HasBytes(head, 6, "\0\0\0\0", 4)) return MediaKind::Picture;
    if (HasBytes(head, 0, "ID3", 3)) return MediaKind::Music;
    return MediaKind::Unknown;
}

// Signatures of containers, which carry sound, pictures or a package alike: they decide only
// when the name does not. The value is what such a file most often is.
MediaKind ContainerMagic(const std::string& head) {
    if (HasBytes(head, 0, "\x30\x26\xB2\x75\x8E\x66\xCF\x11", 8)) return MediaKind::Music;  // ASF
    if (HasBytes(head, 4, "ftyp", 4)) {
        if (HasBytes(head, 8, "M4A ", 4) || HasBytes(head, 8, "M4B ", 4) ||
            HasBytes(head, 8, "M4P ", 4)) {
            return MediaKind::Music;
        }
        return MediaKind::Video;
    }
    if (HasBytes(head, 0, "\x1A\x45\xDF\xA3", 4)) return MediaKind::Video;  // Matroska / WebM
    // Ogg: the first stream's identification header, after a page header of 27 bytes and its
    // segment table, names the codec.
    if (HasBytes(head, 0, "OggS", 4) && head.size() > 27) {
        const size_t packet = 27 + static_cast<unsigned char>(head[26]);
        if (HasBytes(head, packet, "\x01vorbis", 7) || HasBytes(head, packet, "OpusHead", 8) ||
            HasBytes(head, packet, "\x7F" "FLAC", 5) || HasBytes(head, packet, "Speex   ", 8)) {
            return MediaKind::Music;
        }
        return MediaKind::Video;
    }
    if (HasBytes(head, 0, "RIFF", 4) && HasBytes(head, 8, "AVI ", 4)) return MediaKind::Video;
    if (HasBytes(head, 0, "\x00\x00\x01\xBA", 4)) return MediaKind::Video;  // MPEG program stream
    // Transport stream: a sync byte at the start of two consecutive 188-byte packets.
    if (head.size() > 188 && head[0] == 0x47 && head[188] == 0x47) return MediaKind::Video;
    // MPEG audio frame sync (11 set bits) without an ID3 tag in front.
    if (head.size() >= 2 && static_cast<unsigned char>(head[0]) == 0xFF &&
        (static_cast<unsigned char>(head[1]) & 0xE0) == 0xE0) {
        return MediaKind::Music;
    }
    return MediaKind::Unknown;
}

bool IsMediaKind(MediaKind kind) {
    return kind == MediaKind::Music || kind == MediaKind::Video || kind == MediaKind::Recording ||
           kind == MediaKind::Scsa;
}

}  // namespace

Route RouteOf(MediaKind kind) {
    switch (kind) {
        case MediaKind::Picture:
            return {MEDIA_TYPE_PICTURE, DEV_TYPE_LOCAL};
        case MediaKind::Music:
            return {MEDIA_TYPE_MUSIC, DEV_TYPE_LOCAL};
        case MediaKind::Video:
            return {MEDIA_TYPE_VIDEO, DEV_TYPE_LOCAL};
        case MediaKind::Recording:
            return {MEDIA_TYPE_PVR, DEV_TYPE_LOCAL};
        case MediaKind::Scsa:
            return {MEDIA_TYPE_SCSA, DEV_TYPE_LOCAL};
        case MediaKind::Dlna:
            return {MEDIA_TYPE_DLNA, DEV_TYPE_DLNA};
        case MediaKind::Web:
            return {MEDIA_TYPE_PICTURE, DEV_TYPE_SNS};
        case MediaKind::Ptp:
            return {MEDIA_TYPE_PICTURE, DEV_TYPE_PTP};
        case MediaKind::Ra:
            return {MEDIA_TYPE_PICTURE, DEV_TYPE_RA};
        case MediaKind::Unknown:
            break;
    }
    return {MEDIA_TYPE_NONE, DEV_TYPE_LOCAL};
}

const char* KindName(MediaKind kind) {
    switch (kind) {
        case MediaKind::Picture:
            return "picture";
        case MediaKind::Music:
            return "music";
        case MediaKind::Video:
            return "video";
        case MediaKind::Recording:
            return "recording";
        case MediaKind::Scsa:
            return "scsa";
        case MediaKind::Dlna:
            return "dlna";
        case MediaKind::Web:
            return "web";
        case MediaKind::Ptp:
            return "ptp";
        case MediaKind::Ra:
            return "ra";
        case MediaKind::Unknown:
            break;
    }
    return "unknown";
}

MediaKind KindFromName(const std::string& name) {
    for (MediaKind kind :
         {MediaKind::Picture, MediaKind::Music, MediaKind::Video, MediaKind::Recording,
          MediaKind::Scsa, MediaKind::Dlna, MediaKind::Web, MediaKind::Ptp, MediaKind::Ra}) {
        if (name == KindName(kind)) return kind;
    }
    return MediaKind::Unknown;
}

std::string LocalPathOf(const std::string& input) {
    if (input.empty()) return "";
    if (StartsWith(Lower(input.substr(0, 7)), "file://")) return input.substr(7);
    if (input.find("://") != std::string::npos || IsDlnaTriple(input)) return "";
    return input;
}

std::string PathOfUri(const std::string& uri) {
    if (uri.find("://") == std::string::npos) return uri;
    if (!StartsWith(Lower(uri.substr(0, 7)), "file://")) return "";
    std::string rest = uri.substr(7);
    if (StartsWith(Lower(rest), "localhost/")) rest.erase(0, 9);
    if (rest.empty() || rest[0] != '/') return "";  // another host
    std::string path;
    for (size_t i = 0; i < rest.size(); ++i) {
        if (rest[i] == '%' && i + 2 < rest.size() && std::isxdigit(static_cast<unsigned char>(rest[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(rest[i + 2]))) {
            path.push_back(static_cast<char>(std::stoi(rest.substr(i + 1, 2), nullptr, 16)));
            i += 2;
        } else {
            path.push_back(rest[i]);
        }
    }
    return path;
}

std::string ReadHead(const std::string& path) {
    QRBScopedFile file(std::fopen(path.c_str(), "rb"));
    if (!file) return "";
    std::string head(kHeadBytes, '\0');
    head.resize(std::fread(&head[0], 1, head.size(), file.get()));
    return head;
}

MediaKind GuessKind(const std::string& input, const std::string& head) {
    const std::string lower = Lower(input.substr(0, 8));
    if (StartsWith(lower, "http://") || StartsWith(lower, "https://")) return MediaKind::Web;
    if (StartsWith(lower, "ptp://")) return MediaKind::Ptp;
    const std::string path = LocalPathOf(input);
    if (path.empty()) return IsDlnaTriple(input) ? MediaKind::Dlna : MediaKind::Unknown;

    const MediaKind byName = ExtensionKind(path);
    const MediaKind content = ContentMagic(head);
    if (content != MediaKind::Unknown) return content;
    const MediaKind container = ContainerMagic(head);
    if (container != MediaKind::Unknown && !IsMediaKind(byName)) return container;
    return byName;
}

}  // namespace qrbthumb
