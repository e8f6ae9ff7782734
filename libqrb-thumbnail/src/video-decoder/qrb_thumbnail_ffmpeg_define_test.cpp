// The binding of the media decoding table against real shared libraries: the plug-ins this
// project builds, and stand-ins with one symbol left out, copied into a scratch root under the
// plug-ins' names. Every stand-in function aborts when called, so a test that reaches one fails
// loudly.
#include "video-decoder/qrb_thumbnail_ffmpeg_define.h"
#include "video-decoder/qrb_thumbnail_video_decoder.h"
#include "video-decoder/testdata/qrb_video_test_support.h"

#include "qrb_fake_control.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr const char* kPluginDir = "/usr/lib/gstreamer-1.0/";

// Every function member of the table with its symbol, for tests that walk them all.
struct Member {
    const char* symbol;
    bool (*isBound)(const QRBFFmpegApi&);
    void (*clear)(QRBFFmpegApi&);
};

#define QRB_MEMBER(field, symbol)                                         \
    Member {                                                              \
        symbol, [](const QRBFFmpegApi& a) { return a.field != nullptr; }, \
            [](QRBFFmpegApi& a) { a.field = nullptr; }                    \
    }

const std::vector<Member>& AllMembers() {
    static const std::vector<Member> members = {
        QRB_MEMBER(open_input, "gst_ffmpegapi_avformat_open_input"),
        QRB_MEMBER(close_input, "gst_ffmpegapi_avformat_close_input"),
        QRB_MEMBER(codec_open, "gst_ffmpegapi_avcodec_open"),
        QRB_MEMBER(codec_close, "gst_ffmpegapi_avcodec_close"),
        QRB_MEMBER(decode_video, "gst_ffmpegapi_avcodec_decode_video2"),
        QRB_MEMBER(alloc_frame, "gst_ffmpegapi_avcodec_alloc_frame"),
        QRB_MEMBER(alloc_packet, "gst_ffmpegapi_avcodec_alloc_packet"),
        QRB_MEMBER(seek_frame, "gst_ffmpegapi_av_seek_frame"),
        QRB_MEMBER(read_frame, "gst_ffmpegapi_av_read_frame"),
        QRB_MEMBER(init_packet, "gst_ffmpegapi_av_init_packet"),
        QRB_MEMBER(free_packet, "gst_ffmpegapi_av_free_packet"),
        QRB_MEMBER(picture_size, "gst_ffmpegapi_avpicture_get_size"),
        QRB_MEMBER(picture_fill, "gst_ffmpegapi_avpicture_fill"),
        QRB_MEMBER(sws_get_context, "gst_ffmpegapi_sws_getContext"),
        QRB_MEMBER(sws_scale, "gst_ffmpegapi_sws_scale"),
        QRB_MEMBER(sws_free_context, "gst_ffmpegapi_sws_freeContext"),
        QRB_MEMBER(free_frame, "gst_ffmpegapi_avcodec_free_frame"),
        QRB_MEMBER(seek_available, "gst_ffmpegapi_av_seek_available"),
        QRB_MEMBER(flush_buffers, "gst_ffmpegapi_avcodec_flush_buffers"),
    };
    return members;
}

class BindingTest : public ::testing::Test {
protected:
    void SetUp() override {
        // The table is process-wide; each case starts from an empty one.
        g_QRBFFmpegApi = QRBFFmpegApi{};
        qrbfake::DrmReset();
    }
    void TearDown() override { g_QRBFFmpegApi = QRBFFmpegApi{}; }

    std::string Install(const char* builtLibrary, const char* name) {
        fs::path dir = root.Resolve(kPluginDir);
        fs::create_directories(dir);
        fs::copy_file(builtLibrary, dir / name, fs::copy_options::overwrite_existing);
        return (dir / name).string();
    }

    // A kind-2 request whose extraction goes as far as the table check.
    static _stRequestedItem VideoRequest() {
        _stRequestedItem request;
        request.strURL = "/media/never-opened.mp4";
        request.eThumbnailType = THUMB_VIDEO;
        request.width = 160;
        request.height = 90;
        request.FrameCount = 1;
        return request;
    }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
};

TEST_F(BindingTest, MissingDecoderPluginLeavesTheDecoderBuiltButUnready) {
    CQRBThumbnailVideoDecoder decoder;
    EXPECT_FALSE(decoder.MediaDecodingReady());
    EXPECT_EQ(log.Count("dlopen /usr/lib/gstreamer-1.0/libgstlibffmpeg.so failed."), 1);
    EXPECT_FALSE(log.Contains("libgstffmpegscale.so["));  // the scaler is not even tried
    EXPECT_EQ(g_QRBFFmpegApi.decoder_library, nullptr);
    EXPECT_FALSE(qrb_check_ffmpeg_api(g_QRBFFmpegApi));

    // Each extraction then fails at the table check.
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    _stRequestedItem request = VideoRequest();
    EXPECT_FALSE(
        decoder.Extract(request, item, &CQRBThumbnailVideoDecoder::Video_Complete_Cb, &decoder));
    EXPECT_FALSE(decoder.m_GetFrameFromArcplayer(
        request, item, &CQRBThumbnailVideoDecoder::Video_Complete_Cb, &decoder));
    EXPECT_EQ(log.Count("dlopen or dlsym fail"), 2);
    EXPECT_EQ(log.Count("decode with arcplayer fail"), 1);
    EXPECT_EQ(item->GetImageCount(), 0);
}

TEST_F(BindingTest, MissingScalerPluginStopsBeforeAnyLookup) {
    Install(QRB_STUB_DECODER, "libgstffmpeg.so");
    CQRBThumbnailVideoDecoder decoder;
    EXPECT_FALSE(decoder.MediaDecodingReady());
    EXPECT_NE(g_QRBFFmpegApi.decoder_library, nullptr);
    EXPECT_EQ(g_QRBFFmpegApi.scaler_library, nullptr);
    EXPECT_EQ(log.Count("dlopen /usr/lib/gstreamer-1.0/libgstffmpegscale.so["), 1);
    for (const Member& m : AllMembers()) EXPECT_FALSE(m.isBound(g_QRBFFmpegApi)) << m.symbol;
}

TEST_F(BindingTest, DecoderWithoutSeekAvailableReportsReadyYetRefusesEveryExtraction) {
    Install(QRB_STUB_DECODER_NO_SEEK_AVAILABLE, "libgstffmpeg.so");
    Install(QRB_STUB_SCALER, "libgstffmpegscale.so");
    CQRBThumbnailVideoDecoder decoder;

    EXPECT_TRUE(decoder.MediaDecodingReady());
    EXPECT_EQ(log.Count("initialize ffmpeg api success."), 1);
    // The missing symbol's message is never logged: the test after its lookup looks at the
    // seek pointer instead, and the binding goes on to the last lookup.
    EXPECT_FALSE(log.Contains("get sws av seek frame _available func pointer failed"));
    EXPECT_EQ(g_QRBFFmpegApi.seek_available, nullptr);
    EXPECT_NE(g_QRBFFmpegApi.flush_buffers, nullptr);
    EXPECT_FALSE(qrb_check_ffmpeg_api(g_QRBFFmpegApi));

    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    _stRequestedItem request = VideoRequest();
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(decoder.Extract(request, item, &CQRBThumbnailVideoDecoder::Video_Complete_Cb,
                                     &decoder));
    }
    EXPECT_EQ(log.Count("dlopen or dlsym fail"), 3);
    EXPECT_EQ(item->GetImageCount(), 0);
}

TEST_F(BindingTest, ScalerWithoutScaleStopsTheLaterLookups) {
    Install(QRB_STUB_DECODER, "libgstffmpeg.so");
    Install(QRB_STUB_SCALER_NO_SCALE, "libgstffmpegscale.so");
    CQRBThumbnailVideoDecoder decoder;

    EXPECT_FALSE(decoder.MediaDecodingReady());
    EXPECT_EQ(log.Count("get av sws scale func pointer failed"), 1);
    EXPECT_FALSE(log.Contains("initialize ffmpeg api success."));
    // The pointers found before the missing one stay; none after it is looked up, although
    // the decoder library exports them.
    const QRBFFmpegApi& api = g_QRBFFmpegApi;
    EXPECT_NE(api.picture_fill, nullptr);
    EXPECT_NE(api.sws_get_context, nullptr);
    EXPECT_EQ(api.sws_scale, nullptr);
    EXPECT_EQ(api.sws_free_context, nullptr);
    EXPECT_EQ(api.free_frame, nullptr);
    EXPECT_EQ(api.seek_available, nullptr);
    EXPECT_EQ(api.flush_buffers, nullptr);
    ASSERT_NE(api.decoder_library, nullptr);
    EXPECT_NE(dlsym(api.decoder_library, "gst_ffmpegapi_avcodec_free_frame"), nullptr);
}

TEST_F(BindingTest, CompleteBindingTakesEverySymbolFromItsOwnLibrary) {
    const std::string decoderPath = Install(QRB_STUB_DECODER, "libgstffmpeg.so");
    const std::string scalerPath = Install(QRB_STUB_SCALER, "libgstffmpegscale.so");
    CQRBThumbnailVideoDecoder decoder;

    EXPECT_TRUE(decoder.MediaDecodingReady());
    EXPECT_EQ(log.Count("initialize ffmpeg api success."), 1);
    ASSERT_TRUE(qrb_check_ffmpeg_api(g_QRBFFmpegApi));
    for (const Member& m : AllMembers()) {
        SCOPED_TRACE(m.symbol);
        const std::string symbol = m.symbol;
        const bool scaler = symbol.find("sws_") != std::string::npos;
        void* expected = dlsym(
            scaler ? g_QRBFFmpegApi.scaler_library : g_QRBFFmpegApi.decoder_library, m.symbol);
        ASSERT_NE(expected, nullptr);
        Dl_info info{};
        ASSERT_NE(dladdr(expected, &info), 0);
        EXPECT_EQ(fs::canonical(info.dli_fname), fs::canonical(scaler ? scalerPath : decoderPath));
    }
    const QRBFFmpegApi& api = g_QRBFFmpegApi;
    EXPECT_EQ(reinterpret_cast<void*>(api.open_input),
              dlsym(api.decoder_library, "gst_ffmpegapi_avformat_open_input"));
    EXPECT_EQ(reinterpret_cast<void*>(api.sws_scale),
              dlsym(api.scaler_library, "gst_ffmpegapi_sws_scale"));
    EXPECT_EQ(reinterpret_cast<void*>(api.flush_buffers),
              dlsym(api.decoder_library, "gst_ffmpegapi_avcodec_flush_buffers"));
    // A platform scaler without the source description binds all the same.
    EXPECT_EQ(api.sws_set_source, nullptr);
}

// The plug-ins this project builds, bound and used: every symbol comes from the library it
// belongs to, and a video goes through the bound table to a frame.
TEST_F(BindingTest, RealPluginsBindCompletelyAndGrabAFrame) {
    qrbtest::InstallMediaPlugins(root);
    CQRBThumbnailVideoDecoder decoder;

    EXPECT_TRUE(decoder.MediaDecodingReady());
    EXPECT_EQ(log.Count("initialize ffmpeg api success."), 1);
    EXPECT_FALSE(log.Contains("func pointer failed"));
    ASSERT_TRUE(qrb_check_ffmpeg_api(g_QRBFFmpegApi));
    const std::string decoderPath = root.Resolve(kPluginDir) + "libgstffmpeg.so";
    const std::string scalerPath = root.Resolve(kPluginDir) + "libgstffmpegscale.so";
    for (const Member& m : AllMembers()) {
        SCOPED_TRACE(m.symbol);
        const bool scaler = std::string(m.symbol).find("sws_") != std::string::npos;
        void* library = scaler ? g_QRBFFmpegApi.scaler_library : g_QRBFFmpegApi.decoder_library;
        void* found = dlsym(library, m.symbol);
        ASSERT_NE(found, nullptr);
        Dl_info info{};
        ASSERT_NE(dladdr(found, &info), 0);
        EXPECT_EQ(fs::canonical(info.dli_fname), fs::canonical(scaler ? scalerPath : decoderPath));
        // Each library exports its own half only.
        void* other = scaler ? g_QRBFFmpegApi.decoder_library : g_QRBFFmpegApi.scaler_library;
        EXPECT_EQ(dlsym(other, m.symbol), nullptr);
    }
    // Ours also takes the description of its source pictures.
    EXPECT_EQ(reinterpret_cast<void*>(g_QRBFFmpegApi.sws_set_source),
              dlsym(g_QRBFFmpegApi.scaler_library, "gst_ffmpegapi_sws_setSourceFrame"));
    EXPECT_NE(g_QRBFFmpegApi.sws_set_source, nullptr);

    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    _stRequestedItem request = VideoRequest();
    request.strURL = qrbtest::VideoFixture("fade_h264_320x240_3s.mp4");
    ASSERT_TRUE(decoder.m_GetFrameFromArcplayer(
        request, item, &CQRBThumbnailVideoDecoder::Video_Complete_Cb, &decoder));
    ASSERT_EQ(item->GetImageCount(), 1);
    EXPECT_EQ(item->GetImages()[0]->GetWidth(), 160);
    EXPECT_EQ(item->GetImages()[0]->GetHeight(), 90);
    EXPECT_TRUE(
        log.Contains("success get video thumbnail:frame=0,coded_width=320,coded_height=240"));
}

TEST_F(BindingTest, CheckRefusesATableMissingAnyOneFunction) {
    Install(QRB_STUB_DECODER, "libgstffmpeg.so");
    Install(QRB_STUB_SCALER, "libgstffmpegscale.so");
    CQRBThumbnailVideoDecoder decoder;
    ASSERT_TRUE(decoder.MediaDecodingReady());
    ASSERT_TRUE(qrb_check_ffmpeg_api(g_QRBFFmpegApi));
    ASSERT_EQ(AllMembers().size(), 19u);
    for (const Member& m : AllMembers()) {
        QRBFFmpegApi copy = g_QRBFFmpegApi;
        m.clear(copy);
        EXPECT_FALSE(qrb_check_ffmpeg_api(copy)) << m.symbol;
    }
}

TEST_F(BindingTest, FailedRebindKeepsThePointersOfAnEarlierBinding) {
    Install(QRB_STUB_DECODER, "libgstffmpeg.so");
    Install(QRB_STUB_SCALER, "libgstffmpegscale.so");
    {
        CQRBThumbnailVideoDecoder first;
        ASSERT_TRUE(first.MediaDecodingReady());
    }
    const QRBFFmpegApi before = g_QRBFFmpegApi;
    log.Clear();

    // A later decoder that finds no plug-ins (here: under another root) is not ready, yet the
    // functions bound before stay in the table: nothing is cleared and no library is closed,
    // so they stay callable.
    qrbtest::ScratchRoot elsewhere;
    CQRBThumbnailVideoDecoder second;
    EXPECT_FALSE(second.MediaDecodingReady());
    EXPECT_EQ(log.Count("dlopen /usr/lib/gstreamer-1.0/libgstlibffmpeg.so failed."), 1);
    EXPECT_EQ(g_QRBFFmpegApi.decoder_library, nullptr);
    for (const Member& m : AllMembers()) EXPECT_TRUE(m.isBound(g_QRBFFmpegApi)) << m.symbol;
    EXPECT_EQ(g_QRBFFmpegApi.open_input, before.open_input);
    EXPECT_EQ(g_QRBFFmpegApi.sws_scale, before.sws_scale);
    EXPECT_TRUE(qrb_check_ffmpeg_api(g_QRBFFmpegApi));
    Dl_info info{};
    EXPECT_NE(dladdr(reinterpret_cast<void*>(g_QRBFFmpegApi.open_input), &info), 0)
        << "the earlier library is still mapped";
}

TEST_F(BindingTest, PluginPathsFollowTheRootPrefix) {
    EXPECT_EQ(QRBFFmpegDecoderLibraryPath(),
              root.Path() + "/usr/lib/gstreamer-1.0/libgstffmpeg.so");
    EXPECT_EQ(QRBFFmpegScalerLibraryPath(),
              root.Path() + "/usr/lib/gstreamer-1.0/libgstffmpegscale.so");
}

}  // namespace
