#include "id3-extractor/qrb_wma_extractor.h"

#include "qrb_byte_order.h"
#include "qrb_failure.h"
#include "qrb_log.h"
#include "qrb_scoped.h"

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

namespace {

// GUIDs as they lie in the file (the first three fields little-endian).
// 75B22630-668E-11CF-A6D9-00AA0062CE6C
const unsigned char kHeaderObject[16] = {0x30, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11,
                                         0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6C};
// 75B22633-668E-11CF-A6D9-00AA0062CE6C
const unsigned char kContentDescriptionObject[16] = {
    0x33, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11, 0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6C};
// D2D0A440-E307-11D2-97F0-00A0C95EA850
const unsigned char kExtContentDescriptionObject[16] = {
    0x40, 0xA4, 0xD0, 0xD2, 0x07, 0xE3, 0xD2, 0x11, 0x97, 0xF0, 0x00, 0xA0, 0xC9, 0x5E, 0xA8, 0x50};

// GUID and 64-bit size.
constexpr uint64_t kObjectHeaderSize = 24;
// The header object's own fields (GUID, size, object count, two reserved bytes): its first
// sub-object starts here.
constexpr int64_t kFirstSubObject = 30;
// A header object smaller than this cannot hold its own fields and one byte.
constexpr uint64_t kMinHeaderObjectSize = 31;
// The "WM/Picture" value starts with the picture type (1 byte) and the picture size (4).
constexpr size_t kPictureValuePrefix = 5;

bool ReadBytes(FILE* file, void* out, size_t n) { return std::fread(out, 1, n, file) == n; }

bool ReadU16(FILE* file, uint16_t* value) {
    if (!ReadBytes(file, value, sizeof(*value))) return false;
    *value = QRBWMAExtractor::m_ConvertToLittleEndian(*value);
    return true;
}

bool ReadU64(FILE* file, uint64_t* value) {
    if (!ReadBytes(file, value, sizeof(*value))) return false;
    *value = QRBWMAExtractor::m_ConvertToLittleEndian(*value);
    return true;
}

// UTF-16LE bytes (up to a zero unit or byteLength) as UTF-8.
std::string Utf16ToUtf8(const unsigned char* bytes, size_t byteLength) {
    const size_t units = byteLength / 2;
    std::vector<unsigned short> text(units + 1, 0);
    if (units > 0) std::memcpy(text.data(), bytes, units * 2);
    QRBWMAExtractor::m_ConvertToLittleEndian(text.data());
    std::vector<unsigned char> out(units * 3 + 1, 0);
    QRBWMAExtractor::m_ConvertWStringToString_UTF8(out.data(), text.data(),
                                                   static_cast<int>(out.size()));
    return std::string(reinterpret_cast<const char*>(out.data()));
}

// The number a descriptor holds: its value for the numeric types, the first run of digits of a
// string ("2004", "(13)"), 0 otherwise.
uint64_t NumberOf(const QRBWMAExtractor::stDescriptor& d) {
    if (d.valueType >= QRBWMAExtractor::kTypeBool) return d.number;
    if (d.valueType != QRBWMAExtractor::kTypeString) return 0;
    const char* p = d.text.c_str();
    while (*p != '\0' && (*p < '0' || *p > '9')) ++p;
    uint64_t value = 0;
    for (; *p >= '0' && *p <= '9' && value < 0xFFFFFFFFu; ++p) value = value * 10 + (*p - '0');
    return value;
}

// The bytes from the current position to the end of the file (0 when unknown); the position
// is kept.
int64_t BytesLeft(FILE* file) {
    const int64_t pos = ftello(file);
    if (pos < 0 || fseeko(file, 0, SEEK_END) != 0) return 0;
    const int64_t end = ftello(file);
    if (fseeko(file, pos, SEEK_SET) != 0 || end < pos) return 0;
    return end - pos;
}

}  // namespace

void QRBWMAContentDesc::SetCoverArt(const char* data, unsigned long size) {
    if (data == nullptr || size == 0) {
        m_CoverArt.clear();
        return;
    }
    m_CoverArt.assign(reinterpret_cast<const unsigned char*>(data),
                      reinterpret_cast<const unsigned char*>(data) + size);
}

void QRBWMAContentDesc::Clear() { *this = QRBWMAContentDesc(); }

void QRBWMAContentDesc::t_Destroy() {
    m_CoverArt.clear();
    m_CoverArt.shrink_to_fit();
}

bool QRBWMAExtractor::m_IsLittleEndian() {
    const uint16_t probe = 1;
    unsigned char first;
    std::memcpy(&first, &probe, 1);
    return first == 1;
}

uint16_t QRBWMAExtractor::m_ConvertToLittleEndian(uint16_t value) {
    return m_IsLittleEndian() ? value : __builtin_bswap16(value);
}

uint32_t QRBWMAExtractor::m_ConvertToLittleEndian(uint32_t value) {
    return m_IsLittleEndian() ? value : __builtin_bswap32(value);
}

uint64_t QRBWMAExtractor::m_ConvertToLittleEndian(uint64_t value) {
    return m_IsLittleEndian() ? value : __builtin_bswap64(value);
}

void QRBWMAExtractor::m_ConvertToLittleEndian(unsigned short* text) {
    if (text == nullptr || m_IsLittleEndian()) return;
    for (; *text != 0; ++text) *text = __builtin_bswap16(*text);
}

int QRBWMAExtractor::m_ConvertOneWcharToUTF8(unsigned char* out, unsigned short ch, int room) {
    if (ch < 0x80) {
        if (room < 1) return 0;
        out[0] = static_cast<unsigned char>(ch);
        return 1;
    }
    if (ch < 0x800) {
        if (room < 2) return 0;
        out[0] = static_cast<unsigned char>(0xC0 | (ch >> 6));
        out[1] = static_cast<unsigned char>(0x80 | (ch & 0x3F));
        return 2;
    }
    if (room < 3) return 0;
    out[0] = static_cast<unsigned char>(0xE0 | (ch >> 12));
    out[1] = static_cast<unsigned char>(0x80 | ((ch >> 6) & 0x3F));
    out[2] = static_cast<unsigned char>(0x80 | (ch & 0x3F));
    return 3;
}

int QRBWMAExtractor::m_ConvertWStringToString_UTF8(unsigned char* out, const unsigned short* in,
                                                   int room) {
    if (out == nullptr || room < 1) return 0;
    int written = 0;
    if (in != nullptr) {
        for (; *in != 0; ++in) {
            // One byte stays free for the terminator.
            const int n = m_ConvertOneWcharToUTF8(out + written, *in, room - 1 - written);
            if (n == 0) break;
            written += n;
        }
    }
    out[written] = '\0';
    return written;
}

bool QRBWMAExtractor::Extract(const char* path, QRBWMAContentDesc** out) {
    std::unique_ptr<QRBWMAContentDesc> desc(new QRBWMAContentDesc);
    const int ret = m_ExtractFromFilename(path, desc.get());
    if (ret != 0) QRB_LOGW("Extract Fail");
    if (out != nullptr) *out = desc.release();
    return ret == 0;
}

int QRBWMAExtractor::m_ExtractFromFilename(const char* path, QRBWMAContentDesc* desc) {
    if (path == nullptr || desc == nullptr) return -1;
    QRBScopedFile file(std::fopen(path, "rb"));
    if (!file) {
        QRBNoteFileFailure(errno);
        QRB_LOGW("File Open Error %s", path);
        return -1;
    }
    FILE* f = file.get();
    int64_t fileSize = 0;
    if (fseeko(f, 0, SEEK_END) != 0 || (fileSize = ftello(f)) < 0 || fseeko(f, 0, SEEK_SET) != 0) {
        QRB_LOGW("Fail to file seek");
        return -1;
    }

    unsigned char guid[16];
    if (!ReadBytes(f, guid, sizeof(guid))) {
        QRB_LOGW("File Read Error");
        return -1;
    }
    if (std::memcmp(guid, kHeaderObject, sizeof(guid)) != 0) {
        QRB_LOGW("This is NOT a ASF format!");
        return -1;
    }
    uint64_t headerSize = 0;
    if (!ReadU64(f, &headerSize)) {
        QRB_LOGW("File Read Error");
        return -1;
    }
    if (headerSize < kMinHeaderObjectSize) {
        QRB_LOGW("header object of %llu bytes", static_cast<unsigned long long>(headerSize));
        return -1;
    }
    if (fseeko(f, kFirstSubObject, SEEK_SET) != 0) {
        QRB_LOGW("Fail to file seek");
        return -1;
    }

    bool contentDescriptionSeen = false;
    int64_t objectStart = kFirstSubObject;
    for (;;) {
        uint64_t size = 0;
        if (!ReadBytes(f, guid, sizeof(guid)) || !ReadU64(f, &size)) break;
        // An object must at least hold its own header; a smaller size (0 above all) would
        // bring the walk back to where it is, for ever.
        if (size < kObjectHeaderSize) {
            QRB_LOGW("object of %llu bytes at %lld", static_cast<unsigned long long>(size),
                     static_cast<long long>(objectStart));
            break;
        }
        if (!contentDescriptionSeen &&
            std::memcmp(guid, kContentDescriptionObject, sizeof(guid)) == 0) {
            contentDescriptionSeen = true;
            m_ReadContentDescription(f, size - kObjectHeaderSize, desc);
        } else if (std::memcmp(guid, kExtContentDescriptionObject, sizeof(guid)) == 0) {
            if (m_ExtractFromExtContentDesc(f, desc) != 0) {
                desc->t_Destroy();
                return -1;
            }
        }
        // Compared, not added: a hostile size cannot overflow the next position.
        if (size > static_cast<uint64_t>(fileSize - objectStart)) {
            QRB_LOGD("object at %lld runs past the end of the file",
                     static_cast<long long>(objectStart));
            break;
        }
        objectStart += static_cast<int64_t>(size);
        if (fseeko(f, objectStart, SEEK_SET) != 0) {
            QRB_LOGW("Fail to file seek");
            break;
        }
    }
    return 0;
}

int QRBWMAExtractor::m_ReadContentDescription(FILE* file, uint64_t bodySize,
                                              QRBWMAContentDesc* desc) {
    // Five lengths (title, author, copyright, description, rating), then the strings.
    uint16_t lengths[5];
    for (uint16_t& length : lengths) {
        if (!ReadU16(file, &length)) return -1;
    }
    const uint64_t needed = 10ull + lengths[0] + lengths[1];
    if (needed > bodySize || static_cast<int64_t>(lengths[0]) + lengths[1] > BytesLeft(file)) {
        return -1;
    }
    std::vector<unsigned char> text(static_cast<size_t>(lengths[0]) + lengths[1]);
    if (!text.empty() && !ReadBytes(file, text.data(), text.size())) return -1;
    desc->SetTitle(Utf16ToUtf8(text.data(), lengths[0]));
    desc->SetArtist(Utf16ToUtf8(text.data() + lengths[0], lengths[1]));
    return 0;
}

int QRBWMAExtractor::m_ExtractFromExtContentDesc(FILE* file, QRBWMAContentDesc* desc) {
    uint16_t count = 0;
    if (!ReadU16(file, &count)) return -1;
    if (count == 0 || count > kMaxDescriptorCount) {
        QRB_LOGD("descriptor count %u ignored", count);
        return 0;
    }
    std::vector<stDescriptor> descriptors(count);
    if (m_GetExtContentDesc(file, descriptors.data(), count) != 0) return -1;

    for (const stDescriptor& d : descriptors) m_ApplyDescriptor(d, desc);
    for (const stDescriptor& d : descriptors) {
        if (d.name != "WM/Picture") continue;
        if (d.valueType != kTypeBytes || d.bytes.size() < kPictureValuePrefix) continue;
        const uint32_t imageSize = QRBReadLE32(d.bytes.data() + 1);
        QRB_LOGD("uImageSize=%d", static_cast<int>(imageSize));
        if (imageSize > d.valueLength) break;
        // The picture is the end of the value; the MIME type and description before it are
        // not needed to find it.
        desc->SetCoverArt(reinterpret_cast<const char*>(d.bytes.data()) + d.valueLength - imageSize,
                          imageSize);
    }
    return 0;
}

int QRBWMAExtractor::m_GetExtContentDesc(FILE* file, stDescriptor* descriptors,
                                         unsigned short count) {
    if (descriptors == nullptr) return -1;
    const int64_t left = BytesLeft(file);
    for (unsigned short i = 0; i < count; ++i) {
        stDescriptor& d = descriptors[i];
        uint16_t nameLength = 0;
        if (!ReadU16(file, &nameLength) || nameLength == 0) return -1;
        // Checked before the name is allocated: no allocation beyond what the file holds (the
        // whole list is within `left`, so is each name).
        if (nameLength > left) return -1;
        std::vector<unsigned char> name(nameLength);
        if (!ReadBytes(file, name.data(), name.size())) return -1;
        d.name = Utf16ToUtf8(name.data(), name.size());

        if (!ReadU16(file, &d.valueType) || !ReadU16(file, &d.valueLength)) return -1;
        if (d.valueLength == 0 || d.valueLength > kMaxValueLength) {
            QRB_LOGD("descriptor %s: value of %u bytes not accepted", d.name.c_str(),
                     d.valueLength);
            return -1;
        }
        // Zero beyond the value, so that a numeric value shorter than its type reads as if
        // zero-extended.
        unsigned char value[kMaxValueLength + 8] = {};
        if (!ReadBytes(file, value, d.valueLength)) return -1;
        switch (d.valueType) {
            case kTypeString:
                d.text = Utf16ToUtf8(value, std::min<size_t>(d.valueLength, kMaxStringBytes));
                break;
            case kTypeBytes:
                d.bytes.assign(value, value + d.valueLength);
                break;
            case kTypeBool:
            case kTypeDword:
                d.number = QRBReadLE32(value);
                break;
            case kTypeQword:
                d.number = QRBReadLE64(value);
                break;
            case kTypeWord:
                d.number = QRBReadLE16(value);
                break;
            default:
                break;  // unknown types are passed over
        }
    }
    return 0;
}

void QRBWMAExtractor::m_ApplyDescriptor(const stDescriptor& d, QRBWMAContentDesc* desc) {
    if (d.name == "WM/AlbumTitle" && d.valueType == kTypeString) {
        desc->SetAlbum(d.text);
    } else if (d.name == "WM/Genre" && d.valueType == kTypeString) {
        desc->SetGenre(d.text);
    } else if (d.name == "WM/GenreID") {
        desc->SetGenreID(static_cast<short>(NumberOf(d)));
    } else if (d.name == "WM/Year") {
        desc->SetYear(static_cast<unsigned short>(NumberOf(d)));
    } else if (d.name == "WM/TrackNumber") {
        desc->SetTrackNumber(static_cast<unsigned short>(NumberOf(d)));
    } else if (d.name == "WM/TrackTotal" || d.name == "TotalTracks") {
        desc->SetTotalTracks(static_cast<unsigned short>(NumberOf(d)));
    }
}
