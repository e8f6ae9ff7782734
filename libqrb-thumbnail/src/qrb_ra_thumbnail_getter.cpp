#include "qrb_ra_thumbnail_getter.h"

#include "image-decoder/qrb_image_processor.h"
#include "image-decoder/qrb_picture_thumb_param.h"
#include "qrb_failure.h"
#include "qrb_log.h"
#include "qrb_scoped.h"
#include "qrb_system_path.h"
#include "qrb_util.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

std::atomic<int32_t> CQRBRAThumbnailGetter::m_lRAFileID{0};

namespace {

void CloseFile(FILE* f) { std::fclose(f); }
using ScopedFile = QRBScoped<FILE, CloseFile>;
void FreeRaster(unsigned char* p) { std::free(p); }
using ScopedRaster = QRBScoped<unsigned char, FreeRaster>;
using ScopedCurl = QRBScoped<CURL, curl_easy_cleanup>;

// Removes the temporary file once armed, that is once this getter has created it; a name that
// was taken by someone else is never armed and so never removed.
class TempFileGuard {
public:
    // path is read when the guard ends: it must outlive the guard.
    explicit TempFileGuard(const std::string& path) noexcept : m_Path(path) {}
    ~TempFileGuard() {
        if (m_bArmed && unlink(m_Path.c_str()) != 0) {
            QRB_LOGW("remove %s failed, errno=%d", m_Path.c_str(), errno);
        }
    }
    TempFileGuard(const TempFileGuard&) = delete;
    TempFileGuard& operator=(const TempFileGuard&) = delete;
    void Arm() noexcept { m_bArmed = true; }

private:
    const std::string& m_Path;
    bool m_bArmed = false;
};

// The picture in the temporary file at path, decoded to cover width x height and cropped to
// it; null when the decoder refuses the file.
boost::intrusive_ptr<CQRBThumbImage> DecodeTempFile(const std::string& path, int width,
                                                    int height) {
    const std::string url = "file://" + path;
    qrb_picture_thumb_param param;  // everything else zero
    param.path = url.c_str();
    param.width = width;
    param.height = height;
    param.bModeFlag = 1;
    param.bDecoderFlag = 1;
    int decodedW = 0;
    int decodedH = 0;
    // malloc'ed by the decoder; owned here until the image takes it.
    ScopedRaster raster(
        CQRBImageProcessor::GetThumbnailBuffer(url.c_str(), param, &decodedW, &decodedH, nullptr));
    QRB_LOGD("MediaManager.GetThumbnailBuffer Succeed, pucThumbBuffer=%p",
             static_cast<void*>(raster.get()));
    if (!raster) return nullptr;

    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    const bool created =
        image->Create(decodedW, decodedH, 32, static_cast<long>(decodedW) * 4, raster.get(), 0);
    if (image->GetBuffer() == raster.get()) raster.release();  // the image frees it now
    if (!created) return nullptr;
    CQRBRAThumbnailGetter::m_CropToRequest(*image, width, height);
    return image;
}

}  // namespace

const char* CQRBRAThumbnailGetter::T_CONVERTURITOPATH(const char* uri) { return uri; }

std::string CQRBRAThumbnailGetter::m_TempName(int pid, int counter) {
    char name[64];  // the fixed path with both numbers fits with room to spare
    std::snprintf(name, sizeof(name), QRB_DATA_DIR "ra%d%05d.jpg", pid, counter);
    return QRBSystemPath(name);
}

bool CQRBRAThumbnailGetter::m_CreateDir(const char* path) {
    if (path == nullptr || *path == '\0') return false;
    // The folders get 0755 exactly, whatever the umask.
    if (const char* failed = CQRBUtil::MakeDirs(path, 0755, true)) {
        QRB_LOGW("%s   error", failed);
        return false;
    }
    return true;
}

bool CQRBRAThumbnailGetter::m_WriteFlashFile(const char* path, const char* data, int size,
                                             int* createErrno) {
    if (createErrno != nullptr) *createErrno = 0;
    if (path == nullptr || (data == nullptr && size > 0) || size < 0) return false;
    QRB_LOGD("Writing the data to flash ,path is %s.............\n", path);
    // Exclusive and without following links: whatever is planted at the name stays untouched.
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        const int error = errno;
        if (createErrno != nullptr) *createErrno = error;
        QRB_LOGW("Failed to create %s  file.\n", path);
        QRB_LOGW("error no=%d desc: %s", error, std::strerror(error));
        return false;
    }
    ScopedFile file(fdopen(fd, "wb"));
    if (!file) {
        const int error = errno;
        close(fd);
        unlink(path);
        QRB_LOGW("Failed to create %s  file.\n", path);
        QRB_LOGW("error no=%d desc: %s", error, std::strerror(error));
        return false;
    }
    bool ok = size == 0 || std::fwrite(data, 1, static_cast<size_t>(size), file.get()) ==
                               static_cast<size_t>(size);
    // fclose flushes: its result is part of the write's.
    ok = std::fclose(file.release()) == 0 && ok;
    if (!ok) {
        QRB_LOGW("writing %s failed, errno=%d", path, errno);
        unlink(path);
        return false;
    }
    QRB_LOGD("Writing Done .............\n");
    return true;
}

void CQRBRAThumbnailGetter::m_CropToRequest(CQRBThumbImage& image, int width, int height) {
    const int w = image.GetWidth();
    const int h = image.GetHeight();
    if (width <= 0 || height <= 0 || width > w || height > h) return;
    image.CropARGB((w - width) / 2, (h - height) / 2, width, height);
}

CQRBRAThumbnailGetter::CQRBRAThumbnailGetter() {
    // libcurl's global state, made once per process before the first easy handle (the HTTP
    // variant may not have made it yet); never torn down while the library is loaded.
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

size_t CQRBRAThumbnailGetter::receive(const char* data, size_t size, size_t nmemb,
                                      std::string* buffer) {
    if (data == nullptr || buffer == nullptr) return 0;
    // Tested before appending, so a body may end up to one chunk above the cap.
    if (buffer->size() > kMaxBodyBytes) return 0;
    const size_t n = size * nmemb;
    buffer->append(data, n);
    return n;
}

size_t CQRBRAThumbnailGetter::m_CurlWrite(char* data, size_t size, size_t nmemb, void* userp) {
    try {
        std::string* buffer = static_cast<std::string*>(userp);
        const size_t taken = receive(data, size, nmemb, buffer);
        // The transfer runs on the requesting worker: the reason lands on its request.
        if (taken == 0 && buffer != nullptr && buffer->size() > kMaxBodyBytes) {
            QRBNoteFailure(QRBFailure::kTooLarge);
        }
        return taken;
    } catch (...) {
        return 0;  // out of memory: abort this transfer rather than let libcurl unwind
    }
}

bool CQRBRAThumbnailGetter::m_DownLoadThumbnail(const std::string& url, std::string* buffer) {
    if (buffer == nullptr) return false;
    buffer->clear();
    ScopedCurl curl(curl_easy_init());
    if (!curl) {
        QRB_LOGW("curl_easy_init fail, url=%s", url.c_str());
        return false;
    }
    CURL* h = curl.get();
    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_HEADER, 0L);
    curl_easy_setopt(h, CURLOPT_NOPROGRESS, 1L);
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSec);
    curl_easy_setopt(h, CURLOPT_TIMEOUT, kTotalTimeoutSec);
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    // Remote-access servers present certificates of their own making: not verified, by design.
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &CQRBRAThumbnailGetter::m_CurlWrite);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, static_cast<void*>(buffer));
    curl_easy_setopt(h, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(h, CURLOPT_FORBID_REUSE, 1L);
    // Remote pictures only: a request URL must never make the library read local files or
    // speak other protocols on its behalf, redirects included.
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    // A declared length above the cap is refused before the body comes.
    curl_easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaxBodyBytes));
    const CURLcode res = curl_easy_perform(h);
    if (res != CURLE_OK) {
        if (res == CURLE_FILESIZE_EXCEEDED) {
            QRBNoteFailure(QRBFailure::kTooLarge);
        } else if (res == CURLE_OPERATION_TIMEDOUT) {
            QRBNoteFailure(QRBFailure::kTimedOut);
        } else {
            QRBNoteFailure(QRBFailure::kDownloadFailed, curl_easy_strerror(res));
        }
        QRB_LOGW("curl_easy_perform() failed: %s\n", curl_easy_strerror(res));
        return false;
    }
    // The HTTP status is not judged: an error page is a body like any other. Should it fail to
    // decode, the status is why.
    long status = 0;
    if (curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK && status >= 400) {
        QRBNoteFailure(QRBFailure::kDownloadFailed, "HTTP " + std::to_string(status));
    }
    return true;
}

boost::intrusive_ptr<CQRBThumbImage> CQRBRAThumbnailGetter::m_DecodeBytes(const std::string& buffer,
                                                                          int width, int height) {
    const std::string dataDir = QRBSystemPath(QRB_DATA_DIR);
    if (!m_CreateDir(dataDir.c_str())) {
        QRB_LOGW("Write JPG Buffer fail");
        return nullptr;
    }

    QRB_LOGD("ImageBuff.size()=%d", static_cast<int>(buffer.size()));
    std::string path;
    TempFileGuard guard(path);  // armed once the file is ours; removes it on every way out
    bool written = false;
    for (int attempt = 0; attempt < kMaxNameAttempts && !written; ++attempt) {
        const int counter = static_cast<int>(++m_lRAFileID & INT32_MAX);
        path = m_TempName(static_cast<int>(getpid()), counter);
        int createErrno = 0;
        written = m_WriteFlashFile(path.c_str(), buffer.data(), static_cast<int>(buffer.size()),
                                   &createErrno);
        // Only a taken name is worth another try; any other failure would repeat.
        if (!written && createErrno != EEXIST) break;
    }
    if (!written) {
        QRBNoteFailure(QRBFailure::kScratch);
        QRB_LOGW("Write JPG Buffer fail");
        return nullptr;
    }
    guard.Arm();
    QRB_LOGD("Write JPG Buffer Succeed");
    return DecodeTempFile(path, width, height);
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBRAThumbnailGetter::m_DecodeThumbnail(
    std::string& buffer, int width, int height) {
    if (buffer.empty()) return nullptr;
    // The file is written with an int count; the download cap keeps bodies far below that.
    if (buffer.size() > static_cast<size_t>(INT32_MAX)) return nullptr;
    // The temporary file is gone by the time the image is packed.
    boost::intrusive_ptr<CQRBThumbImage> image = m_DecodeBytes(buffer, width, height);
    if (!image) return nullptr;
    return t_PackImage(image);
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBRAThumbnailGetter::ExtractThumbnail(
    _stExtractInfo info) {
    // This call's own buffer: the getter is shared by every worker of the single variant.
    std::string buffer;
    if (!m_DownLoadThumbnail(info.strURL, &buffer)) {
        QRB_LOGW("download error, url=%s", info.strURL.c_str());
        return nullptr;
    }
    return m_DecodeThumbnail(buffer, info.width, info.height);
}
