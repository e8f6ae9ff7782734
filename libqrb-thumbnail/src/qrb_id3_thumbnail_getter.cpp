#include "qrb_id3_thumbnail_getter.h"

#include "id3-extractor/qrb_id3_extractor.h"
#include "id3-extractor/qrb_wma_extractor.h"
#include "image-decoder/qrb_image_processor.h"
#include "qrb_failure.h"
#include "qrb_log.h"
#include "qrb_scoped.h"
#include "qrb_system_path.h"
#include "qrb_util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

std::atomic<uint32_t> CQRBID3ThumbnailGetter::m_lID3FileID{0};

namespace {

// m_CreateDir looks at no more of a path than this.
constexpr size_t kMaxCreateDirPath = 256;

// A name already taken (left behind by a crashed process with the same id, or planted) is
// skipped for the next counter value, a few times at most.
constexpr int kMaxNameAttempts = 8;

// Removes the temporary file it was given when it goes out of scope. Only files this getter
// created are handed to it.
class TempFileGuard {
public:
    // Nothing is removed for an empty path (a file this getter did not create).
    explicit TempFileGuard(std::string path) : m_Path(std::move(path)) {}
    ~TempFileGuard() {
        if (m_Path.empty()) return;
        if (std::remove(m_Path.c_str()) != 0) QRB_LOGW("remove %s failed", m_Path.c_str());
    }
    TempFileGuard(const TempFileGuard&) = delete;
    TempFileGuard& operator=(const TempFileGuard&) = delete;

private:
    std::string m_Path;
};

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

int CQRBID3ThumbnailGetter::m_WriteFlashFile(const char* path, const char* data, int length) {
    QRB_LOGD("Writing the data to flash ,path is %s.............", path);
    // Created exclusively and without following links: nothing planted at the name is written
    // through, and the file is this process's alone (0600).
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        QRB_LOGW("Failed to create %s  file.", path);
        return 0;
    }
    QRBScopedFile file(fdopen(fd, "wb"));
    if (!file) {
        close(fd);
        std::remove(path);
        QRB_LOGW("Failed to create %s  file.", path);
        return 0;
    }
    bool ok = length <= 0 || std::fwrite(data, 1, static_cast<size_t>(length), file.get()) ==
                                 static_cast<size_t>(length);
    ok = std::fflush(file.get()) == 0 && ok;
    ok = std::fclose(file.release()) == 0 && ok;
    if (!ok) {
        std::remove(path);
        QRB_LOGW("writing %s failed", path);
        return 0;
    }
    QRB_LOGD("Writing Done .............");
    return 1;
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
    return m_DecodeCover(id3->puImageBuf.get(), id3->uImageLength, false, width, height);
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
    return m_DecodeCover(desc->GETCOVERARTPOINTER(), desc->GetCoverArtSize(), true, width, height);
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBID3ThumbnailGetter::m_DecodeCover(
    const unsigned char* data, uint32_t length, bool wma, int width, int height) {
    if (length == 0 || length - 1 > kMaxCoverLength - 1) {
        QRB_LOGW("cover of %u bytes refused", length);
        return nullptr;
    }
    const std::string dataDir = QRBSystemPath(QRB_DATA_DIR);
    if (m_CreateDir(dataDir.c_str()) != 0) return nullptr;

    std::string temp;
    bool written = false;
    for (int attempt = 0; attempt < kMaxNameAttempts && !written; ++attempt) {
        const int counter = static_cast<int>((++m_lID3FileID) & 0x7FFFFFFFu);
        temp = wma ? m_WMATempName(getpid(), counter) : m_ID3TempName(getpid(), counter);
        written = m_WriteFlashFile(temp.c_str(), reinterpret_cast<const char*>(data),
                                   static_cast<int>(length)) == 1;
        struct stat st;
        if (!written && lstat(temp.c_str(), &st) != 0) break;  // not a taken name: give up
    }
    if (written) {
        QRB_LOGD("Write JPG Buffer Succeed");
    } else {
        // The decode is still tried, at the last name tried: whatever lies there is decoded (a
        // missing file fails in the decoder), but only a file this getter wrote is removed.
        QRBNoteFailure(QRBFailure::kScratch);
        QRB_LOGW("Write JPG Buffer fail");
    }

    boost::intrusive_ptr<CQRBThumbImage> image;
    {
        TempFileGuard guard(written ? temp : std::string());
        const std::string url = "file://" + temp;
        qrb_picture_thumb_param param;  // reserved words and flags zero
        param.path = url.c_str();
        param.width = width;
        param.height = height;
        int w = 0;
        int h = 0;
        // malloc'ed by the decoder; the image owns it once created.
        unsigned char* buffer =
            CQRBImageProcessor::GetThumbnailBuffer(url.c_str(), param, &w, &h, nullptr);
        if (buffer == nullptr) return nullptr;
        QRB_LOGD("MediaManager.GetThumbnailBuffer Succeed");
        image = new CQRBThumbImage;
        image->Create(w, h, 32, static_cast<long>(w) * 4, buffer, 0);
        if (width != 0 && height != 0 && w >= width && h >= height) {
            image->CropARGB((w - width) / 2, (h - height) / 2, width, height);
        }
    }
    return t_PackImage(image);
}
