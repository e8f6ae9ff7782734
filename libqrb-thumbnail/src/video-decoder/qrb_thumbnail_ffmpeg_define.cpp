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

// Every entry point the grabber calls, in the order they are bound, with the log line its
// absence writes. The first one missing ends the binding; the pointers found before it stay in
// the table. The seek-available entry point is optional (no log line): a plug-in without it
// still binds and reports ready, and the per-extraction check then refuses the table.
struct Symbol {
    bool inScaler;
    const char* name;
    const char* missing;
    void (*store)(QRBFFmpegApi& api, void* function);
};

#define QRB_SLOT(member) \
    [](QRBFFmpegApi& api, void* f) { api.member = reinterpret_cast<decltype(api.member)>(f); }

const Symbol kSymbols[] = {
    {false, "gst_ffmpegapi_avformat_open_input", "get av open input file func pointer failed\n",
     QRB_SLOT(open_input)},
    {false, "gst_ffmpegapi_avformat_close_input", "get av close input file func pointer failed\n",
     QRB_SLOT(close_input)},
    {false, "gst_ffmpegapi_avcodec_open", "get avcodec open func pointer failed\n",
     QRB_SLOT(codec_open)},
    {false, "gst_ffmpegapi_avcodec_close", "get avcodec close func pointer failed\n",
     QRB_SLOT(codec_close)},
    {false, "gst_ffmpegapi_avcodec_decode_video2", "get avcodec decode video2 func pointer failed.",
     QRB_SLOT(decode_video)},
    {false, "gst_ffmpegapi_avcodec_alloc_frame", "get avcodec alloc frame func pointer failed\n",
     QRB_SLOT(alloc_frame)},
    {false, "gst_ffmpegapi_avcodec_alloc_packet", "get avcodec alloc packet func pointer failed\n",
     QRB_SLOT(alloc_packet)},
    {false, "gst_ffmpegapi_av_seek_frame", "get av seek frame  func pointer failed",
     QRB_SLOT(seek_frame)},
    {false, "gst_ffmpegapi_av_read_frame", "get av read frame  func pointer failed",
     QRB_SLOT(read_frame)},
    {false, "gst_ffmpegapi_av_init_packet", "get av init packet func pointer failed.",
     QRB_SLOT(init_packet)},
    {false, "gst_ffmpegapi_av_free_packet", "get av free packet func pointer failed.\n",
     QRB_SLOT(free_packet)},
    {false, "gst_ffmpegapi_avpicture_get_size", "get av picture get size func pointer failed",
     QRB_SLOT(picture_size)},
    {false, "gst_ffmpegapi_avpicture_fill", "get av picture fill func pointer failed",
     QRB_SLOT(picture_fill)},
    {true, "gst_ffmpegapi_sws_getContext", "get sws getcontent func pointer failed",
     QRB_SLOT(sws_get_context)},
    {true, "gst_ffmpegapi_sws_scale", "get av sws scale func pointer failed", QRB_SLOT(sws_scale)},
    {true, "gst_ffmpegapi_sws_freeContext", "get sws free context func pointer failed",
     QRB_SLOT(sws_free_context)},
    {false, "gst_ffmpegapi_avcodec_free_frame", "get sws free frame func pointer failed\n",
     QRB_SLOT(free_frame)},
    {false, "gst_ffmpegapi_av_seek_available", nullptr, QRB_SLOT(seek_available)},
    {false, "gst_ffmpegapi_avcodec_flush_buffers",
     "get avcodec flush buffers func pointer failed\n", QRB_SLOT(flush_buffers)},
};

#undef QRB_SLOT

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
    for (const Symbol& symbol : kSymbols) {
        void* function =
            dlsym(symbol.inScaler ? api.scaler_library : api.decoder_library, symbol.name);
        symbol.store(api, function);
        if (function == nullptr && symbol.missing != nullptr) {
            QRB_LOGW("%s", symbol.missing);
            return;
        }
    }
    // The scaler's description of its source pictures is an addition of ours to the plug-ins'
    // interface: a plug-in without it still binds, and converts with its defaults.
    api.sws_set_source = reinterpret_cast<qrb_ffmpegapi_sws_set_source_fn>(
        dlsym(api.scaler_library, "gst_ffmpegapi_sws_setSourceFrame"));
    if (api.sws_set_source == nullptr) QRB_LOGD("the scaler plug-in takes no source description");
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
