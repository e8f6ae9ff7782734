#include "qrb_scsa_thumbnail_getter.h"

#include "image-decoder/qrb_image_processor.h"
#include "image-decoder/qrb_picture_thumb_param.h"
#include "qrb_log.h"
#include "qrb_scoped.h"
#include "qrb_system_path.h"
#include "scsa/qrb_dmp_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

std::atomic<int32_t> CQRBSCSAThumbnailGetter::m_lSCSAFileID{0};

namespace {

void CloseFile(FILE* f) { std::fclose(f); }
using ScopedFile = QRBScoped<FILE, CloseFile>;
void FreeBytes(char* p) { std::free(p); }
using ScopedBytes = QRBScoped<char, FreeBytes>;  // buffers the DMP source malloc'ed
void FreeRaster(unsigned char* p) { std::free(p); }
using ScopedRaster = QRBScoped<unsigned char, FreeRaster>;

// Removes the temporary file once armed, that is once this getter has created it.
class TempFileGuard {
public:
    explicit TempFileGuard(std::string path) : m_Path(std::move(path)) {}
    ~TempFileGuard() {
        if (m_bArmed && unlink(m_Path.c_str()) != 0) {
            QRB_LOGW("remove %s failed, errno=%d", m_Path.c_str(), errno);
        }
    }
    TempFileGuard(const TempFileGuard&) = delete;
    TempFileGuard& operator=(const TempFileGuard&) = delete;
    void Arm() noexcept { m_bArmed = true; }

private:
    std::string m_Path;
    bool m_bArmed = false;
};

// Makes every missing folder of dir, which ends with "/" (0755); true when it exists afterwards.
bool MakeFolders(const std::string& dir) {
    for (size_t slash = dir.find('/', 1); slash != std::string::npos;
         slash = dir.find('/', slash + 1)) {
        const std::string prefix = dir.substr(0, slash);
        // Another worker may make the same folder at the same moment: that is success too.
        if (mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    struct stat st;
    return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The picture in the file at path, decoded to cover width x height and centre-cropped to it.
boost::intrusive_ptr<CQRBThumbImage> DecodeFile(const std::string& path, int width, int height) {
    const std::string url = "file://" + path;
    qrb_picture_thumb_param param;  // reserved words and flags zero
    param.path = url.c_str();
    param.width = width;
    param.height = height;
    int w = 0;
    int h = 0;
    // malloc'ed by the decoder; owned here until the image takes it.
    ScopedRaster raster(
        CQRBImageProcessor::GetThumbnailBuffer(url.c_str(), param, &w, &h, nullptr));
    if (!raster) return nullptr;
    QRB_LOGD("MediaManager.GetThumbnailBuffer Succeed");
    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    image->Create(w, h, 32, static_cast<long>(w) * 4, raster.release(), 0);
    // No scaling here: the decoder already covers the request.
    if (width != 0 && height != 0 && w >= width && h >= height) {
        image->CropARGB((w - width) / 2, (h - height) / 2, width, height);
    }
    return image;
}

}  // namespace

std::string CQRBSCSAThumbnailGetter::m_TempName(int pid, int counter) {
    char name[64];  // the fixed path with both numbers fits with room to spare
    std::snprintf(name, sizeof(name), QRB_DATA_DIR "scsa%d%05d.jpg", pid, counter);
    return QRBSystemPath(name);
}

bool CQRBSCSAThumbnailGetter::m_WriteFlashFile(const char* path, const char* buffer, int size,
                                               bool* taken) {
    if (taken != nullptr) *taken = false;
    if (path == nullptr || size < 0 || (buffer == nullptr && size > 0)) return false;
    QRB_LOGD("Writing the data to flash ,path is %s.............\n", path);
    // Exclusive and without following links: whatever is planted at the name stays untouched.
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        if (taken != nullptr) *taken = errno == EEXIST || errno == ELOOP;
        QRB_LOGW("Failed to create %s  file.\n", path);
        return false;
    }
    ScopedFile file(fdopen(fd, "wb"));
    if (!file) {
        close(fd);
        unlink(path);
        QRB_LOGW("Failed to create %s  file.\n", path);
        return false;
    }
    bool ok = size == 0 || std::fwrite(buffer, 1, static_cast<size_t>(size), file.get()) ==
                               static_cast<size_t>(size);
    ok = std::fflush(file.get()) == 0 && ok;
    ok = std::fclose(file.release()) == 0 && ok;  // the close may report a delayed write error
    if (!ok) {
        QRB_LOGW("writing %s failed, errno=%d", path, errno);
        unlink(path);
        return false;
    }
    QRB_LOGD("Writing Done .............\n");
    return true;
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBSCSAThumbnailGetter::ExtractThumbnail(
    _stExtractInfo info) {
    QRB_LOGD("start scsa decode");
    const std::string& uri = info.strURL;
    if (uri.empty()) {
        QRB_LOGW("url empty");
        return nullptr;
    }
    CQRBDmpSource dmpSourceObj;
    if (!dmpSourceObj.MoveToIndex(uri)) {
        QRB_LOGW("dmpSourceObj.MoveToIndex fail");
        return nullptr;
    }
    int count = 0;
    dmpSourceObj.GetThumbCount(uri, count);
    QRB_LOGD("nCount=%d", count);
    if (count < 1) return nullptr;

    unsigned long long size = 0;
    char* raw = nullptr;
    bool found = false;
    for (int content = 0; content < count && !found; ++content) {
        found = dmpSourceObj.GetThumbImage(uri, content, 0, size, &raw);
        if (!found) QRB_LOGW("dmpSourceObj.GetThumbImage fail");
    }
    const ScopedBytes picture(raw);
    if (!found) return nullptr;
    QRB_LOGD("ullBuffSize = [%llu], pImageBuf = [%p]", size, static_cast<void*>(picture.get()));
    // The extractor caps pictures far below this; the file is written with an int count.
    if (size == 0 || size > static_cast<unsigned long long>(INT32_MAX)) return nullptr;

    const std::string dataDir = QRBSystemPath(QRB_DATA_DIR);
    if (!MakeFolders(dataDir)) {
        QRB_LOGW("Write JPG Buffer fail");
        return nullptr;
    }
    std::string path;
    bool written = false;
    for (int attempt = 0; attempt < kMaxNameAttempts && !written; ++attempt) {
        const int counter = static_cast<int>(++m_lSCSAFileID & INT32_MAX);
        path = m_TempName(static_cast<int>(getpid()), counter);
        bool taken = false;
        written = m_WriteFlashFile(path.c_str(), picture.get(), static_cast<int>(size), &taken);
        if (!written && !taken) break;  // only a taken name is worth another try
    }
    if (!written) {
        QRB_LOGW("Write JPG Buffer fail");
        return nullptr;
    }
    QRB_LOGD("Write JPG Buffer Succeed");

    boost::intrusive_ptr<CQRBThumbImage> image;
    {
        TempFileGuard guard(path);
        guard.Arm();
        image = DecodeFile(path, info.width, info.height);
    }
    if (!image) return nullptr;
    return t_PackImage(image);
}
