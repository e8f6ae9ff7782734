#include "id3-extractor/qrb_tag_cover_extractor.h"

#include "qrb_log.h"
#include "qrb_scoped.h"

#include <taglib/apefile.h>
#include <taglib/apetag.h>
#include <taglib/flacfile.h>
#include <taglib/flacpicture.h>
#include <taglib/id3v2framefactory.h>
#include <taglib/mp4file.h>
#include <taglib/mp4tag.h>
#include <taglib/oggflacfile.h>
#include <taglib/opusfile.h>
#include <taglib/speexfile.h>
#include <taglib/tfilestream.h>
#include <taglib/vorbisfile.h>
#include <taglib/wavpackfile.h>
#include <taglib/xiphcomment.h>

#include <cstdio>
#include <cstring>
#include <memory>

namespace {

bool HasBytes(const unsigned char* head, size_t size, size_t offset, const char* bytes, size_t n) {
    return size >= offset + n && std::memcmp(head + offset, bytes, n) == 0;
}

// TagLib's file stream, refusing any read longer than the bound: TagLib allocates what a size
// field asks for (up to the file's length) before it reads.
class BoundedFileStream : public TagLib::FileStream {
public:
    explicit BoundedFileStream(const char* path) : TagLib::FileStream(path, true) {}
    TagLib::ByteVector readBlock(unsigned long length) override {
        if (length > QRBTagCoverExtractor::kMaxReadBytes) {
            QRB_LOGW("a read of %lu bytes refused", length);
            return TagLib::ByteVector();
        }
        return TagLib::FileStream::readBlock(length);
    }
};

// The front cover among FLAC picture records, else the first.
const TagLib::FLAC::Picture* FrontOrFirst(const TagLib::List<TagLib::FLAC::Picture*>& pictures) {
    for (const TagLib::FLAC::Picture* picture : pictures) {
        if (picture != nullptr && picture->type() == TagLib::FLAC::Picture::FrontCover) {
            return picture;
        }
    }
    return pictures.isEmpty() ? nullptr : pictures.front();
}

bool Take(const TagLib::ByteVector& data, std::string* cover) {
    if (data.isEmpty()) return false;
    cover->assign(data.data(), data.size());
    return true;
}

bool FromPictures(const TagLib::List<TagLib::FLAC::Picture*>& pictures, std::string* cover) {
    const TagLib::FLAC::Picture* picture = FrontOrFirst(pictures);
    return picture != nullptr && Take(picture->data(), cover);
}

bool FromXiph(TagLib::Ogg::XiphComment* comment, std::string* cover) {
    return comment != nullptr && FromPictures(comment->pictureList(), cover);
}

// An APE "Cover Art" item: a description, a zero byte, then the picture.
bool FromApe(TagLib::APE::Tag* tag, std::string* cover) {
    if (tag == nullptr) return false;
    const TagLib::APE::ItemListMap& items = tag->itemListMap();
    const TagLib::APE::Item* chosen = nullptr;
    for (const auto& entry : items) {  // keys are upper case in TagLib
        if (entry.second.type() != TagLib::APE::Item::Binary) continue;
        if (entry.first == "COVER ART (FRONT)") {
            chosen = &entry.second;
            break;
        }
        if (chosen == nullptr && entry.first.startsWith("COVER ART")) chosen = &entry.second;
    }
    if (chosen == nullptr) return false;
    const TagLib::ByteVector value = chosen->binaryData();
    const int end = value.find('\0');
    if (end < 0) return false;
    return Take(value.mid(static_cast<unsigned int>(end) + 1), cover);
}

bool FromMp4(TagLib::MP4::Tag* tag, std::string* cover) {
    if (tag == nullptr || !tag->contains("covr")) return false;
    const TagLib::MP4::CoverArtList arts = tag->item("covr").toCoverArtList();
    for (const TagLib::MP4::CoverArt& art : arts) {  // no picture types: the first that has bytes
        if (Take(art.data(), cover)) return true;
    }
    return false;
}

const char* Name(QRBCoverContainer container) {
    switch (container) {
        case QRBCoverContainer::kFlac:
            return "FLAC";
        case QRBCoverContainer::kMp4:
            return "MP4";
        case QRBCoverContainer::kOggVorbis:
            return "Ogg Vorbis";
        case QRBCoverContainer::kOggOpus:
            return "Opus";
        case QRBCoverContainer::kOggFlac:
            return "Ogg FLAC";
        case QRBCoverContainer::kOggSpeex:
            return "Speex";
        case QRBCoverContainer::kApe:
            return "Monkey's Audio";
        case QRBCoverContainer::kWavPack:
            return "WavPack";
        case QRBCoverContainer::kNone:
            break;
    }
    return "unknown";
}

bool Find(BoundedFileStream* stream, QRBCoverContainer container, std::string* cover) {
    // Audio properties are never read: only the tags are wanted.
    switch (container) {
        case QRBCoverContainer::kFlac: {
            TagLib::FLAC::File file(stream, TagLib::ID3v2::FrameFactory::instance(), false);
            return file.isValid() &&
                   (FromPictures(file.pictureList(), cover) || FromXiph(file.xiphComment(), cover));
        }
        case QRBCoverContainer::kMp4: {
            TagLib::MP4::File file(stream, false);
            return file.isValid() && FromMp4(file.tag(), cover);
        }
        case QRBCoverContainer::kOggVorbis: {
            TagLib::Ogg::Vorbis::File file(stream, false);
            return file.isValid() && FromXiph(file.tag(), cover);
        }
        case QRBCoverContainer::kOggOpus: {
            TagLib::Ogg::Opus::File file(stream, false);
            return file.isValid() && FromXiph(file.tag(), cover);
        }
        case QRBCoverContainer::kOggFlac: {
            TagLib::Ogg::FLAC::File file(stream, false);
            return file.isValid() && FromXiph(file.tag(), cover);
        }
        case QRBCoverContainer::kOggSpeex: {
            TagLib::Ogg::Speex::File file(stream, false);
            return file.isValid() && FromXiph(file.tag(), cover);
        }
        case QRBCoverContainer::kApe: {
            TagLib::APE::File file(stream, false);
            return file.isValid() && FromApe(file.APETag(), cover);
        }
        case QRBCoverContainer::kWavPack: {
            TagLib::WavPack::File file(stream, false);
            return file.isValid() && FromApe(file.APETag(), cover);
        }
        case QRBCoverContainer::kNone:
            break;
    }
    return false;
}

}  // namespace

QRBCoverContainer QRBTagCoverExtractor::Sniff(const unsigned char* head, size_t size) {
    if (HasBytes(head, size, 0, "fLaC", 4)) return QRBCoverContainer::kFlac;
    if (HasBytes(head, size, 0, "MAC ", 4)) return QRBCoverContainer::kApe;
    if (HasBytes(head, size, 0, "wvpk", 4)) return QRBCoverContainer::kWavPack;
    if (HasBytes(head, size, 4, "ftyp", 4)) return QRBCoverContainer::kMp4;
    // Ogg: the codec's identification header opens the first page's packet, after the 27-byte
    // page header and its segment table.
    if (HasBytes(head, size, 0, "OggS", 4) && size > 27) {
        const size_t packet = 27 + head[26];
        if (HasBytes(head, size, packet, "\x01vorbis", 7)) return QRBCoverContainer::kOggVorbis;
        if (HasBytes(head, size, packet, "OpusHead", 8)) return QRBCoverContainer::kOggOpus;
        if (HasBytes(head, size, packet, "\x7F" "FLAC", 5)) return QRBCoverContainer::kOggFlac;
        if (HasBytes(head, size, packet, "Speex   ", 8)) return QRBCoverContainer::kOggSpeex;
    }
    return QRBCoverContainer::kNone;
}

QRBCoverContainer QRBTagCoverExtractor::SniffFile(const char* path) {
    if (path == nullptr) return QRBCoverContainer::kNone;
    QRBScopedFile fp(std::fopen(path, "rb"));
    if (!fp) return QRBCoverContainer::kNone;
    unsigned char head[kSniffBytes];
    const size_t got = std::fread(head, 1, sizeof(head), fp.get());
    return Sniff(head, got);
}

int QRBTagCoverExtractor::Extract(const char* path, QRBCoverContainer container,
                                  std::string* cover) {
    if (path == nullptr || cover == nullptr || container == QRBCoverContainer::kNone) return -1;
    cover->clear();
    BoundedFileStream stream(path);
    if (!stream.isOpen()) {
        QRB_LOGW("File Open Error %s", path);
        return -1;
    }
    bool found = false;
    try {
        found = Find(&stream, container, cover);
    } catch (const std::exception& e) {  // TagLib allocates freely; nothing may escape
        QRB_LOGW("reading the tags of %s failed: %s", path, e.what());
        cover->clear();
        return -1;
    }
    if (!found) {
        QRB_LOGD("no cover art in %s (%s)", path, Name(container));
        return -1;
    }
    if (cover->size() > kMaxCoverLength) {
        QRB_LOGW("cover of %zu bytes in %s refused", cover->size(), path);
        cover->clear();
        return -1;
    }
    QRB_LOGD("%s cover of %zu bytes in %s", Name(container), cover->size(), path);
    return 0;
}
