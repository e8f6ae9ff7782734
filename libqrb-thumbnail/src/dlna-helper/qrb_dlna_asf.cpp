// The ASF MTA helper behind qrb_dlna_asf_mta_download, _decode and _free: fetches a DLNA item's
// MTA side file through the media-sharing download and turns it into five chapter pictures.
//
// Downloads share one process-wide completion semaphore (a counter under a mutex, with a
// condition), kept so on purpose: with two downloads in flight, whichever completes first
// releases whichever caller wakes first, and that caller may return before its own download has
// reported. Such a download still reports later, so its context must outlive its caller: the
// context is shared between the caller and the download (the callback holds the download's
// share until its final call), and the result it carries is atomic because the caller may read
// it while the download writes it.
#define QRB_LOG_TAG "QRB-DLNA"
#include "asf_provider.h"
#include "qrb_dlna_video_ac_info.h"
#include "qrb_log.h"
#include "qrb_mutex.h"
#include "qrb_thumbnail.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string>

#define QRB_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// The download's fourth argument, always this value: the least time between two progress
// reports, in milliseconds.
constexpr int kProviderArgument = 1000;
constexpr int kMtaChapters = 5;

struct DownloadContext {
    std::string dlpath;
    void* user = nullptr;
    // -1 until the download reports: a caller released by another download's completion, or
    // whose request was refused, answers -1.
    std::atomic<int> result{-1};
};
using DownloadContextRef = std::shared_ptr<DownloadContext>;

struct CompletionSemaphore {
    CQRBMutex mutex;
    CQRBCond cond;
    int count = 0;
};

// Never destroyed: a download thread may still signal it while the process exits.
CompletionSemaphore& Semaphore() {
    static CompletionSemaphore* semaphore = new CompletionSemaphore;
    return *semaphore;
}

void TakeSemaphore() {
    CompletionSemaphore& sem = Semaphore();
    CQRBAutoLock lock(sem.mutex);
    while (sem.count < 1) sem.cond.Wait(sem.mutex);
    --sem.count;
}

void GiveSemaphore() {
    CompletionSemaphore& sem = Semaphore();
    CQRBAutoLock lock(sem.mutex);
    ++sem.count;
    sem.cond.Signal();
}

const char* OrNull(const char* text) { return text != nullptr ? text : "(null)"; }

// user is the download's share of its context (a heap-held DownloadContextRef), released at the
// final call: the media-sharing library never calls again for that download.
void qrb_dlna_mta_download_callback(int token, asf_provider_download_status_s* status, void* user) {
    if (status == nullptr || user == nullptr) return;
    QRB_LOGD("download state event received token: %d,state %d\t received %ld /%ld ", token,
             status->state, status->received, status->total);
    auto* share = static_cast<DownloadContextRef*>(user);
    if (status->state == ASF_PROVIDER_DOWNLOAD_COMPLETED) {
        QRB_LOGD("Download Complete");
        (*share)->result.store(0);
    } else if (status->state == ASF_PROVIDER_DOWNLOAD_ERROR) {
        QRB_LOGW("DOWNLOAD_STATUS_ERROR");
        (*share)->result.store(-1);
    } else {
        return;  // progress: neither wakes anybody nor changes the result
    }
    delete share;
    GiveSemaphore();
}

int MtaDownload(const char* uri, const char* mimetype, const char* dlpath, void* user) {
    QRB_LOGD("enter qrb_dlna_asf_mta_download ");
    DownloadContextRef context(new (std::nothrow) DownloadContext);
    auto* share = context ? new (std::nothrow) DownloadContextRef(context) : nullptr;
    if (share == nullptr) {
        QRB_LOGW("malloc error");
        return -1;
    }
    context->dlpath = dlpath != nullptr ? dlpath : "";
    context->user = user;
    int token = 0;
    const int error = asf_provider_download(uri, mimetype, dlpath, kProviderArgument,
                                            &qrb_dlna_mta_download_callback, share, &token);
    QRB_LOGD("asf_provider_download error: %d ", error);
    QRB_LOGD("download request has been sent token id: %d, erroNo[%d]", token, error);
    if (error != 0) {
        delete share;  // a refused request gets no callback
        return -1;
    }
    QRB_LOGD("sSem take()...");
    TakeSemaphore();
    return context->result.load();
}

int MtaFree(thumb_asf_mta_info_s* infos, int count) {
    for (int i = 0; infos != nullptr && i < count; ++i) {
        QRB_LOGD("qrb_asf_mta_free");
        delete[] infos[i].stream;
    }
    QRB_LOGD("Free.22..");
    std::free(infos);
    return 0;
}

int MtaDecode(const char* path, thumb_asf_mta_info_s** infos, int* count) {
    QRB_LOGD("entring  qrb_dlna_asf_mta_decode szDstPath[%s]!!!", OrNull(path));
    if (infos == nullptr || count == nullptr) {
        QRB_LOGW("qrb_dlna_asf_mta_decode: no place for the result");
        return QRB_DLNA_MTA_UNREADABLE;
    }
    *infos = nullptr;
    QRBDlnaVideoACInfo info;
    if (info.LoadVideoACInfo(path) != 0 || info.GetChapterNum() != kMtaChapters) {
        QRB_LOGW("LoadVideoACInfo Failed !!!");
        return QRB_DLNA_MTA_UNREADABLE;
    }
    *count = info.GetChapterNum();
    // calloc: every stream starts null, so a partial array can be released at any point.
    auto* array =
        static_cast<thumb_asf_mta_info_s*>(std::calloc(kMtaChapters, sizeof(thumb_asf_mta_info_s)));
    if (array == nullptr) {
        QRB_LOGW("Error :  pmtaArray malloc  failed");
        return QRB_DLNA_MTA_NO_MEMORY;
    }
    try {
        for (int i = 0; i < kMtaChapters; ++i) {
            const unsigned char* data = nullptr;
            const unsigned long length = info.GetVideoChapterThumbStream(i, &data);
            array[i].stream = new unsigned char[length];
            if (length > 0) std::memcpy(array[i].stream, data, length);
            array[i].size = static_cast<int>(length);
            array[i].start_time = static_cast<int>(info.GetVideoChapterStartTime(i));
            QRB_LOGD("i=%d GetVideoChapterThumbStream %ld ,GetVideoChapterStartTime %d!!!", i,
                     static_cast<long>(length), array[i].start_time);
        }
    } catch (const std::bad_alloc&) {
        QRB_LOGW("Error :  pmtaArray malloc  failed");
        MtaFree(array, kMtaChapters);
        return QRB_DLNA_MTA_NO_MEMORY;
    }
    *infos = array;
    QRB_LOGD("out of qrb_dlna_asf_mta_decode !!!");
    return QRB_DLNA_MTA_OK;
}

}  // namespace

QRB_EXPORT int qrb_dlna_asf_mta_download(const char* uri, const char* mimetype, const char* dlpath,
                                         void* user) {
    try {
        return MtaDownload(uri, mimetype, dlpath, user);
    } catch (const std::exception& e) {
        QRB_LOGW("qrb_dlna_asf_mta_download failed: %s", e.what());
    } catch (...) {
        QRB_LOGW("qrb_dlna_asf_mta_download failed");
    }
    return -1;
}

QRB_EXPORT int qrb_dlna_asf_mta_decode(const char* path, thumb_asf_mta_info_s** infos, int* count) {
    try {
        return MtaDecode(path, infos, count);
    } catch (const std::bad_alloc&) {
        QRB_LOGW("qrb_dlna_asf_mta_decode failed: no memory");
        return QRB_DLNA_MTA_NO_MEMORY;
    } catch (const std::exception& e) {
        QRB_LOGW("qrb_dlna_asf_mta_decode failed: %s", e.what());
    } catch (...) {
        QRB_LOGW("qrb_dlna_asf_mta_decode failed");
    }
    return QRB_DLNA_MTA_UNREADABLE;
}

QRB_EXPORT int qrb_dlna_asf_mta_free(thumb_asf_mta_info_s* infos, int count) {
    try {
        return MtaFree(infos, count);
    } catch (...) {
        QRB_LOGW("qrb_dlna_asf_mta_free failed");
    }
    return 0;
}
