// Scaling half of the media functions (the scaler plug-in's part): a decoded picture to the
// library's BGRA raster at the output size, in the colours a player shows.
//
// The handle the interface calls a SwsContext is this file's own Scaler; the library only hands
// it back. Standard-dynamic-range pictures go through one swscale context told the stream's
// matrix and range. PQ and HLG pictures are first scaled to the output size in their own
// colours (so the costly steps run on the thumbnail, not on a 4K picture) and then tone-mapped
// by FFmpeg's own filters: zimg (zscale) to linear light, BT.2020 to BT.709 primaries, the
// Mobius operator of the tonemap filter, BT.709 transfer. Linear light is measured in units of
// HDR reference white (203 cd/m2, ITU-R BT.2408), the level SDR white is mapped to, and the
// operator is linear up to half of it: what an SDR picture would show comes back as it was,
// and only highlights brighter than SDR white are rolled off towards the stream's peak.
#include "video-decoder/qrb_ffmpeg_api_impl.h"

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/imgutils.h>
#include <libavutil/mastering_display_metadata.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

namespace qrbffmpeg {

namespace {

// HDR reference white, in cd/m2 (ITU-R BT.2408): where SDR white lands in an HDR picture.
constexpr double kReferenceWhiteNits = 203.0;
// The peaks assumed when a stream states none: PQ can code 10000 cd/m2, HLG is made for
// 1000 cd/m2 displays.
constexpr double kPqPeakNits = 10000.0;
constexpr double kHlgPeakNits = 1000.0;
// Where the Mobius operator stops being linear, in units of reference white.
constexpr double kToneLinearUpTo = 0.5;

void FreeGraph(AVFilterGraph* graph) { avfilter_graph_free(&graph); }
using ScopedGraph = QRBScoped<AVFilterGraph, FreeGraph>;

// What a source picture is, every field settled (no "unspecified" left).
struct SourceColour {
    AVColorSpace matrix = AVCOL_SPC_BT470BG;
    AVColorRange range = AVCOL_RANGE_MPEG;
    AVColorTransferCharacteristic transfer = AVCOL_TRC_BT709;
    AVColorPrimaries primaries = AVCOL_PRI_BT709;
    double peakNits = 0;

    bool Hdr() const {
        return transfer == AVCOL_TRC_SMPTE2084 || transfer == AVCOL_TRC_ARIB_STD_B67;
    }
};

bool IsFullRangeFormat(AVPixelFormat format) {
    return format == AV_PIX_FMT_YUVJ420P || format == AV_PIX_FMT_YUVJ422P ||
           format == AV_PIX_FMT_YUVJ444P || format == AV_PIX_FMT_YUVJ440P ||
           format == AV_PIX_FMT_YUVJ411P;
}

// The usual colours of an untagged picture of this size and format: HD and larger pictures are
// BT.709, smaller ones BT.601; YUV is limited range except in the JPEG formats.
SourceColour DefaultColour(int width, int height, AVPixelFormat format) {
    SourceColour c;
    const bool hd = width >= 1280 || height > 576;
    c.matrix = hd ? AVCOL_SPC_BT709 : AVCOL_SPC_BT470BG;
    c.primaries = hd ? AVCOL_PRI_BT709 : AVCOL_PRI_BT470BG;
    c.transfer = AVCOL_TRC_BT709;
    c.range = IsFullRangeFormat(format) ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
    return c;
}

// The brightest the stream says it gets: its content light level, else its mastering
// display's peak, else what its transfer allows.
double PeakNits(const AVFrame* frame, AVColorTransferCharacteristic transfer) {
    const AVFrameSideData* light = av_frame_get_side_data(frame, AV_FRAME_DATA_CONTENT_LIGHT_LEVEL);
    if (light != nullptr && light->size >= sizeof(AVContentLightMetadata)) {
        const auto* cll = reinterpret_cast<const AVContentLightMetadata*>(light->data);
        if (cll->MaxCLL > 0) return cll->MaxCLL;
    }
    const AVFrameSideData* mastering =
        av_frame_get_side_data(frame, AV_FRAME_DATA_MASTERING_DISPLAY_METADATA);
    if (mastering != nullptr && mastering->size >= sizeof(AVMasteringDisplayMetadata)) {
        const auto* md = reinterpret_cast<const AVMasteringDisplayMetadata*>(mastering->data);
        if (md->has_luminance && md->max_luminance.den != 0 && av_q2d(md->max_luminance) > 0) {
            return av_q2d(md->max_luminance);
        }
    }
    return transfer == AVCOL_TRC_SMPTE2084 ? kPqPeakNits : kHlgPeakNits;
}

// A colour field of a picture as its stream coded it. FFmpeg copies the codes (a byte each)
// into its enumerations unchecked, so a crafted stream's code may name no enumerator; such a
// code reads as unspecified.
template <typename Enum>
Enum Named(const Enum& field, Enum count, Enum unspecified) {
    static_assert(sizeof(Enum) == sizeof(int), "FFmpeg's colour enumerations are ints");
    int code = 0;
    std::memcpy(&code, &field, sizeof(code));
    return code >= 0 && code < static_cast<int>(count) ? static_cast<Enum>(code) : unspecified;
}

SourceColour DescribeSource(const AVFrame* frame, int width, int height, AVPixelFormat format) {
    SourceColour c = DefaultColour(width, height, format);
    if (frame == nullptr) return c;
    const AVColorSpace matrix = Named(frame->colorspace, AVCOL_SPC_NB, AVCOL_SPC_UNSPECIFIED);
    const AVColorRange range = Named(frame->color_range, AVCOL_RANGE_NB, AVCOL_RANGE_UNSPECIFIED);
    const AVColorTransferCharacteristic transfer =
        Named(frame->color_trc, AVCOL_TRC_NB, AVCOL_TRC_UNSPECIFIED);
    const AVColorPrimaries primaries =
        Named(frame->color_primaries, AVCOL_PRI_NB, AVCOL_PRI_UNSPECIFIED);
    if (matrix != AVCOL_SPC_UNSPECIFIED && matrix != AVCOL_SPC_RESERVED) c.matrix = matrix;
    if (range != AVCOL_RANGE_UNSPECIFIED) c.range = range;
    if (transfer != AVCOL_TRC_UNSPECIFIED && transfer != AVCOL_TRC_RESERVED &&
        transfer != AVCOL_TRC_RESERVED0) {
        c.transfer = transfer;
    }
    if (primaries != AVCOL_PRI_UNSPECIFIED && primaries != AVCOL_PRI_RESERVED &&
        primaries != AVCOL_PRI_RESERVED0) {
        c.primaries = primaries;
    }
    // A PQ or HLG stream that does not name its matrix and primaries is BT.2020 all the same.
    if (c.Hdr()) {
        if (matrix == AVCOL_SPC_UNSPECIFIED) c.matrix = AVCOL_SPC_BT2020_NCL;
        if (primaries == AVCOL_PRI_UNSPECIFIED) c.primaries = AVCOL_PRI_BT2020;
        c.peakNits = PeakNits(frame, c.transfer);
    }
    return c;
}

// swscale's name for a matrix.
int SwsMatrix(AVColorSpace matrix) {
    switch (matrix) {
        case AVCOL_SPC_BT709: return SWS_CS_ITU709;
        case AVCOL_SPC_FCC: return SWS_CS_FCC;
        case AVCOL_SPC_SMPTE240M: return SWS_CS_SMPTE240M;
        case AVCOL_SPC_BT2020_NCL:
        case AVCOL_SPC_BT2020_CL: return SWS_CS_BT2020;
        default: return SWS_CS_ITU601;
    }
}

bool IsYuv(AVPixelFormat format) {
    const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(format);
    return d != nullptr && !(d->flags & AV_PIX_FMT_FLAG_RGB) && d->nb_components >= 3;
}

// Tells a YUV-to-RGB context the source's matrix and range (RGB output is full range).
void SetMatrix(SwsContext* sws, AVPixelFormat format, const SourceColour& c) {
    if (!IsYuv(format)) return;
    const int srcFull = c.range == AVCOL_RANGE_JPEG ? 1 : 0;
    sws_setColorspaceDetails(sws, sws_getCoefficients(SwsMatrix(c.matrix)), srcFull,
                             sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, 1 << 16, 1 << 16);
}

// Bilinear: a thumbnail is mostly a strong reduction, where it averages enough, and it costs a
// fraction of the sharper filters.
SwsContext* MakeSws(int srcW, int srcH, AVPixelFormat src, int dstW, int dstH, AVPixelFormat dst) {
    return sws_getContext(srcW, srcH, src, dstW, dstH, dst, SWS_BILINEAR, nullptr, nullptr,
                          nullptr);
}

// The intermediate of the HDR path: the source's own YUV at the output size, 16 bits, no
// subsampling (an odd output size keeps every pixel's colour).
constexpr AVPixelFormat kHdrIntermediate = AV_PIX_FMT_YUV444P16;

// A one-thread filter graph, buffer -> chain -> buffersink, for pictures of this size and
// format. False when FFmpeg cannot set it up.
bool BuildGraph(int width, int height, int format, const char* chain, ScopedGraph* graph,
                AVFilterContext** source, AVFilterContext** sink) {
    ScopedGraph made(avfilter_graph_alloc());
    if (!made) return false;
    made->nb_threads = 1;
    char args[160];
    std::snprintf(args, sizeof(args), "video_size=%dx%d:pix_fmt=%d:time_base=1/25:pixel_aspect=1/1",
                  width, height, format);
    AVFilterContext* in = nullptr;
    AVFilterContext* out = nullptr;
    if (avfilter_graph_create_filter(&in, avfilter_get_by_name("buffer"), "in", args, nullptr,
                                     made.get()) < 0 ||
        avfilter_graph_create_filter(&out, avfilter_get_by_name("buffersink"), "out", nullptr,
                                     nullptr, made.get()) < 0) {
        return false;
    }
    AVFilterInOut* outputs = avfilter_inout_alloc();
    AVFilterInOut* inputs = avfilter_inout_alloc();
    bool ok = outputs != nullptr && inputs != nullptr;
    if (ok) {
        outputs->name = av_strdup("in");
        outputs->filter_ctx = in;
        inputs->name = av_strdup("out");
        inputs->filter_ctx = out;
        ok = avfilter_graph_parse_ptr(made.get(), chain, &inputs, &outputs, nullptr) >= 0 &&
             avfilter_graph_config(made.get(), nullptr) >= 0;
    }
    avfilter_inout_free(&inputs);
    avfilter_inout_free(&outputs);
    if (!ok) return false;
    *source = in;
    *sink = out;
    *graph = std::move(made);
    return true;
}

// The tone-mapping graph for pictures of this size and colour: zimg to linear light (1.0 =
// reference white) -> BT.709 primaries -> Mobius -> BT.709 transfer, full range -> BGRA.
bool BuildToneGraph(int width, int height, const SourceColour& c, ScopedGraph* graph,
                    AVFilterContext** source, AVFilterContext** sink) {
    const double peak = std::max(c.peakNits / kReferenceWhiteNits, 1.0);
    char chain[512];
    // zimg numbers matrices, transfers and primaries as ITU-T H.273 does, and so does FFmpeg.
    std::snprintf(chain, sizeof(chain),
                  "zscale=min=%d:tin=%d:pin=%d:rin=%s:t=linear:npl=%g,format=gbrpf32le,"
                  "zscale=p=bt709,tonemap=tonemap=mobius:param=%g:desat=0:peak=%g,"
                  "zscale=t=bt709:m=bt709:r=pc,format=gbrp,format=bgra",
                  static_cast<int>(c.matrix), static_cast<int>(c.transfer),
                  static_cast<int>(c.primaries), c.range == AVCOL_RANGE_JPEG ? "pc" : "tv",
                  kReferenceWhiteNits, kToneLinearUpTo, peak);
    return BuildGraph(width, height, kHdrIntermediate, chain, graph, source, sink);
}

// A picture made progressive: only this one picture is decoded at a position, so the
// deinterlacer is FFmpeg's spatial one (estdif: the first field kept, the second traced along
// edges from it); the motion-adaptive ones (bwdif, yadif) take the missing field from the
// neighbouring pictures and, given none, weave the comb back in. Null when the filter cannot be
// set up (a picture too small for it, no memory): the picture is then shown as decoded.
AVFrame* Deinterlaced(const AVFrame* picture) {
    ScopedGraph graph;
    AVFilterContext* source = nullptr;
    AVFilterContext* sink = nullptr;
    if (!BuildGraph(picture->width, picture->height, picture->format,
                    "estdif=mode=frame:parity=auto:deint=all", &graph, &source, &sink)) {
        return nullptr;
    }
    QRBScopedFrame in(av_frame_clone(picture));
    QRBScopedFrame out(av_frame_alloc());
    if (!in || !out) return nullptr;
    in->pts = 0;  // the filter's own clock
    if (av_buffersrc_add_frame(source, in.get()) < 0 || av_buffersrc_add_frame(source, nullptr) < 0 ||
        av_buffersink_get_frame(sink, out.get()) < 0 || out->width != picture->width ||
        out->height != picture->height || out->format != picture->format) {
        return nullptr;
    }
    return out.release();
}

// What the handle points to.
struct Scaler {
    int srcW = 0;
    int srcH = 0;
    AVPixelFormat srcFormat = AV_PIX_FMT_NONE;
    int dstW = 0;
    int dstH = 0;
    QRBScopedSwsContext sws;  // to BGRA, or (HDR) to the intermediate
    // HDR only: the intermediate picture and the tone-mapping graph; flat, the intermediate to
    // BGRA with the stream's matrix, should the graph fail on a picture.
    QRBScopedFrame intermediate;
    QRBScopedSwsContext flat;
    ScopedGraph graph;
    AVFilterContext* source = nullptr;
    AVFilterContext* sink = nullptr;
    // An interlaced source, made progressive: scaled instead of the rows handed in.
    QRBScopedFrame progressive;
};

Scaler* AsScaler(SwsContext* context) { return reinterpret_cast<Scaler*>(context); }

// Switches a scaler to the HDR path. False leaves it as it was.
bool MakeHdr(Scaler& s, const SourceColour& c) {
    QRBScopedFrame picture(av_frame_alloc());
    if (!picture) return false;
    picture->width = s.dstW;
    picture->height = s.dstH;
    picture->format = kHdrIntermediate;
    // zimg takes what it converts to from what it converts from where not told otherwise.
    picture->colorspace = c.matrix;
    picture->color_range = c.range;
    picture->color_trc = c.transfer;
    picture->color_primaries = c.primaries;
    if (av_frame_get_buffer(picture.get(), 0) < 0) return false;
    QRBScopedSwsContext sws(MakeSws(s.srcW, s.srcH, s.srcFormat, s.dstW, s.dstH, kHdrIntermediate));
    if (!sws) return false;
    ScopedGraph graph;
    AVFilterContext* source = nullptr;
    AVFilterContext* sink = nullptr;
    if (!BuildToneGraph(s.dstW, s.dstH, c, &graph, &source, &sink)) return false;
    QRBScopedSwsContext flat(
        MakeSws(s.dstW, s.dstH, kHdrIntermediate, s.dstW, s.dstH, AV_PIX_FMT_BGRA));
    if (!flat) return false;
    SetMatrix(flat.get(), kHdrIntermediate, c);
    s.flat = std::move(flat);
    s.sws = std::move(sws);
    s.intermediate = std::move(picture);
    s.graph = std::move(graph);
    s.source = source;
    s.sink = sink;
    return true;
}

// The HDR path's second half: the intermediate through the graph into dst.
int ToneMapInto(Scaler& s, uint8_t* const dst[], const int dstStride[]) {
    if (av_buffersrc_add_frame_flags(s.source, s.intermediate.get(), AV_BUFFERSRC_FLAG_KEEP_REF) <
        0) {
        return -1;
    }
    QRBScopedFrame out(av_frame_alloc());
    if (!out || av_buffersink_get_frame(s.sink, out.get()) < 0) return -1;
    if (out->width != s.dstW || out->height != s.dstH || out->format != AV_PIX_FMT_BGRA) return -1;
    av_image_copy_plane(dst[0], dstStride[0], out->data[0], out->linesize[0], s.dstW * 4, s.dstH);
    return s.dstH;
}

}  // namespace

SwsContext* SwsGetContext(int src_width, int src_height, int src_format, int dst_width,
                          int dst_height, int dst_format) {
    if (dst_format != QRB_FFMPEGAPI_FMT_ARGB) return nullptr;
    if (src_width <= 0 || src_height <= 0 || src_width > kMaxSide || src_height > kMaxSide ||
        dst_width <= 0 || dst_height <= 0 || dst_width > kMaxSide || dst_height > kMaxSide) {
        return nullptr;
    }
    const AVPixelFormat source = static_cast<AVPixelFormat>(src_format);
    if (av_pix_fmt_desc_get(source) == nullptr) return nullptr;
    std::unique_ptr<Scaler> s(new (std::nothrow) Scaler);
    if (!s) return nullptr;
    s->srcW = src_width;
    s->srcH = src_height;
    s->srcFormat = source;
    s->dstW = dst_width;
    s->dstH = dst_height;
    s->sws.reset(MakeSws(src_width, src_height, source, dst_width, dst_height, AV_PIX_FMT_BGRA));
    if (!s->sws) return nullptr;
    // Until told otherwise: the usual colours for the size.
    SetMatrix(s->sws.get(), source, DefaultColour(src_width, src_height, source));
    return reinterpret_cast<SwsContext*>(s.release());
}

int SwsSetSourceFrame(SwsContext* context, const AVFrame* source) {
    if (context == nullptr || source == nullptr) return AVERROR(EINVAL);
    Scaler& s = *AsScaler(context);
    const SourceColour c = DescribeSource(source, s.srcW, s.srcH, s.srcFormat);
    if (source->interlaced_frame && source->width == s.srcW && source->height == s.srcH &&
        source->format == s.srcFormat) {
        s.progressive.reset(Deinterlaced(source));
    }
    if (c.Hdr() && IsYuv(s.srcFormat) && MakeHdr(s, c)) return 0;
    // SDR, or HDR whose tone mapping could not be set up (the picture then shows, if flat).
    SetMatrix(s.sws.get(), s.srcFormat, c);
    return 0;
}

int SwsScale(SwsContext* context, const uint8_t* const src[], const int src_stride[],
             int src_slice_y, int src_slice_h, uint8_t* const dst[], const int dst_stride[]) {
    if (context == nullptr || src == nullptr || src_stride == nullptr || dst == nullptr ||
        dst_stride == nullptr) {
        return -1;
    }
    Scaler& s = *AsScaler(context);
    if (s.progressive) {
        if (src_slice_y != 0 || src_slice_h != s.srcH) return -1;
        src = s.progressive->data;
        src_stride = s.progressive->linesize;
    }
    if (!s.graph) {
        return sws_scale(s.sws.get(), src, src_stride, src_slice_y, src_slice_h, dst, dst_stride);
    }
    if (src_slice_y != 0 || src_slice_h != s.srcH) return -1;
    if (av_frame_make_writable(s.intermediate.get()) < 0) return -1;
    if (sws_scale(s.sws.get(), src, src_stride, 0, s.srcH, s.intermediate->data,
                  s.intermediate->linesize) <= 0) {
        return -1;
    }
    if (ToneMapInto(s, dst, dst_stride) == s.dstH) return s.dstH;
    // Shown untone-mapped (flat, but shown) rather than not at all.
    return sws_scale(s.flat.get(), s.intermediate->data, s.intermediate->linesize, 0, s.dstH, dst,
                     dst_stride);
}

void SwsFreeContext(SwsContext* context) { delete AsScaler(context); }

}  // namespace qrbffmpeg
