// Recordings: key frames cut by the tests from real MPEG-2 and H.264 transport streams (made by
// ffmpeg when the tests were built) go through set_pvr_key_frame into the MTA file beside the
// ".srf" path, come back through parse_pvr_mta_file, and are served by the recording getter,
// directly and through the C interface (media 3 on device 100 is kind 5). The streams fade in
// from black, so each frame's brightness tells which key frame it came from.
#include "video-decoder/qrb_thumbnail_pvr_decoder.h"
#include "video-decoder/testdata/qrb_video_test_support.h"

#include "qrb_pvr_thumbnail_getter.h"
#include "qrb_test_callbacks.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"
#include "qrb_thumbnail.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using qrbtest::CallbackRecorder;
using qrbtest::MeanOf;
using qrbtest::RecordedResult;
using qrbtest::VideoFixture;

constexpr const char* kDataDir = "/opt/usr/apps/orvale/data/";

std::vector<_key_frame> KeyFrames(const std::vector<std::string>& units, int encodeType) {
    std::vector<_key_frame> frames;
    for (const std::string& unit : units) {
        _key_frame frame{};
        frame.buffer = reinterpret_cast<const unsigned char*>(unit.data());
        frame.buffer_size = static_cast<int>(unit.size());
        frame.encode_type = encodeType;
        frames.push_back(frame);
    }
    return frames;
}

// What parse_pvr_mta_file hands out, with its buffers freed as an application must.
struct Parsed {
    int status = -1;
    int width = 0;
    int height = 0;
    int depth = 0;
    int count = 0;
    std::vector<std::string> frames;
    std::vector<int> sizes;
};

Parsed Parse(const std::string& srf) {
    _thumb_result result;
    std::memset(&result, 0, sizeof(result));
    Parsed parsed;
    parsed.status = parse_pvr_mta_file(srf.c_str(), &result);
    parsed.width = result.width;
    parsed.height = result.height;
    parsed.depth = result.depth;
    parsed.count = result.count;
    for (int i = 0; i < QRB_THUMB_MAX_IMAGES; ++i) {
        if (result.pBuffer[i] == nullptr) continue;
        parsed.frames.emplace_back(reinterpret_cast<char*>(result.pBuffer[i]),
                                   static_cast<size_t>(result.nBufSize[i]));
        parsed.sizes.push_back(result.nBufSize[i]);
        std::free(result.pBuffer[i]);
    }
    return parsed;
}

// A PVR MTA file built byte by byte, independently of the writer.
std::string PvrMta(uint32_t w, uint32_t h, uint32_t d, uint32_t count,
                   const std::vector<std::string>& frames, char firstMarker = '0') {
    auto u32 = [](uint32_t v) {
        std::string out;
        for (int s = 0; s < 32; s += 8) out.push_back(static_cast<char>((v >> s) & 0xff));
        return out;
    };
    std::string out("FSmta\0", 6);
    out += "FW" + u32(w) + "FH" + u32(h) + "FD" + u32(d) + "FC" + u32(count) + std::string(2, '\0');
    for (size_t i = 0; i < frames.size(); ++i) {
        out += 'F';
        out += static_cast<char>(firstMarker + static_cast<int>(i));
        out += frames[i];
    }
    return out + "FE";
}

// A raster whose every pixel says which frame it belongs to.
std::string Solid(int w, int h, unsigned char value) {
    std::string pixels(static_cast<size_t>(w) * h * 4, static_cast<char>(value));
    for (size_t i = 3; i < pixels.size(); i += 4) pixels[i] = static_cast<char>(255);
    return pixels;
}

class PvrDecoderTest : public ::testing::Test {
protected:
    PvrDecoderTest() {
        fs::create_directories(root.Path() + "/rec");
        srf = root.Path() + "/rec/show.srf";
        mta = root.Path() + "/rec/show.mta";
    }
    int EsFilesLeft() const {
        int n = 0;
        const std::string data = root.Resolve(kDataDir);
        if (!fs::exists(data)) return 0;
        for (const auto& entry : fs::directory_iterator(data)) {
            if (entry.path().extension() == ".es") ++n;
        }
        return n;
    }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    std::string srf;
    std::string mta;
};

TEST_F(PvrDecoderTest, Mpeg2KeyFramesAreDecodedFromMemoryIntoTheMtaFile) {
    const std::string ts = VideoFixture("fade_mpeg2_720x576i_2s.ts");
    const auto units = qrbtest::CutKeyFrames(ts, 3);
    auto frames = KeyFrames(units, 1);
    ASSERT_EQ(set_pvr_key_frame(frames.data(), 3, 160, 90, srf.c_str()), 0);
    EXPECT_TRUE(log.Contains("entering set_pvr_key_frame"));
    EXPECT_TRUE(log.Contains("strSrfFileName=show"));
    EXPECT_TRUE(log.Contains("strMtaPath = " + mta));
    EXPECT_TRUE(log.Contains("coded_width=720, coded_height=576"));
    EXPECT_EQ(EsFilesLeft(), 0);
    EXPECT_FALSE(log.Contains(".es success")) << "MPEG-2 is decoded from memory";
    ASSERT_TRUE(fs::exists(mta));
    EXPECT_EQ(fs::file_size(mta), 32u + 3u * (2 + 160 * 90 * 4) + 2u);

    const Parsed parsed = Parse(srf);
    ASSERT_EQ(parsed.status, 0);
    EXPECT_TRUE(log.Contains("entering parse_pvr_mta_file"));
    EXPECT_EQ(parsed.width, 160);
    EXPECT_EQ(parsed.height, 90);
    EXPECT_EQ(parsed.depth, 4);
    ASSERT_EQ(parsed.count, 3);
    ASSERT_EQ(parsed.frames.size(), 3u);
    // Key frames every 12 pictures of a 2 s fade: 0, 0.48 and 0.96 s in.
    const qrbtest::MediaFacts facts = qrbtest::ReadMediaFacts(ts);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(parsed.sizes[i], 160 * 90 * 4);
        const double seen = qrbtest::FadeMomentMs(
            MeanOf(parsed.frames[i], 160, 0, 0, 160, 90).Grey(), facts.durationUs / 1000.0);
        EXPECT_NEAR(seen, facts.keyTimesMs[i], 80.0) << i;
        EXPECT_EQ(static_cast<unsigned char>(parsed.frames[i][3]), 255) << "opaque";
    }
}

TEST_F(PvrDecoderTest, H264KeyFramesGoThroughEsFilesThatNeverOutliveTheCall) {
    // Interlaced, with B-frames: the decoder holds pictures back until the input ends.
    const std::string ts = VideoFixture("fade_h264_720x576i_2s.ts");
    const auto units = qrbtest::CutKeyFrames(ts, 2);
    auto frames = KeyFrames(units, 2);
    ASSERT_EQ(set_pvr_key_frame(frames.data(), 2, 96, 96, srf.c_str()), 0);
    const std::string data = root.Resolve(kDataDir);
    EXPECT_TRUE(log.Contains("write to " + data + "show-0.es success"));
    EXPECT_TRUE(log.Contains("write to " + data + "show-1.es success"));
    EXPECT_TRUE(log.Contains("decode begin"));
    EXPECT_EQ(EsFilesLeft(), 0);

    const Parsed parsed = Parse(srf);
    ASSERT_EQ(parsed.status, 0);
    ASSERT_EQ(parsed.count, 2);
    EXPECT_EQ(parsed.width, 96);
    EXPECT_EQ(parsed.height, 96);
    const qrbtest::MediaFacts facts = qrbtest::ReadMediaFacts(ts);
    for (int i = 0; i < 2; ++i) {
        const double seen = qrbtest::FadeMomentMs(MeanOf(parsed.frames[i], 96, 0, 0, 96, 96).Grey(),
                                                  facts.durationUs / 1000.0);
        EXPECT_NEAR(seen, facts.keyTimesMs[i], 80.0) << i;
    }

    // The ".es" path is cut to 128 characters: a long recording name loses the frame's number
    // and the extension, and both frames still decode, one after the other, under that name.
    const std::string longName(150, 'n');
    const std::string longSrf = root.Path() + "/rec/" + longName + ".srf";
    log.Clear();
    ASSERT_EQ(set_pvr_key_frame(frames.data(), 2, 96, 96, longSrf.c_str()), 0);
    const std::string cut = std::string(kDataDir) + longName;
    ASSERT_GT(cut.size(), 128u);
    EXPECT_EQ(log.Count("write to " + root.Resolve(cut.substr(0, 128)) + " success"), 2);
    EXPECT_FALSE(log.Contains("-0.es"));
    EXPECT_EQ(root.CountEntries(kDataDir), 0) << "no elementary stream outlives the call";
    EXPECT_EQ(Parse(longSrf).count, 2);
}

TEST_F(PvrDecoderTest, ProgressiveH264WithBFramesDecodesToo) {
    const auto units = qrbtest::CutKeyFrames(VideoFixture("fade_h264_640x360_3s_bframes.ts"), 5);
    auto frames = KeyFrames(units, 2);
    ASSERT_EQ(set_pvr_key_frame(frames.data(), 5, 64, 36, srf.c_str()), 0);
    const Parsed parsed = Parse(srf);
    ASSERT_EQ(parsed.count, 5);
    for (int i = 1; i < 5; ++i) {
        EXPECT_GT(MeanOf(parsed.frames[i], 64, 0, 0, 64, 36).Grey(),
                  MeanOf(parsed.frames[i - 1], 64, 0, 0, 64, 36).Grey() + 5)
            << "later key frames are brighter";
    }
    EXPECT_EQ(EsFilesLeft(), 0);
}

TEST_F(PvrDecoderTest, RefusesBadArgumentsWithoutWritingAnything) {
    const auto units = qrbtest::CutKeyFrames(VideoFixture("fade_mpeg2_320x240_3s.ts"), 5);
    auto frames = KeyFrames(units, 1);
    frames.push_back(frames[0]);  // a sixth
    EXPECT_EQ(set_pvr_key_frame(frames.data(), 6, 160, 90, srf.c_str()), -1);
    EXPECT_EQ(set_pvr_key_frame(frames.data(), 0, 160, 90, srf.c_str()), -1);
    EXPECT_EQ(set_pvr_key_frame(nullptr, 1, 160, 90, srf.c_str()), -1);
    EXPECT_EQ(set_pvr_key_frame(frames.data(), 1, 0, 90, srf.c_str()), -1);
    EXPECT_EQ(set_pvr_key_frame(frames.data(), 1, 160, 5000, srf.c_str()), -1);
    EXPECT_EQ(log.Count("parameter error"), 5);

    EXPECT_EQ(set_pvr_key_frame(frames.data(), 1, 160, 90, (root.Path() + "/rec/show.ts").c_str()),
              -1);
    EXPECT_EQ(log.Count("the path is not srf path"), 1);
    EXPECT_EQ(set_pvr_key_frame(frames.data(), 1, 160, 90, "show.srf"), -1);
    EXPECT_EQ(log.Count("the path is not correct"), 1);
    EXPECT_EQ(set_pvr_key_frame(frames.data(), 1, 160, 90, nullptr), -1);

    auto wrongCodec = frames;
    wrongCodec[0].encode_type = 3;
    EXPECT_EQ(set_pvr_key_frame(wrongCodec.data(), 1, 160, 90, srf.c_str()), -1);
    EXPECT_TRUE(log.Contains("Codec not found"));

    // One good frame and one that is not MPEG-2 at all: the whole call fails.
    const std::string noise(4096, '\x5a');
    auto mixed = frames;
    mixed[1].buffer = reinterpret_cast<const unsigned char*>(noise.data());
    mixed[1].buffer_size = static_cast<int>(noise.size());
    EXPECT_EQ(set_pvr_key_frame(mixed.data(), 2, 160, 90, srf.c_str()), -1);
    EXPECT_TRUE(log.Contains("m_DecodeFrame fail"));
    auto empty = frames;
    empty[0].buffer_size = 0;
    EXPECT_EQ(set_pvr_key_frame(empty.data(), 1, 160, 90, srf.c_str()), -1);

    // An H.264 key frame that is noise fails too, and its ".es" file goes with the call.
    auto badH264 = mixed;
    badH264[0] = mixed[1];
    badH264[0].encode_type = 2;
    const int decodeFailures = log.Count("m_DecodeFrame fail");
    EXPECT_EQ(set_pvr_key_frame(badH264.data(), 1, 160, 90, srf.c_str()), -1);
    EXPECT_EQ(log.Count("m_DecodeFrame fail"), decodeFailures + 1) << "it reached the decoder";
    EXPECT_EQ(EsFilesLeft(), 0);

    EXPECT_EQ(root.CountEntries("/rec"), 0) << "no MTA file, not even half of one";
}

TEST_F(PvrDecoderTest, AnEsNameAlreadyTakenIsNeitherFollowedNorKept) {
    const std::string data = root.Resolve(kDataDir);
    fs::create_directories(data);
    // A link planted at the first frame's name, pointing at a file of someone else's.
    const std::string victim = root.Path() + "/victim.txt";
    qrbtest::WriteWholeFile(victim, "keep me");
    fs::create_symlink(victim, data + "show-0.es");
    // A file left at the second frame's name by a call that never ended.
    qrbtest::WriteWholeFile(data + "show-1.es", "stale");

    const auto units = qrbtest::CutKeyFrames(VideoFixture("fade_h264_640x360_3s_bframes.ts"), 2);
    auto frames = KeyFrames(units, 2);
    ASSERT_EQ(set_pvr_key_frame(frames.data(), 2, 32, 32, srf.c_str()), 0);
    EXPECT_EQ(qrbtest::ReadWholeFile(victim), "keep me");
    EXPECT_FALSE(fs::exists(fs::symlink_status(data + "show-0.es")));
    EXPECT_FALSE(fs::exists(data + "show-1.es"));
    EXPECT_EQ(Parse(srf).count, 2);
}

TEST_F(PvrDecoderTest, MtaFileIsReplacedWholeAndALinkAtItsNameIsNotWrittenThrough) {
    const std::string victim = root.Path() + "/victim.txt";
    qrbtest::WriteWholeFile(victim, "keep me");
    fs::create_symlink(victim, mta);
    const auto units = qrbtest::CutKeyFrames(VideoFixture("fade_mpeg2_320x240_3s.ts"), 1);
    auto frames = KeyFrames(units, 1);
    ASSERT_EQ(set_pvr_key_frame(frames.data(), 1, 16, 16, srf.c_str()), 0);
    EXPECT_EQ(qrbtest::ReadWholeFile(victim), "keep me");
    EXPECT_FALSE(fs::is_symlink(mta));
    EXPECT_EQ(Parse(srf).count, 1);
    EXPECT_EQ(root.CountEntries("/rec"), 1) << "no temporary file left beside it";
}

TEST_F(PvrDecoderTest, ReaderRefusesWhatItsWriterWouldNotHaveWritten) {
    struct Case {
        const char* why;
        std::string bytes;
        const char* message;
    };
    const std::string px = Solid(2, 2, 7);
    const Case cases[] = {
        {"six frames", PvrMta(2, 2, 4, 6, {px, px, px, px, px, px}),
         "get width, height, depth, count fail"},
        {"no frames", PvrMta(2, 2, 4, 0, {}), "get width, height, depth, count fail"},
        {"depth 0", PvrMta(2, 2, 0, 1, {px}), "get width, height, depth, count fail"},
        {"depth 11", PvrMta(2, 2, 11, 1, {std::string(44, 'x')}),
         "get width, height, depth, count fail"},
        {"too wide", PvrMta(10001, 1, 4, 1, {}), "get width, height, depth, count fail"},
        {"markers from 1", PvrMta(2, 2, 4, 1, {px}, '1'), "frame[0] marker mismatch"},
        // A header promising five frames of 10000 x 10000 x 10 in a file of a few bytes: refused
        // before anything is allocated.
        {"promises more than it holds", PvrMta(10000, 10000, 10, 5, {px}), "less than"},
        {"cut short", PvrMta(2, 2, 4, 2, {px, px}).substr(0, 50), "less than"},
        {"bad header", "FSmtb" + PvrMta(2, 2, 4, 1, {px}).substr(5), "bad header"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.why);
        log.Clear();
        qrbtest::WriteWholeFile(mta, c.bytes);
        const Parsed parsed = Parse(srf);
        EXPECT_EQ(parsed.status, -1);
        EXPECT_TRUE(parsed.frames.empty());
        EXPECT_TRUE(log.Contains(c.message));
    }

    log.Clear();
    fs::remove(mta);
    EXPECT_EQ(Parse(srf).status, -1);
    EXPECT_TRUE(log.Contains("mta file not exist"));
    EXPECT_EQ(Parse(root.Path() + "/rec/show.ts").status, -1);
    EXPECT_TRUE(log.Contains("the path is not srf path"));
    EXPECT_EQ(parse_pvr_mta_file(srf.c_str(), nullptr), -1);
    EXPECT_TRUE(log.Contains("thumb_result is NULL"));

    // The limits themselves are accepted: five frames, depth 10, and the trailer is not needed.
    qrbtest::WriteWholeFile(
        mta, PvrMta(1, 1, 10, 5, std::vector<std::string>(5, "0123456789")).substr(0, 32 + 5 * 12));
    const Parsed edge = Parse(srf);
    EXPECT_EQ(edge.status, 0);
    EXPECT_EQ(edge.count, 5);
    EXPECT_EQ(edge.depth, 10);
    EXPECT_EQ(edge.frames[4], "0123456789");
}

// ---------------------------------------------------------------------------------------------
// The recording getter.

class PvrGetterTest : public ::testing::Test {
protected:
    PvrGetterTest() {
        fs::create_directories(root.Path() + "/rec");
        srf = root.Path() + "/rec/news.srf";
        mta = root.Path() + "/rec/news.mta";
    }
    _stExtractInfo Info(int w, int h, int frames) {
        _stExtractInfo info;
        info.strURL = srf;
        info.width = w;
        info.height = h;
        info.FrameCount = static_cast<unsigned char>(frames);
        return info;
    }
    std::vector<std::string> Frames(int n, int w, int h) {
        std::vector<std::string> frames;
        for (int i = 0; i < n; ++i)
            frames.push_back(Solid(w, h, static_cast<unsigned char>(40 * (i + 1))));
        return frames;
    }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    CQRBPVRThumbnailGetter getter;
    std::string srf;
    std::string mta;
};

TEST_F(PvrGetterTest, TakesAsManyFramesAsAskedAndTheFileHas) {
    qrbtest::WriteWholeFile(mta, PvrMta(160, 90, 4, 5, Frames(5, 160, 90)));
    auto one = getter.ExtractThumbnail(Info(160, 90, 1));
    ASSERT_TRUE(one);
    ASSERT_EQ(one->GetImageCount(), 1);
    EXPECT_EQ(one->GetURL(), srf);
    EXPECT_EQ(one->GetRID(), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(one->GetImages()[0]->GetBuffer()), 160 * 90 * 4),
              Solid(160, 90, 40));

    qrbtest::WriteWholeFile(mta, PvrMta(8, 8, 4, 2, Frames(2, 8, 8)));
    auto two = getter.ExtractThumbnail(Info(8, 8, 3));
    ASSERT_TRUE(two);
    EXPECT_EQ(two->GetImageCount(), 2);
    EXPECT_EQ(two->GetImages()[1]->GetBuffer()[0], 80);

    auto none = getter.ExtractThumbnail(Info(8, 8, 0));
    EXPECT_FALSE(none) << "an item without images is no result";
}

TEST_F(PvrGetterTest, ScalesToTheRequestWithTheRowStrideQuirk) {
    qrbtest::WriteWholeFile(mta, PvrMta(320, 180, 4, 3, Frames(3, 320, 180)));
    auto item = getter.ExtractThumbnail(Info(160, 90, 3));
    ASSERT_TRUE(item);
    ASSERT_EQ(item->GetImageCount(), 3);
    for (int i = 0; i < 3; ++i) {
        const auto& image = item->GetImages()[i];
        EXPECT_EQ(image->GetWidth(), 160);
        EXPECT_EQ(image->GetHeight(), 90);
        EXPECT_EQ(image->GetDepth(), 32);
        // Four times the height, not the width: the records have always said so.
        EXPECT_EQ(image->GetFourth(), 360);
        EXPECT_EQ(image->GetTimeStamp(), 0);
        EXPECT_EQ(image->GetBuffer()[160 * 45 * 4], 40 * (i + 1)) << "a solid frame stays solid";
    }
    EXPECT_EQ(item->GetSize(), 160 * 90 * 4);

    // Square thumbnails are where the quirk is right.
    auto square = getter.ExtractThumbnail(Info(50, 50, 1));
    ASSERT_TRUE(square);
    EXPECT_EQ(square->GetImages()[0]->GetFourth(), 200);
    // No size asked: the stored one.
    auto own = getter.ExtractThumbnail(Info(0, 0, 1));
    ASSERT_TRUE(own);
    EXPECT_EQ(own->GetImages()[0]->GetWidth(), 320);
    EXPECT_EQ(own->GetImages()[0]->GetFourth(), 720);
}

TEST_F(PvrGetterTest, FailuresGiveNoItem) {
    EXPECT_FALSE(getter.ExtractThumbnail(Info(16, 16, 1)));
    EXPECT_TRUE(log.Contains("ParsePvrMtaFile failed ret[-1]###"));
    // Three bytes a pixel cannot be read as ARGB.
    qrbtest::WriteWholeFile(mta, PvrMta(2, 2, 3, 1, {std::string(12, 'x')}));
    EXPECT_FALSE(getter.ExtractThumbnail(Info(4, 4, 1)));
    EXPECT_STREQ(getter.T_CONVERTURITOPATH("file:///a/b.srf"), "/a/b.srf");
    EXPECT_STREQ(getter.T_CONVERTURITOPATH("/a/b.srf"), "/a/b.srf");
}

// From the recorder's key frames to the application's callback.
class PvrThroughInterfaceTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(thumbnail_init(), 0); }
    void TearDown() override { thumbnail_finalize(); }

    std::map<void*, RecordedResult> WaitForResults(size_t n) {
        EXPECT_TRUE(rec.WaitForCount(n, 30s)) << "only " << rec.Count() << " of " << n;
        std::map<void*, RecordedResult> byTag;
        for (const RecordedResult& r : rec.Results()) byTag[r.user_data] = r;
        return byTag;
    }
    void Request(const std::string& url, int tag, int w, int h, unsigned char frames) {
        thumbnail_request_async(url.c_str(), MEDIA_TYPE_PVR, DEV_TYPE_LOCAL, 0, w, h, 0, frames,
                                &CallbackRecorder::Callback, rec.Tag(tag));
    }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    CallbackRecorder rec;
};

TEST_F(PvrThroughInterfaceTest, RecordingRequestsAreServedFromTheRecordersKeyFrames) {
    fs::create_directories(root.Path() + "/rec");
    const std::string srf = root.Path() + "/rec/match.srf";
    const auto units = qrbtest::CutKeyFrames(VideoFixture("fade_mpeg2_320x240_3s.ts"), 4);
    auto frames = KeyFrames(units, 1);
    ASSERT_EQ(set_pvr_key_frame(frames.data(), 4, 160, 90, srf.c_str()), 0);
    const Parsed stored = Parse(srf);
    ASSERT_EQ(stored.count, 4);

    Request(srf, 0, 160, 90, 2);  // the stored size: the stored frames themselves
    Request(srf, 1, 80, 45, 5);   // scaled; as many as the file has
    Request(root.Path() + "/rec/missing.srf", 2, 160, 90, 1);
    auto results = WaitForResults(3);

    const RecordedResult& same = results[rec.Tag(0)];
    ASSERT_EQ(same.status, 0);
    ASSERT_EQ(same.count, 2);
    EXPECT_EQ(same.width, 160);
    EXPECT_EQ(same.height, 90);
    EXPECT_EQ(same.depth, 32);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(same.sizes[i], 160 * 90 * 4);
        EXPECT_EQ(same.buffers[i], stored.frames[i]) << i;
        EXPECT_EQ(same.timestamps[i], 0);
    }

    const RecordedResult& scaled = results[rec.Tag(1)];
    ASSERT_EQ(scaled.status, 0);
    ASSERT_EQ(scaled.count, 4);
    EXPECT_EQ(scaled.width, 80);
    EXPECT_EQ(scaled.height, 45);
    for (int i = 0; i < 4; ++i) {
        EXPECT_NEAR(MeanOf(scaled.buffers[i], 80, 0, 0, 80, 45).Grey(),
                    MeanOf(stored.frames[i], 160, 0, 0, 160, 90).Grey(), 3.0)
            << i;
    }
    EXPECT_EQ(results[rec.Tag(2)].status, -1);
    EXPECT_TRUE(log.Contains("RequestedItem.eThumbnailType=5"));
}

}  // namespace
