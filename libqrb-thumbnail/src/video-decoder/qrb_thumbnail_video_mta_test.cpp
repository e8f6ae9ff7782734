// The video MTA file: the reader against files built byte by byte, the writer against the same
// layout, and both against hostile or failing file systems.
#include "video-decoder/qrb_thumbnail_ffmpeg_define.h"
#include "video-decoder/qrb_thumbnail_video_decoder.h"
#include "video-decoder/testdata/qrb_video_mta_bytes.h"

#include "qrb_test_log.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using qrbtest::BuildVideoMta;
using qrbtest::IntactVideoMta;
using qrbtest::MtaFrame;
using qrbtest::MtaPixels;

constexpr const char* kVideoDir = "/opt/usr/apps/orvale/data/video/";

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

boost::intrusive_ptr<CQRBThumbImage> MakeImage(int w, int h, int d, const std::string& pixels,
                                               long long stamp) {
    unsigned char* buffer = static_cast<unsigned char*>(std::malloc(pixels.size()));
    std::memcpy(buffer, pixels.data(), pixels.size());
    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    image->Create(w, h, d, static_cast<long>(w) * 4, buffer, stamp);  // the image frees buffer
    image->SetBufSize(static_cast<long>(pixels.size()));
    return image;
}

class VideoMtaTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_QRBFFmpegApi = QRBFFmpegApi{};
        fs::create_directories(root.Resolve(kVideoDir));
        request.strURL = "clip;/media/clip.mp4";
        request.RID = 77;
        request.eThumbnailType = THUMB_VIDEO;
        request.FrameCount = 5;
        request.bUsedCache = true;
        log.Clear();
    }
    void TearDown() override { g_QRBFFmpegApi = QRBFFmpegApi{}; }

    std::string MtaPath(const std::string& id) { return root.Resolve(kVideoDir) + id + ".mta"; }
    void WriteMta(const std::string& id, const std::string& bytes) {
        std::ofstream(MtaPath(id), std::ios::binary) << bytes;
    }
    bool Parse(const std::string& id) {
        item = new CQRBThumbnailItem;
        return decoder.m_ParseVideoMtaFile(request, id, item);
    }

    qrbtest::ScratchRoot root;
    qrbtest::LogCapture log;
    CQRBThumbnailVideoDecoder decoder;  // built without plug-ins: only its file operations run
    _stRequestedItem request;
    boost::intrusive_ptr<CQRBThumbnailItem> item;
};

TEST_F(VideoMtaTest, ReadsEveryFrameOfAnIntactFile) {
    const std::vector<uint32_t> stamps = {0, 1000, 2000, 0xFFFFFFFBu, 0x7FFFFFFFu};
    WriteMta("clip", IntactVideoMta(3, 2, 4, stamps));
    ASSERT_TRUE(Parse("clip"));
    EXPECT_TRUE(log.Contains("image_width=3, image_height=2, image_depth=4, frame_count=5"));
    EXPECT_TRUE(log.Contains("parse mta success"));

    ASSERT_EQ(item->GetImageCount(), 5);
    const std::vector<long long> expectedStamps = {0, 1000, 2000, -5, 0x7FFFFFFF};
    for (int i = 0; i < 5; ++i) {
        SCOPED_TRACE(i);
        const auto& image = item->GetImages()[i];
        ASSERT_TRUE(image);
        EXPECT_EQ(image->GetWidth(), 3);
        EXPECT_EQ(image->GetHeight(), 2);
        EXPECT_EQ(image->GetDepth(), 4);
        EXPECT_EQ(image->GetBufSize(), 24);
        EXPECT_EQ(image->GetTimeStamp(), expectedStamps[i]);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(image->GetBuffer()), 24),
                  MtaPixels(3, 2, 4, i));
    }
    EXPECT_EQ(item->GetRID(), 77);
    EXPECT_EQ(item->GetURL(), "clip;/media/clip.mp4");
    EXPECT_EQ(item->GetThumbnailType(), THUMB_VIDEO);
    EXPECT_TRUE(item->GetUsedCache());
}

TEST_F(VideoMtaTest, FileWithoutTrailerIsStillRead) {
    std::string bytes = IntactVideoMta(2, 2, 4, {1, 2});
    bytes.resize(bytes.size() - 2);
    WriteMta("clip", bytes);
    ASSERT_TRUE(Parse("clip"));
    EXPECT_EQ(item->GetImageCount(), 2);
}

TEST_F(VideoMtaTest, WriterLaysOutTheRecordsByteForByte) {
    boost::intrusive_ptr<CQRBThumbnailItem> source(new CQRBThumbnailItem);
    source->AddImage(MakeImage(2, 2, 4, MtaPixels(2, 2, 4, 0), 7));
    source->AddImage(MakeImage(2, 2, 4, MtaPixels(2, 2, 4, 1), 0x100000010LL));  // keeps 0x10
    std::string path = MtaPath("clip");
    ASSERT_TRUE(decoder.m_WriteVideoMtaFile(path, source));
    EXPECT_TRUE(log.Contains("begin m_WriteVideoMtaFile"));
    EXPECT_TRUE(log.Contains("m_WriteVideoMtaFile end"));
    EXPECT_EQ(ReadAll(path), IntactVideoMta(2, 2, 4, {7, 0x10}));
    struct stat st;
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(root.CountEntries(kVideoDir), 1) << "no temporary file is left";
}

TEST_F(VideoMtaTest, WrittenFramesReadBackUnchanged) {
    boost::intrusive_ptr<CQRBThumbnailItem> source(new CQRBThumbnailItem);
    for (int i = 0; i < 5; ++i)
        source->AddImage(MakeImage(5, 3, 4, MtaPixels(5, 3, 4, i), 40000LL * i));
    std::string path = MtaPath("clip");
    ASSERT_TRUE(decoder.m_WriteVideoMtaFile(path, source));
    ASSERT_TRUE(Parse("clip"));
    ASSERT_EQ(item->GetImageCount(), 5);
    for (int i = 0; i < 5; ++i) {
        const auto& image = item->GetImages()[i];
        EXPECT_EQ(image->GetTimeStamp(), 40000LL * i);
        EXPECT_EQ(0, std::memcmp(image->GetBuffer(), source->GetImages()[i]->GetBuffer(), 60));
    }
}

TEST_F(VideoMtaTest, RewritingReplacesTheEarlierFile) {
    WriteMta("clip", "an older, longer file that must not survive in any part");
    boost::intrusive_ptr<CQRBThumbnailItem> source(new CQRBThumbnailItem);
    source->AddImage(MakeImage(1, 1, 4, "abcd", 3));
    std::string path = MtaPath("clip");
    ASSERT_TRUE(decoder.m_WriteVideoMtaFile(path, source));
    EXPECT_EQ(ReadAll(path), BuildVideoMta(1, 1, 4, 1, {{3, "abcd"}}));
}

// A corrupt or lying file is refused with its reason, and the item stays empty.
TEST_F(VideoMtaTest, RejectsCorruptAndLyingFiles) {
    const std::string good = IntactVideoMta(2, 2, 4, {1, 2, 3});
    struct Case {
        const char* name;
        std::function<std::string()> bytes;
        const char* reason;
    };
    auto patched = [&good](size_t offset, char value) {
        return [good, offset, value] {
            std::string b = good;
            b[offset] = value;
            return b;
        };
    };
    auto header = [](uint32_t w, uint32_t h, uint32_t d, uint32_t count, size_t frames) {
        return [=] {
            std::vector<MtaFrame> f;
            for (size_t i = 0; i < frames; ++i) f.push_back({0, std::string(16, 'p')});
            return BuildVideoMta(w, h, d, count, f);
        };
    };
    const std::vector<Case> cases = {
        {"bad magic", patched(1, 'X'), "mta header mismatch"},
        {"magic without its zero byte", patched(5, '!'), "mta header mismatch"},
        {"width record letter", patched(7, 'w'), "mta record FW mismatch"},
        {"height record marker", patched(12, 'G'), "mta record FH mismatch"},
        {"depth record letter", patched(19, 'E'), "mta record FD mismatch"},
        {"count record letter", patched(25, 'K'), "mta record FC mismatch"},
        {"count tail not zero", patched(31, '\x01'), "mta record FC mismatch"},
        {"depth 11", header(2, 2, 11, 1, 1), "get width, height, depth, count fail"},
        {"depth 0", header(2, 2, 0, 1, 1), "get width, height, depth, count fail"},
        {"width 0", header(0, 2, 4, 1, 1), "get width, height, depth, count fail"},
        {"width 10001", header(10001, 1, 1, 1, 1), "get width, height, depth, count fail"},
        {"height 10001", header(1, 10001, 1, 1, 1), "get width, height, depth, count fail"},
        {"count 0", header(2, 2, 4, 0, 0), "get width, height, depth, count fail"},
        {"count 6", header(2, 2, 4, 6, 6), "get width, height, depth, count fail"},
        {"count 200", header(2, 2, 4, 200, 3), "get width, height, depth, count fail"},
        {"frames out of order", patched(32 + 1, '1'), "frame[0] marker mismatch"},
        {"second frame marker", patched(32 + 22, 'G'), "frame[1] marker mismatch"},
        {"fewer frames than counted", header(2, 2, 4, 5, 4), "mta file size"},
        {"truncated in the last frame", [&good] { return good.substr(0, good.size() - 5); },
         "mta file size"},
        {"header only", [&good] { return good.substr(0, 20); }, "too short"},
        {"empty file", [] { return std::string(); }, "too short"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        log.Clear();
        WriteMta("clip", c.bytes());
        EXPECT_FALSE(Parse("clip"));
        EXPECT_EQ(item->GetImageCount(), 0);
        EXPECT_TRUE(log.Contains(c.reason));
        EXPECT_FALSE(log.Contains("parse mta success"));
    }
}

TEST_F(VideoMtaTest, SizeLieIsRejectedBeforeAnyFrameIsAllocated) {
    // Announces five frames of 10000 x 10000 x 10 bytes (5 GB) in a file of a few bytes.
    WriteMta("clip", BuildVideoMta(10000, 10000, 10, 5, {{1, std::string(64, 'x')}}));
    EXPECT_FALSE(Parse("clip"));
    EXPECT_TRUE(
        log.Contains("image_width=10000, image_height=10000, image_depth=10, frame_count=5"));
    // 32 header bytes + 5 x (6 + 10^9): the reason is given before a frame is touched. Frames
    // are allocated one by one as they are read, so no frame read means no frame allocated.
    EXPECT_TRUE(log.Contains("less than 5000000062 for 5 frames of 10000x10000x10"));
    EXPECT_FALSE(log.Contains("read frame["));
    EXPECT_FALSE(log.Contains("marker mismatch"));
    EXPECT_FALSE(log.Contains("malloc fail"));
}

TEST_F(VideoMtaTest, MissingFileEmptyIdOrNoItemFail) {
    EXPECT_FALSE(Parse("absent"));
    EXPECT_TRUE(log.Contains("open " + MtaPath("absent") + " fail"));

    WriteMta("", IntactVideoMta(1, 1, 4, {1}));  // ".mta" exists, but an empty id never reads it
    EXPECT_FALSE(Parse(""));
    EXPECT_TRUE(log.Contains("media id empty!!"));

    WriteMta("clip", IntactVideoMta(1, 1, 4, {1}));
    boost::intrusive_ptr<CQRBThumbnailItem> none;
    EXPECT_FALSE(decoder.m_ParseVideoMtaFile(request, "clip", none));
}

TEST_F(VideoMtaTest, OnlyRegularFilesAreRead) {
    const std::string elsewhere = root.WriteFile("elsewhere.mta", IntactVideoMta(1, 1, 4, {1}));
    ASSERT_EQ(symlink(elsewhere.c_str(), MtaPath("linked").c_str()), 0);
    EXPECT_FALSE(Parse("linked"));

    fs::create_directories(MtaPath("folder"));
    EXPECT_FALSE(Parse("folder"));

    // A FIFO would block a reader that waits for a writer; it is refused at once.
    ASSERT_EQ(mkfifo(MtaPath("pipe").c_str(), 0600), 0);
    EXPECT_FALSE(Parse("pipe"));
    for (const char* id : {"linked", "folder", "pipe"}) {
        EXPECT_TRUE(log.Contains("open " + MtaPath(id) + " fail")) << id;
    }
}

TEST_F(VideoMtaTest, WriterRefusesWhatCannotBeStored) {
    std::string path = MtaPath("clip");
    boost::intrusive_ptr<CQRBThumbnailItem> none;
    EXPECT_FALSE(decoder.m_WriteVideoMtaFile(path, none));
    EXPECT_TRUE(log.Contains("pItem:[(nil)]."));

    boost::intrusive_ptr<CQRBThumbnailItem> empty(new CQRBThumbnailItem);
    EXPECT_FALSE(decoder.m_WriteVideoMtaFile(path, empty));
    EXPECT_TRUE(log.Contains("there is no thumbnail to be saved."));

    boost::intrusive_ptr<CQRBThumbnailItem> firstMissing(new CQRBThumbnailItem);
    firstMissing->AddImage(nullptr);
    firstMissing->AddImage(MakeImage(1, 1, 4, "abcd", 0));
    EXPECT_FALSE(decoder.m_WriteVideoMtaFile(path, firstMissing));
    EXPECT_TRUE(log.Contains("m_ThumbVector[0] pImage NULL."));

    // Every frame is stored with the first image's size: a smaller second image would be read
    // past its end, so the item is refused.
    boost::intrusive_ptr<CQRBThumbnailItem> mixed(new CQRBThumbnailItem);
    mixed->AddImage(MakeImage(4, 4, 4, std::string(64, 'a'), 0));
    mixed->AddImage(MakeImage(2, 2, 4, std::string(16, 'b'), 0));
    EXPECT_FALSE(decoder.m_WriteVideoMtaFile(path, mixed));

    // A buffer known to be shorter than width x height x depth is refused as well.
    boost::intrusive_ptr<CQRBThumbnailItem> shortBuffer(new CQRBThumbnailItem);
    auto image = MakeImage(4, 4, 4, std::string(64, 'a'), 0);
    image->SetBufSize(32);
    shortBuffer->AddImage(image);
    EXPECT_FALSE(decoder.m_WriteVideoMtaFile(path, shortBuffer));

    EXPECT_EQ(root.CountEntries(kVideoDir), 0) << "a refused write leaves no file";
}

TEST_F(VideoMtaTest, FailedWriteLeavesNoFileBehind) {
    boost::intrusive_ptr<CQRBThumbnailItem> source(new CQRBThumbnailItem);
    source->AddImage(MakeImage(2, 2, 4, MtaPixels(2, 2, 4, 0), 1));

    // The final name is taken by a folder: the rename fails and the temporary file goes.
    fs::create_directories(MtaPath("busy"));
    std::string busy = MtaPath("busy");
    EXPECT_FALSE(decoder.m_WriteVideoMtaFile(busy, source));
    EXPECT_EQ(root.CountEntries(kVideoDir), 1);
    EXPECT_TRUE(fs::is_directory(busy));

    // The folder itself is missing: nothing can be created.
    std::string lost = root.Resolve("/opt/usr/apps/orvale/data/missing/clip.mta");
    EXPECT_FALSE(decoder.m_WriteVideoMtaFile(lost, source));
    EXPECT_TRUE(log.Contains("Failed to create " + lost + "  file."));
    EXPECT_FALSE(fs::exists(root.Resolve("/opt/usr/apps/orvale/data/missing")));
}

TEST_F(VideoMtaTest, LinkAtTheFinalNameIsReplacedNotFollowed) {
    const std::string target = root.WriteFile("victim.txt", "untouched");
    ASSERT_EQ(symlink(target.c_str(), MtaPath("clip").c_str()), 0);
    boost::intrusive_ptr<CQRBThumbnailItem> source(new CQRBThumbnailItem);
    source->AddImage(MakeImage(1, 1, 4, "wxyz", 9));
    std::string path = MtaPath("clip");
    ASSERT_TRUE(decoder.m_WriteVideoMtaFile(path, source));
    EXPECT_EQ(ReadAll(target), "untouched");
    EXPECT_FALSE(fs::is_symlink(path));
    ASSERT_TRUE(Parse("clip"));
    EXPECT_EQ(item->GetImages()[0]->GetTimeStamp(), 9);
}

TEST_F(VideoMtaTest, MissingImageKeepsOnlyItsMarkerAndTheFileIsThenRefused) {
    boost::intrusive_ptr<CQRBThumbnailItem> source(new CQRBThumbnailItem);
    source->AddImage(MakeImage(2, 2, 4, MtaPixels(2, 2, 4, 0), 1));
    source->AddImage(nullptr);
    source->AddImage(MakeImage(2, 2, 4, MtaPixels(2, 2, 4, 2), 3));
    std::string path = MtaPath("clip");
    ASSERT_TRUE(decoder.m_WriteVideoMtaFile(path, source));
    std::vector<MtaFrame> frames = {{1, MtaPixels(2, 2, 4, 0)}};
    std::string expected = BuildVideoMta(2, 2, 4, 3, frames, false) + "F1" + "F2" +
                           std::string("\x03\0\0\0", 4) + MtaPixels(2, 2, 4, 2) + "FE";
    EXPECT_EQ(ReadAll(path), expected);
    EXPECT_FALSE(Parse("clip"));
    EXPECT_TRUE(log.Contains("mta file size"));
}

}  // namespace
