#include "qrb_id3_thumbnail_getter.h"

#include "id3-extractor/qrb_id3_extractor.h"
#include "id3-extractor/qrb_wma_extractor.h"
#include "image-decoder/qrb_image_processor.h"
#include "qrb_failure.h"
#include "qrb_log.h"
#include "qrb_scoped.h"
#include "qrb_system_path.h"
#include "qrb_temp_file.h"
#include "qrb_util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

std::atomic<uint32_t> CQRBID3ThumbnailGetter::m_lID3FileID{0};

namespace {

// m_CreateDir looks at no more of a path than this.
constexpr size_t kMaxCreateDirPath = 256;

std::string TempName(const char* pattern, int pid, int counter) {
    char name[64];  // the fixed path with both numbers fits with room to spare
    std::snprintf(name, sizeof(name), pattern, pid, counter);
    return QRBSystemPath(name);
}

}  // namespace

const char* CQRBID3ThumbnailGetter::T_CONVERTURITOPATH(const char* uri) {
    if (uri == nullptr) return nullptr;
    if (std::strncmp(uri, "file://1", 8) == 0) return uri + 8;
    if (std::strncmp(uri, "file://", 7) == 0) return uri + 7;
    return uri;
}

std::string CQRBID3ThumbnailGetter::m_ExtractExtension(const std::string& path) {
    const size_t dot = path.find_last_of('.');
    if (dot == std::string::npos) return std::string();
    const size_t separator = path.find_last_of("/\\");
    if (separator != std::string::npos && separator > dot) return std::string();
    return path.substr(dot + 1);
}

std::string CQRBID3ThumbnailGetter::m_ID3TempName(int pid, int counter) {
    return TempName(QRB_DATA_DIR "mus%05d%05d.jpg", pid, counter);
}

std::string CQRBID3ThumbnailGetter::m_WMATempName(int pid, int counter) {
    // The process id without zero padding here: a deliberate difference from the ID3 name.
    return TempName(QRB_DATA_DIR "mus%d%05d.jpg", pid, counter);
}

int CQRBID3ThumbnailGetter::m_CreateDir(const char* path) {
    if (path == nullptr) return -1;
    if (std::strlen(path) < 2) return 0;
    // At most the first 256 characters are made, the last of them as a folder too (as with a
    // trailing "/").
    const std::string dir(path, strnlen(path, kMaxCreateDirPath));
    if (CQRBUtil::MakeDirs(dir, 0755, false) != nullptr) {
        QRB_LOGW("mkdir   error");
        return -1;
    }
    return 0;
}

int CQRBID3ThumbnailGetter::m_WriteFlashFile(QRBTempFile& file,
                                             const std::function<std::string()>& nextName,
                                             const char* data, int length) {
    return t_WriteFlashFile(file, nextName, data, static_cast<size_t>(std::max(length, 0))) ? 1 : 0;
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBID3ThumbnailGetter::ExtractThumbnail(
    _stExtractInfo info) {
    const char* path = T_CONVERTURITOPATH(info.strURL.c_str());
    if (path == nullptr || *path == '\0') {
        QRB_LOGW("no path in url=%s", info.strURL.c_str());
        return nullptr;
    }
    // Case-sensitive on purpose: only a lower-case "wma" goes to the WMA extractor.
    if (m_ExtractExtension(path).find("wma") != std::string::npos) {
        return m_WMAExtract(path, info.width, info.height);
    }
    const QRBCoverContainer container = QRBTagCoverExtractor::SniffFile(path);
    if (container != QRBCoverContainer::kNone) {
        return m_TagExtract(path, container, info.width, info.height);
    }
    return m_ID3Extract(path, info.width, info.height);
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBID3ThumbnailGetter::m_ID3Extract(const char* path,
                                                                             int width,
                                                                             int height) {
    // Pictures over the cover limit are not even read.
    QRBID3Extractor extractor(kMaxCoverLength);
    QRBID3* raw = nullptr;
    const int ret = extractor.Extract(path, &raw);
    const std::unique_ptr<QRBID3> id3(raw);
    if (ret != 0 || !id3 || !id3->HasImage()) {
        QRBNoteFailure(QRBFailure::kNoCoverArt);
        QRB_LOGD("no cover in %s (%d)", path, ret);
        return nullptr;
    }
    return m_DecodeCover(id3->puImageBuf.get(), id3->uImageLength, kMaxCoverLength, false, width,
                         height);
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBID3ThumbnailGetter::m_WMAExtract(const char* path,
                                                                             int width,
                                                                             int height) {
    QRBWMAExtractor extractor;
    QRBWMAContentDesc* raw = nullptr;
    const bool ok = extractor.Extract(path, &raw);
    const std::unique_ptr<QRBWMAContentDesc> desc(raw);
    if (!ok || !desc || desc->GetCoverArtSize() == 0) {
        QRBNoteFailure(QRBFailure::kNoCoverArt);
        QRB_LOGD("no cover in %s", path);
        return nullptr;
    }
    return m_DecodeCover(desc->GETCOVERARTPOINTER(), desc->GetCoverArtSize(), kMaxCoverLength,
                         true, width, height);
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBID3ThumbnailGetter::m_TagExtract(
    const char* path, QRBCoverContainer container, int width, int height) {
    std::string cover;
    if (QRBTagCoverExtractor::Extract(path, container, &cover) != 0) {
        QRBNoteFailure(QRBFailure::kNoCoverArt);
        return nullptr;
    }
    return m_DecodeCover(reinterpret_cast<const unsigned char*>(cover.data()),
                         static_cast<uint32_t>(cover.size()),
                         QRBTagCoverExtractor::kMaxCoverLength, false, width, height);
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBID3ThumbnailGetter::m_DecodeCover(
    const unsigned char* data, uint32_t length, uint32_t maxLength, bool wma, int width,
    int height) {
    if (length == 0 || length - 1 > maxLength - 1) {
        QRB_LOGW("cover of %u bytes refused", length);
        return nullptr;
    }
    const std::string dataDir = QRBSystemPath(QRB_DATA_DIR);
    if (m_CreateDir(dataDir.c_str()) != 0) {
        QRBNoteFailure(QRBFailure::kScratch);
        return nullptr;
    }

    std::string tried;  // the last name tried
    QRBTempFile file;   // removed on every way out; a name this getter did not make never is
    const bool written =
        m_WriteFlashFile(
            file,
            [&] {
                const int counter = static_cast<int>((++m_lID3FileID) & 0x7FFFFFFFu);
                tried = wma ? m_WMATempName(getpid(), counter) : m_ID3TempName(getpid(), counter);
                return tried;
            },
            reinterpret_cast<const char*>(data), static_cast<int>(length)) == 1;
    if (written) {
        QRB_LOGD("Write JPG Buffer Succeed");
    } else {
        // The decode is still tried, at the last name tried: whatever lies there is decoded (a
        // missing file fails in the decoder).
        QRBNoteFailure(QRBFailure::kScratch);
        QRB_LOGW("Write JPG Buffer fail");
    }
    const boost::intrusive_ptr<CQRBThumbImage> image =
        t_DecodePictureFile(written ? file.Path() : tried, width, height);
    if (!image) return nullptr;
    return t_PackImage(image);
}
