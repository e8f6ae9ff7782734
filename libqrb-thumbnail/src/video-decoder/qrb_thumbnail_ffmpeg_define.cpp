#include "qrb_thumbnail_ffmpeg_define.h"

#include "qrb_log.h"
#include "qrb_system_path.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>

#include <mutex>

QRBFFmpegApi g_QRBFFmpegApi = {};

namespace {

// A decoder may be built (and rebind the table) while another decoder's worker starts an
// extraction; the rewrite and the worker's copy are each made whole under this lock.
std::mutex& TableMutex() {
    static std::mutex mutex;
    return mutex;
}

// Stores the symbol in the table before it is tested, so that a failed binding leaves every
// pointer found so far in place.
template <typename Fn>
bool Lookup(void* library, const char* symbol, Fn& slot) {
    slot = reinterpret_cast<Fn>(dlsym(library, symbol));
    return slot != nullptr;
}

}  // namespace

std::string QRBFFmpegPluginFolder() {
    // A root prefix names the folder outright (tests point it at plug-ins of their own, or at
    // none).
    if (std::getenv("QRB_ROOT") != nullptr) return QRBRootedPath(QRB_GST_PLUGIN_DIR);
    auto holdsPlugins = [](const std::string& folder) {
        return access((folder + "libgstffmpeg.so").c_str(), R_OK) == 0;
    };
    if (holdsPlugins(QRB_GST_PLUGIN_DIR)) return QRB_GST_PLUGIN_DIR;
    // Installed on a host, the plug-ins sit in "gstreamer-1.0/" beside this library.
    Dl_info self;
    if (dladdr(reinterpret_cast<void*>(&QRBFFmpegPluginFolder), &self) != 0 &&
        self.dli_fname != nullptr) {
        std::string folder = self.dli_fname;
        const size_t slash = folder.rfind('/');
        folder = (slash == std::string::npos ? std::string("./") : folder.substr(0, slash + 1)) +
                 "gstreamer-1.0/";
        if (holdsPlugins(folder)) return folder;
    }
    return QRB_GST_PLUGIN_DIR;
}

std::string QRBFFmpegDecoderLibraryPath() { return QRBFFmpegPluginFolder() + "libgstffmpeg.so"; }

std::string QRBFFmpegScalerLibraryPath() {
    return QRBFFmpegPluginFolder() + "libgstffmpegscale.so";
}

void qrb_init_ffmpeg_api(unsigned char* ready) {
    unsigned char unused = 0;
    if (ready == nullptr) ready = &unused;
    *ready = 0;
    std::lock_guard<std::mutex> lock(TableMutex());
    QRBFFmpegApi& api = g_QRBFFmpegApi;

    // Never closed (see the header): no RAII owner for these two handles, on purpose.
    api.decoder_library = dlopen(QRBFFmpegDecoderLibraryPath().c_str(), RTLD_LAZY);
    if (api.decoder_library == nullptr) {
        const char* reason = dlerror();
        QRB_LOGD("dlopen: %s", reason ? reason : "");
        // The library name in this text differs from the path opened; kept as it stands.
        QRB_LOGW("dlopen /usr/lib/gstreamer-1.0/libgstlibffmpeg.so failed.");
        return;
    }
    api.scaler_library = dlopen(QRBFFmpegScalerLibraryPath().c_str(), RTLD_LAZY);
    if (api.scaler_library == nullptr) {
        const char* reason = dlerror();
        QRB_LOGD("dlopen: %s", reason ? reason : "");
        QRB_LOGW("dlopen /usr/lib/gstreamer-1.0/libgstffmpegscale.so[%p]\n", api.scaler_library);
        return;
    }
    void* dec = api.decoder_library;
    void* scl = api.scaler_library;

    if (!Lookup(dec, "gst_ffmpegapi_avformat_open_input", api.open_input)) {
        QRB_LOGW("get av open input file func pointer failed\n");
        return;
    }
    if (!Lookup(dec, "gst_ffmpegapi_avformat_close_input", api.close_input)) {
        QRB_LOGW("get av close input file func pointer failed\n");
        return;
    }
    if (!Lookup(dec, "gst_ffmpegapi_avcodec_open", api.codec_open)) {
        QRB_LOGW("get avcodec open func pointer failed\n");
        return;
    }
    if (!Lookup(dec, "gst_ffmpegapi_avcodec_close", api.codec_close)) {
        QRB_LOGW("get avcodec close func pointer failed\n");
        return;
    }
    if (!Lookup(dec, "gst_ffmpegapi_avcodec_decode_video2", api.decode_video)) {
        QRB_LOGW("get avcodec decode video2 func pointer failed.");
        return;
    }
    if (!Lookup(dec, "gst_ffmpegapi_avcodec_alloc_frame", api.alloc_frame)) {
        QRB_LOGW("get avcodec alloc frame func pointer failed\n");
        return;
    }
    if (!Lookup(dec, "gst_ffmpegapi_avcodec_alloc_packet", api.alloc_packet)) {
        QRB_LOGW("get avcodec alloc packet func pointer failed\n");
        return;
    }
    if (!Lookup(dec, "gst_ffmpegapi_av_seek_frame", api.seek_frame)) {
        QRB_LOGW("get av seek frame  func pointer failed");
        return;
    }
    if (!Lookup(dec, "gst_ffmpegapi_av_read_frame", api.read_frame)) {
        QRB_LOGW("get av read frame  func pointer failed");
        return;
    }
    if (!Lookup(dec, "gst_ffmpegapi_av_init_packet", api.init_packet)) {
        QRB_LOGW("get av init packet func pointer failed.");
        return;
    }
    if (!Lookup(dec, "gst_ffmpegapi_av_free_packet", api.free_packet)) {
        QRB_LOGW("get av free packet func pointer failed.\n");
        return;
    }
    if (!Lookup(dec, "gst_ffmpegapi_avpicture_get_size", api.picture_size)) {
        QRB_LOGW("get av picture get size func pointer failed");
        return;
    }
    if (!Lookup(dec, "gst_ffmpegapi_avpicture_fill", api.picture_fill)) {
        QRB_LOGW("get av picture fill func pointer failed");
        return;
    }
    if (!Lookup(scl, "gst_ffmpegapi_sws_getContext", api.sws_get_context)) {
        QRB_LOGW("get sws getcontent func pointer failed");
        return;
    }
    if (!Lookup(scl, "gst_ffmpegapi_sws_scale", api.sws_scale)) {
        QRB_LOGW("get av sws scale func pointer failed");
        return;
    }
    if (!Lookup(scl, "gst_ffmpegapi_sws_freeContext", api.sws_free_context)) {
        QRB_LOGW("get sws free context func pointer failed");
        return;
    }
    if (!Lookup(dec, "gst_ffmpegapi_avcodec_free_frame", api.free_frame)) {
        QRB_LOGW("get sws free frame func pointer failed\n");
        return;
    }
    Lookup(dec, "gst_ffmpegapi_av_seek_available", api.seek_available);
    // Deliberately re-tests the seek pointer (known non-null here) rather than the
    // seek-available one: a plug-in without "gst_ffmpegapi_av_seek_available" still binds and
    // reports ready. The per-extraction check refuses such a table, so nothing is decoded.
    if (api.seek_frame == nullptr) {
        QRB_LOGW("get sws av seek frame _available func pointer failed\n");
        return;
    }
    if (!Lookup(dec, "gst_ffmpegapi_avcodec_flush_buffers", api.flush_buffers)) {
        QRB_LOGW("get avcodec flush buffers func pointer failed\n");
        return;
    }
    QRB_LOGI("initialize ffmpeg api success.");
    *ready = 1;
}

bool qrb_check_ffmpeg_api(const QRBFFmpegApi& api) {
    // In the order the grabber uses them.
    return api.seek_available != nullptr && api.open_input != nullptr &&
           api.codec_open != nullptr && api.alloc_frame != nullptr && api.alloc_packet != nullptr &&
           api.seek_frame != nullptr && api.init_packet != nullptr && api.read_frame != nullptr &&
           api.decode_video != nullptr && api.flush_buffers != nullptr &&
           api.free_packet != nullptr && api.picture_size != nullptr &&
           api.picture_fill != nullptr && api.sws_get_context != nullptr &&
           api.sws_scale != nullptr && api.sws_free_context != nullptr &&
           api.free_frame != nullptr && api.codec_close != nullptr && api.close_input != nullptr;
}

QRBFFmpegApi qrb_ffmpeg_api_snapshot() {
    std::lock_guard<std::mutex> lock(TableMutex());
    return g_QRBFFmpegApi;
}
