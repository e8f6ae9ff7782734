#include "id3-extractor/qrb_id3_extractor.h"

#include "qrb_byte_order.h"
#include "qrb_failure.h"
#include "qrb_log.h"
#include "qrb_scoped.h"

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

namespace {

// Frames other than pictures are read past through a buffer of this size.
constexpr size_t kWorkBufferSize = 1024;
// Only this much of a picture frame is looked at to find where its picture begins: the MIME
// type and the description of a real cover fit easily; a longer header is cut here.
constexpr size_t kPicturePeekSize = 100;
constexpr uint32_t kV23FrameHeaderSize = 10;
constexpr uint32_t kV22FrameHeaderSize = 6;
constexpr long kV1TagSize = 128;
// A picture of this length or less is no picture: it clears the one found before.
constexpr uint32_t kMinPictureLength = 2;

}  // namespace

// The open file and its size: every length read from the tag is compared with what is left of
// the file before anything is allocated for it.
struct QRBID3Extractor::Reader {
    FILE* file;
    int64_t fileSize;

    int64_t Position() const { return ftello(file); }
};

uint32_t QRBID3Extractor::m_CalculateTagTotalLength(const uint8_t size[4]) {
    return (size[0] & 0x7Fu) * 0x200000u + (size[1] & 0x7Fu) * 16384u + (size[2] & 0x7Fu) * 128u +
           (size[3] & 0x7Fu);
}

uint32_t QRBID3Extractor::m_CalculateSize4(const uint8_t* p) { return QRBReadBE32(p); }

uint32_t QRBID3Extractor::m_CalculateSize3(const uint8_t* p) { return QRBReadBE24(p); }

int QRBID3Extractor::Extract(const char* path, QRBID3** out) {
    std::unique_ptr<QRBID3> result(new QRBID3);
    const int ret = m_ExtractFromFilename(path, result.get());
    if (out != nullptr) *out = result.release();
    return ret;
}

int QRBID3Extractor::m_ExtractFromFilename(const char* path, QRBID3* result) {
    if (path == nullptr || result == nullptr) return QRB_ID3_ERR_FILE;
    QRBScopedFile file(std::fopen(path, "rb"));
    if (!file) {
        QRBNoteFileFailure(errno);
        QRB_LOGW("File Open Error %s", path);
        return QRB_ID3_ERR_FILE;
    }
    Reader reader{file.get(), 0};
    if (fseeko(file.get(), 0, SEEK_END) != 0 || (reader.fileSize = ftello(file.get())) < 0 ||
        fseeko(file.get(), 0, SEEK_SET) != 0) {
        QRB_LOGW("Fail to file seek");
        return QRB_ID3_ERR_FILE;
    }
    QRB_LOGD("ID3Extractor.cpp activating..., file name =%s", path);

    QRBID3 v22;
    QRBID3 v23;
    QRBID3 v1;
    MSTID3v2_Header header;
    if (m_ReadV2Header(file.get(), &header)) {
        const uint32_t tagSize = m_CalculateTagTotalLength(header.size);
        uint32_t consumed = 0;
        if (header.major == 3) {
            result->nVersion = 23;
            m_GetID3v2_3Tag(reader, tagSize, &v23, &consumed);
        } else if (header.major == 2) {
            result->nVersion = 22;
            m_GetID3v2_2Tag(reader, tagSize, &v22, &consumed);
        } else {
            QRB_LOGD("ID3v2.%d tag not read", header.major);
        }
        QRB_LOGD("ID3v2 tag consumed %u bytes", consumed);
    }

    // The result's version is the ID3v2 header's alone: an ID3v1 tag is looked for, and its
    // absence reported, but it does not set the version of the result.
    int ret = 0;
    if (!v23.HasImage() && !v22.HasImage()) ret = m_ReadV1Tags(file.get(), &v1);
    m_SetID3ValidValue(result, &v23, &v22, &v1);
    return ret;
}

bool QRBID3Extractor::m_ReadV2Header(FILE* file, MSTID3v2_Header* header) {
    uint8_t version[2];
    if (std::fread(header->identifier, 1, 3, file) != 3 || std::fread(version, 1, 2, file) != 2 ||
        std::fread(&header->flags, 1, 1, file) != 1 || std::fread(header->size, 1, 4, file) != 4) {
        return false;
    }
    header->major = version[0];
    header->revision = version[1];
    return std::memcmp(header->identifier, "ID3", 3) == 0;
}

int QRBID3Extractor::m_ReadV1Tags(FILE* file, QRBID3* v1) {
    if (fseeko(file, -kV1TagSize, SEEK_END) != 0) return QRB_ID3_ERR_V1_SEEK;
    MSTId3v1Tag tag;
    static_assert(sizeof(MSTId3v1Tag) == kV1TagSize, "the ID3v1 tag is 128 bytes");
    if (std::fread(&tag, 1, sizeof(tag), file) != sizeof(tag)) return QRB_ID3_ERR_V1_READ;
    return m_GetID3v1Tag(tag, v1);
}

int QRBID3Extractor::m_GetID3v1Tag(const MSTId3v1Tag& tag, QRBID3* v1) {
    if (std::memcmp(tag.identifier, "TAG", 3) != 0) return QRB_ID3_ERR_NO_V1_TAG;
    v1->nVersion = 1;
    return 0;
}

bool QRBID3Extractor::m_GetNextID3v23_Frame(FILE* file, MSTID3v2_3_Frame* frame) {
    uint8_t raw[kV23FrameHeaderSize];
    if (std::fread(raw, 1, sizeof(raw), file) != sizeof(raw)) return false;
    if (raw[0] == 0) return false;  // padding: no frame follows
    std::memcpy(frame->id, raw, 4);
    frame->id[4] = '\0';
    frame->size = m_CalculateSize4(raw + 4);
    frame->flags[0] = raw[8];
    frame->flags[1] = raw[9];
    return true;
}

bool QRBID3Extractor::m_GetNextID3v22_Frame(FILE* file, MSTID3v2_2_Frame* frame) {
    uint8_t raw[kV22FrameHeaderSize];
    if (std::fread(raw, 1, sizeof(raw), file) != sizeof(raw)) return false;
    if (raw[0] == 0) return false;  // padding
    std::memcpy(frame->id, raw, 3);
    frame->id[3] = '\0';
    frame->size = m_CalculateSize3(raw + 3);
    return true;
}

void QRBID3Extractor::m_GetID3v2_3Tag(Reader& reader, uint32_t tagSize, QRBID3* v23,
                                      uint32_t* consumed) {
    unsigned char work[kWorkBufferSize];
    uint32_t used = 0;
    bool anyFrame = false;
    // Every turn consumes at least a frame header, so the walk ends within the tag.
    while (tagSize - used >= kV23FrameHeaderSize) {
        MSTID3v2_3_Frame frame;
        if (!m_GetNextID3v23_Frame(reader.file, &frame)) break;
        anyFrame = true;
        used += kV23FrameHeaderSize;
        if (frame.size == 0) continue;
        if (frame.size > tagSize - used) {
            QRB_LOGW("frame %s of %u bytes does not fit in the %u left of the tag", frame.id,
                     frame.size, tagSize - used);
            break;
        }
        if (std::strcmp(frame.id, "APIC") == 0) {
            QRB_LOGD("readLength=%ld frameHeaderSize=%d", static_cast<long>(used),
                     static_cast<int>(kV23FrameHeaderSize));
            QRB_LOGD("size=%ld", static_cast<long>(frame.size));
            if (!m_ReadPictureFrame(reader, frame.size, false, v23)) break;
        } else if (!m_ReadData(reader.file, work, sizeof(work), frame.size)) {
            // Text frames, USLT, SMID, SGID and the rest are passed over alike.
            break;
        }
        used += frame.size;
    }
    if (anyFrame) v23->nVersion = 23;
    *consumed = used;
}

void QRBID3Extractor::m_GetID3v2_2Tag(Reader& reader, uint32_t tagSize, QRBID3* v22,
                                      uint32_t* consumed) {
    unsigned char work[kWorkBufferSize];
    uint32_t used = 0;
    bool anyFrame = false;
    while (tagSize - used >= kV22FrameHeaderSize) {
        MSTID3v2_2_Frame frame;
        if (!m_GetNextID3v22_Frame(reader.file, &frame)) break;
        anyFrame = true;
        used += kV22FrameHeaderSize;
        if (frame.size == 0) continue;
        if (frame.size > tagSize - used) {
            QRB_LOGW("frame %s of %u bytes does not fit in the %u left of the tag", frame.id,
                     frame.size, tagSize - used);
            break;
        }
        if (std::strcmp(frame.id, "PIC") == 0) {
            if (!m_ReadPictureFrame(reader, frame.size, true, v22)) break;
        } else if (!m_ReadData(reader.file, work, sizeof(work), frame.size)) {
            break;
        }
        used += frame.size;
    }
    if (anyFrame) v22->nVersion = 22;
    *consumed = used;
}

long QRBID3Extractor::m_PictureHeaderLength(const unsigned char* peek, size_t peekLength,
                                            bool v22) {
    // Text encoding byte, then the MIME type ("image/...", zero-terminated Latin-1) or, in
    // ID3v2.2, a 3-byte image format that must be "JPG".
    size_t pos = 1;
    if (v22) {
        if (peekLength < 5 || std::memcmp(peek + 1, "JPG", 3) != 0) return -1;
        pos = 4;
    } else {
        if (peekLength < 6 || std::memcmp(peek + 1, "image", 5) != 0) return -1;
        while (pos < peekLength && peek[pos] != 0) ++pos;
        ++pos;  // its terminator
    }
    ++pos;  // picture type
    // The description ends with one zero byte in Latin-1 (0) and UTF-8 (3), with a zero pair
    // in UTF-16 with a byte-order mark (1) and UTF-16BE (2); unknown encodings are taken as
    // UTF-16, whose terminator is the longer one.
    const uint8_t encoding = peek[0];
    if (encoding == 0 || encoding == 3) {
        while (pos < peekLength && peek[pos] != 0) ++pos;
        pos += 1;
    } else {
        while (pos + 1 < peekLength && (peek[pos] != 0 || peek[pos + 1] != 0)) pos += 2;
        pos += 2;
    }
    return static_cast<long>(std::min(pos, peekLength));
}

bool QRBID3Extractor::m_ReadPictureFrame(Reader& reader, uint32_t frameSize, bool v22,
                                         QRBID3* record) {
    const int64_t start = reader.Position();
    if (start < 0) return false;
    unsigned char peek[kPicturePeekSize];
    const size_t got = std::fread(peek, 1, sizeof(peek), reader.file);
    // The peek is always the full 100 bytes: a picture frame with fewer left in the file (a
    // small frame at its very end) is a read error and ends the walk, however small the frame.
    if (got < sizeof(peek)) {
        QRB_LOGW("READ ERROR");
        return false;
    }
    const size_t peekLength = std::min<size_t>(got, frameSize);
    const long headerLength = m_PictureHeaderLength(peek, peekLength, v22);
    if (headerLength < 0) {
        QRB_LOGW("picture frame without an image (%s)", v22 ? "format is not JPG" : "MIME type");
        return false;
    }
    QRB_LOGD("ulContentLength:%d", static_cast<int>(headerLength));

    const uint32_t length = frameSize - static_cast<uint32_t>(headerLength);
    const int64_t pictureStart = start + headerLength;
    const int64_t frameEnd = start + frameSize;
    if (length <= kMinPictureLength) {
        record->ClearImage();
        return fseeko(reader.file, frameEnd, SEEK_SET) == 0;
    }
    // The limits are checked before the buffer exists: a picture longer than what is left of
    // the file is a truncated frame (the walk ends, keeping the earlier picture); one longer
    // than the caller's limit replaces the earlier picture with none.
    if (pictureStart > reader.fileSize ||
        length > static_cast<uint64_t>(reader.fileSize - pictureStart)) {
        QRB_LOGW("picture of %u bytes runs past the end of the file", length);
        return false;
    }
    if (length > m_uMaxImageLength) {
        QRB_LOGW("picture of %u bytes is over the limit of %u", length, m_uMaxImageLength);
        record->ClearImage();
        return fseeko(reader.file, frameEnd, SEEK_SET) == 0;
    }
    if (fseeko(reader.file, pictureStart, SEEK_SET) != 0) {
        QRB_LOGW("Fail to file seek");
        return false;
    }
    std::unique_ptr<unsigned char[]> data(new (std::nothrow) unsigned char[length]);
    if (!data) {
        QRB_LOGW("no memory for a picture of %u bytes", length);
        return false;
    }
    if (!m_ReadImageData(reader.file, data.get(), length)) {
        QRB_LOGW("READ ERROR");
        return false;
    }
    QRB_LOGD("Length = %ld", static_cast<long>(length));
    // The picture is read once, into its own buffer of its exact size, which the record takes.
    QRB_LOGD("pID3->puImageBuf = %p, pData = %p, uLength = %ld",
             static_cast<void*>(record->puImageBuf.get()), static_cast<void*>(data.get()),
             static_cast<long>(length));
    record->puImageBuf = std::move(data);
    record->uImageLength = length;
    return true;
}

bool QRBID3Extractor::m_ReadData(FILE* file, unsigned char* work, size_t workSize,
                                 uint32_t length) {
    while (length > 0) {
        const size_t chunk = std::min<size_t>(length, workSize);
        if (std::fread(work, 1, chunk, file) != chunk) return false;
        length -= static_cast<uint32_t>(chunk);
    }
    return true;
}

bool QRBID3Extractor::m_ReadImageData(FILE* file, unsigned char* out, uint32_t length) {
    size_t done = 0;
    while (done < length) {
        const size_t n = std::fread(out + done, 1, length - done, file);
        if (n == 0) return false;
        done += n;
    }
    return true;
}

void QRBID3Extractor::m_SetID3ValidValue(QRBID3* result, QRBID3* v23, QRBID3* v22, QRBID3* v1) {
    QRBID3* source = nullptr;
    if (v23->HasImage()) {
        QRB_LOGD("got validVersion PIC (v2.3)");
        source = v23;
    } else if (v22->HasImage()) {
        QRB_LOGD("got validVersion PIC (v2.2)");
        source = v22;
    } else if (v1->HasImage()) {
        QRB_LOGD("got validVersion PIC (v1)");
        source = v1;
    }
    if (source == nullptr) {
        result->ClearImage();
        return;
    }
    // The working record is discarded right after: its buffer moves instead of being copied.
    // The picture and its length only: the result's version came from the ID3v2 header.
    result->puImageBuf = std::move(source->puImageBuf);
    result->uImageLength = source->uImageLength;
    source->uImageLength = 0;
}
