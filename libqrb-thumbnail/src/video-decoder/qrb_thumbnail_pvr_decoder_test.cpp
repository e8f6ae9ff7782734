// Recordings: key frames cut by the tests from real MPEG-2 and H.264 transport streams (made by
// ffmpeg when the tests were built) go through set_pvr_key_frame into the MTA file beside the
// ".srf" path, come back through parse_pvr_mta_file, and are served by the recording getter,
// through the C interface (media 3 on device 100 is kind 5). The streams fade in
// from black, so each frame's brightness tells which key frame it came from.
#include "video-decoder/qrb_thumbnail_pvr_decoder.h"
#include "video-decoder/testdata/qrb_video_mta_bytes.h"
#include "video-decoder/testdata/qrb_video_test_support.h"

#include "qrb_test_callbacks.h"
#include "qrb_test_files.h"
#include "qrb_test_log.h"
#include "qrb_test_root.h"
#include "qrb_thumbnail.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using qrbtest::BuildMta;
using qrbtest::MeanOf;
using qrbtest::VideoFixture;

constexpr const char* kDataDir = "/opt/usr/apps/orvale/data/";

// The first count key frames of a fixture, as the recorder hands them over.
struct KeyFrames {
    KeyFrames(const char* fixture, int count, int encodeType)
        : units(qrbtest::CutKeyFrames(VideoFixture(fixture), count)) {
        for (const std::string& unit : units) {
            _key_frame frame{};
            frame.buffer = reinterpret_cast<const unsigned char*>(unit.data());
            frame.buffer_size = static_cast<int>(unit.size());
            frame.encode_type = encodeType;
            frames.push_back(frame);
        }
    }
    std::vector<std::string> units;
    std::vector<_key_frame> frames;
};

// What parse_pvr_mta_file hands out, with its buffers freed as an application must.
struct Parsed {
    int status = -1;
    int width = 0, height = 0, depth = 0, count = 0;
    std::vector<std::string> frames;
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
        std::free(result.pBuffer[i]);
    }
    return parsed;
}

class PvrDecoderTest : public ::testing::Test {
protected:
    std::string MtaFile(const std::string& bytes) { return root.WriteFile("rec/show.mta", bytes); }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    std::string srf = root.Path() + "/rec/show.srf";
    std::string mta = root.Path() + "/rec/show.mta";
};

struct PvrCase {
    const char* fixture;
    int encodeType;  // 1 MPEG-2, decoded from memory; 2 H.264, through an ".es" file
    int count, width, height;
};
void PrintTo(const PvrCase& c, std::ostream* os) { *os << c.fixture; }

class PvrKeyFrameTest : public PvrDecoderTest, public ::testing::WithParamInterface<PvrCase> {};

TEST_P(PvrKeyFrameTest, KeyFramesAreDecodedIntoTheMtaFileAndReadBack) {
    const PvrCase& c = GetParam();
    fs::create_directories(root.Path() + "/rec");
    // Names already taken by links to someone else's file are replaced, not written through.
    const std::string victim = root.WriteFile("victim.txt", "keep me");
    fs::create_symlink(victim, mta);
    if (c.encodeType == 2) {
        fs::create_directories(root.Resolve(kDataDir));
        fs::create_symlink(victim, root.Resolve(kDataDir) + "show-0.es");
    }
    KeyFrames keys(c.fixture, c.count, c.encodeType);
    ASSERT_EQ(set_pvr_key_frame(keys.frames.data(), c.count, c.width, c.height, srf.c_str()), 0);
    EXPECT_EQ(qrbtest::ReadFileBytes(victim), "keep me");
    EXPECT_FALSE(fs::is_symlink(mta));
    EXPECT_EQ(log.Contains("write to " + root.Resolve(kDataDir) + "show-0.es success"),
              c.encodeType == 2);
    EXPECT_EQ(root.CountEntries(kDataDir), 0) << "no elementary stream outlives the call";
    EXPECT_EQ(fs::file_size(mta), 32u + c.count * (2u + c.width * c.height * 4) + 2u);

    const Parsed parsed = Parse(srf);
    ASSERT_EQ(parsed.status, 0);
    EXPECT_EQ(parsed.width, c.width);
    EXPECT_EQ(parsed.height, c.height);
    EXPECT_EQ(parsed.depth, 4);
    ASSERT_EQ(parsed.count, c.count);
    ASSERT_EQ(parsed.frames.size(), static_cast<size_t>(c.count));
    const qrbtest::MediaFacts facts = qrbtest::ReadMediaFacts(VideoFixture(c.fixture));
    for (int i = 0; i < c.count; ++i) {
        const double grey = MeanOf(parsed.frames[i], c.width, 0, 0, c.width, c.height).Grey();
        EXPECT_NEAR(grey / 255.0 * facts.durationUs / 1000.0, facts.keyTimesMs[i], 80.0) << i;
        EXPECT_EQ(static_cast<unsigned char>(parsed.frames[i][3]), 255) << "opaque";
    }
}

// Interlaced broadcast in both codecs, and progressive H.264 with B-frames (the decoder holds
// pictures back until the input ends).
INSTANTIATE_TEST_SUITE_P(Recordings, PvrKeyFrameTest,
                         ::testing::Values(PvrCase{"fade_mpeg2_720x576i_2s.ts", 1, 3, 160, 90},
                                           PvrCase{"fade_h264_720x576i_2s.ts", 2, 2, 96, 96},
                                           PvrCase{"fade_h264_640x360_3s_bframes.ts", 2, 5, 64,
                                                   36}));

TEST_F(PvrDecoderTest, RefusesBadArgumentsWithoutWritingAnything) {
    fs::create_directories(root.Path() + "/rec");
    KeyFrames keys("fade_mpeg2_320x240_3s.ts", 5, 1);
    std::vector<_key_frame> frames = keys.frames;
    frames.push_back(frames[0]);  // a sixth
    EXPECT_EQ(set_pvr_key_frame(frames.data(), 6, 160, 90, srf.c_str()), -1);
    EXPECT_EQ(set_pvr_key_frame(frames.data(), 0, 160, 90, srf.c_str()), -1);
    EXPECT_EQ(log.Count("parameter error"), 2);
    EXPECT_EQ(set_pvr_key_frame(frames.data(), 1, 16, 16, (root.Path() + "/rec/a.ts").c_str()), -1);
    EXPECT_TRUE(log.Contains("the path is not srf path"));
    frames[0].encode_type = 3;
    EXPECT_EQ(set_pvr_key_frame(frames.data(), 1, 16, 16, srf.c_str()), -1);
    EXPECT_TRUE(log.Contains("Codec not found"));

    // A good frame and one of noise, in either codec: the whole call fails.
    const std::string noise(4096, '\x5a');
    for (int type : {1, 2}) {
        frames = keys.frames;
        frames[1].buffer = reinterpret_cast<const unsigned char*>(noise.data());
        frames[1].buffer_size = static_cast<int>(noise.size());
        frames[1].encode_type = type;
        EXPECT_EQ(set_pvr_key_frame(frames.data(), 2, 16, 16, srf.c_str()), -1);
    }
    EXPECT_EQ(log.Count("m_DecodeFrame fail"), 3) << "the unknown codec and both noise frames";
    EXPECT_EQ(root.CountEntries(kDataDir), 0);
    EXPECT_EQ(root.CountEntries("/rec"), 0) << "no MTA file, not even half of one";
}

TEST_F(PvrDecoderTest, ReaderRefusesWhatItsWriterWouldNotHaveWritten) {
    const std::string px(16, '\x07');
    std::string fromOne = BuildMta(2, 2, 4, 1, {px});
    fromOne[33] = '1';
    const struct {
        const char* why;
        std::string bytes;
        const char* message;
    } cases[] = {
        {"six frames", BuildMta(2, 2, 4, 6, std::vector<std::string>(6, px)),
         "get width, height, depth, count fail"},
        {"depth 0", BuildMta(2, 2, 0, 1, {px}), "get width, height, depth, count fail"},
        {"markers from 1", fromOne, "frame[0] marker mismatch"},
        // Five frames of 10000 x 10000 x 10 promised in a few bytes: refused before allocating.
        {"promises more than it holds", BuildMta(10000, 10000, 10, 5, {px}), "less than"},
        {"bad header", "FSmtb" + BuildMta(2, 2, 4, 1, {px}).substr(5), "bad header"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        MtaFile(c.bytes);
        const Parsed parsed = Parse(srf);
        EXPECT_EQ(parsed.status, -1);
        EXPECT_TRUE(parsed.frames.empty());
        EXPECT_TRUE(log.Contains(c.message));
    }
    EXPECT_EQ(Parse(root.Path() + "/rec/show.ts").status, -1);
    EXPECT_TRUE(log.Contains("the path is not srf path"));
    EXPECT_EQ(parse_pvr_mta_file(srf.c_str(), nullptr), -1);

    // The limits themselves are accepted: five frames, depth 10, and the trailer is not needed.
    const std::string edge = BuildMta(1, 1, 10, 5, std::vector<std::string>(5, "0123456789"));
    MtaFile(edge.substr(0, edge.size() - 2));
    const Parsed parsed = Parse(srf);
    EXPECT_EQ(parsed.status, 0);
    EXPECT_EQ(parsed.count, 5);
    EXPECT_EQ(parsed.frames.at(4), "0123456789");
}

// From the recorder's key frames to the application's callback, through the recording getter:
// as many frames as asked and the file has, each scaled from its stored frame.
TEST(PvrThroughInterfaceTest, RecordingRequestsAreServedFromTheRecordersKeyFrames) {
    qrbtest::ScratchRoot root;
    qrbtest::CallbackRecorder rec;
    ASSERT_EQ(thumbnail_init(), 0);
    const std::string srf = root.Path() + "/rec/match.srf";
    fs::create_directories(root.Path() + "/rec");
    KeyFrames keys("fade_mpeg2_320x240_3s.ts", 4, 1);
    ASSERT_EQ(set_pvr_key_frame(keys.frames.data(), 4, 160, 90, srf.c_str()), 0);
    const Parsed stored = Parse(srf);
    for (int asked : {1, 5}) {
        const auto r = rec.Request(srf, MEDIA_TYPE_PVR, DEV_TYPE_LOCAL, 80, 45, 0, asked);
        ASSERT_EQ(r.status, 0);
        ASSERT_EQ(r.count, std::min(asked, 4));
        EXPECT_EQ(r.width, 80);
        EXPECT_EQ(r.depth, 32);
        for (int i = 0; i < r.count; ++i) {
            EXPECT_NEAR(MeanOf(r.buffers[i], 80, 0, 0, 80, 45).Grey(),
                        MeanOf(stored.frames[i], 160, 0, 0, 160, 90).Grey(), 3.0)
                << i;
        }
    }
    // A missing file, and one of three bytes a pixel (no ARGB to scale), give no thumbnail.
    root.WriteFile("rec/rgb.mta", BuildMta(2, 2, 3, 1, {std::string(12, 'x')}));
    for (const char* name : {"/rec/none.srf", "/rec/rgb.srf"}) {
        EXPECT_EQ(rec.Request(root.Path() + name, MEDIA_TYPE_PVR, DEV_TYPE_LOCAL, 16, 16).status,
                  -1);
    }
    thumbnail_finalize();
}

}  // namespace
