// FFmpeg's filter library is loaded when a picture first needs a filter (an HDR picture's tone
// mapping, an interlaced one's deinterlacing), not when the scaler is: it and the libraries
// beneath it cost every process that loads them some 25 ms and 11 MiB, which the ordinary SDR,
// progressive video would pay for nothing.
//
// Compiled into the library and into the scaler plug-in: each filter function the scaler calls
// is defined here, hidden, as a forwarder that opens libavfilter by the soname this build was
// made against on first use. Where the library cannot be opened, a forwarder answers as the
// function does on failure (a null pointer, AVERROR(ENOSYS)): the caller then shows the picture
// without the filter. The library is never closed.

// The C library headers FFmpeg's headers include come first, so that the pragma below hides
// only FFmpeg's declarations.
#include <dlfcn.h>
#include <errno.h>
#include <inttypes.h>
#include <limits.h>
#include <math.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#pragma GCC visibility push(hidden)
extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/error.h>
}
#pragma GCC visibility pop

namespace {

void* FilterLibrary() {
    static void* const library =
        dlopen("libavfilter.so." AV_STRINGIFY(LIBAVFILTER_VERSION_MAJOR), RTLD_LAZY | RTLD_LOCAL);
    return library;
}

template <typename Fn>
Fn Find(const char* symbol) {
    void* library = FilterLibrary();
    return library != nullptr ? reinterpret_cast<Fn>(dlsym(library, symbol)) : nullptr;
}

}  // namespace

#define QRB_FILTER_FORWARD(type, name, params, args, failed)              \
    extern "C" type name params {                                         \
        static const auto real = Find<type(*) params>(#name);             \
        if (real == nullptr) return failed;                               \
        return real args;                                                 \
    }

QRB_FILTER_FORWARD(AVFilterGraph*, avfilter_graph_alloc, (void), (), nullptr)
QRB_FILTER_FORWARD(const AVFilter*, avfilter_get_by_name, (const char* name), (name), nullptr)
QRB_FILTER_FORWARD(int, avfilter_graph_create_filter,
                   (AVFilterContext * *filt_ctx, const AVFilter* filt, const char* name,
                    const char* args, void* opaque, AVFilterGraph* graph_ctx),
                   (filt_ctx, filt, name, args, opaque, graph_ctx), AVERROR(ENOSYS))
QRB_FILTER_FORWARD(AVFilterInOut*, avfilter_inout_alloc, (void), (), nullptr)
QRB_FILTER_FORWARD(int, avfilter_graph_parse_ptr,
                   (AVFilterGraph * graph, const char* filters, AVFilterInOut** inputs,
                    AVFilterInOut** outputs, void* log_ctx),
                   (graph, filters, inputs, outputs, log_ctx), AVERROR(ENOSYS))
QRB_FILTER_FORWARD(int, avfilter_graph_config, (AVFilterGraph * graphctx, void* log_ctx),
                   (graphctx, log_ctx), AVERROR(ENOSYS))
QRB_FILTER_FORWARD(int, av_buffersrc_add_frame, (AVFilterContext * ctx, AVFrame* frame),
                   (ctx, frame), AVERROR(ENOSYS))
QRB_FILTER_FORWARD(int, av_buffersrc_add_frame_flags,
                   (AVFilterContext * ctx, AVFrame* frame, int flags), (ctx, frame, flags),
                   AVERROR(ENOSYS))
QRB_FILTER_FORWARD(int, av_buffersink_get_frame, (AVFilterContext * ctx, AVFrame* frame),
                   (ctx, frame), AVERROR(ENOSYS))

// The release functions have nothing to release when nothing could be made.
extern "C" void avfilter_graph_free(AVFilterGraph** graph) {
    static const auto real = Find<void (*)(AVFilterGraph**)>("avfilter_graph_free");
    if (real != nullptr) real(graph);
}

extern "C" void avfilter_inout_free(AVFilterInOut** inout) {
    static const auto real = Find<void (*)(AVFilterInOut**)>("avfilter_inout_free");
    if (real != nullptr) real(inout);
}
