// The video MTA file: the frames of a five-frame request in raw form, so that they need not be
// decoded again. All integers are unsigned 32-bit little-endian:
//
//   "FSmta\0"                         header
//   'F' 'W' width                     of the first image
//   'F' 'H' height
//   'F' 'D' depth                     bytes a pixel
//   'F' 'C' count 0 0                 number of images
//   'F' '0'+i timestamp pixels        per frame: the timestamp's low 32 bits, W x H x D bytes
//   'F' 'E'                           trailer (written, never read)
//
// The file is read back from a folder that other programs can write to, so the reader trusts
// nothing: every size is checked against the file before anything is allocated.
#include "qrb_thumbnail_video_decoder.h"

#include "qrb_log.h"
#include "qrb_scoped.h"
#include "qrb_system_path.h"
#include "qrb_temp_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

// Limits of the reader, and of what the writer agrees to store. A thumbnail frame is far
// smaller than 10000 x 10000; ten bytes a pixel covers every raster the library makes; an item
// has five image slots, so a sixth frame could never be delivered.
constexpr uint32_t kMaxSide = 10000;
constexpr uint32_t kMaxDepth = 10;
constexpr uint32_t kMaxFrames = QRB_THUMB_MAX_IMAGES;

constexpr size_t kHeaderBytes = 6 + 6 + 6 + 6 + 8;  // header, FW, FH, FD, FC
constexpr size_t kFrameHeadBytes = 2 + 4;           // marker, timestamp

const unsigned char kMagic[6] = {'F', 'S', 'm', 't', 'a', 0};


using PixelBuffer = std::unique_ptr<unsigned char, decltype(&std::free)>;

bool SizeStorable(uint32_t width, uint32_t height, uint32_t depth) {
    return width >= 1 && width <= kMaxSide && height >= 1 && height <= kMaxSide && depth >= 1 &&
           depth <= kMaxDepth;
}

void PutU32(unsigned char* out, uint32_t value) {
    out[0] = static_cast<unsigned char>(value);
    out[1] = static_cast<unsigned char>(value >> 8);
    out[2] = static_cast<unsigned char>(value >> 16);
    out[3] = static_cast<unsigned char>(value >> 24);
}

uint32_t GetU32(const unsigned char* in) {
    return static_cast<uint32_t>(in[0]) | (static_cast<uint32_t>(in[1]) << 8) |
           (static_cast<uint32_t>(in[2]) << 16) | (static_cast<uint32_t>(in[3]) << 24);
}

// The file's records, written straight to the descriptor (a few dozen bytes of records and the
// frames themselves: nothing to gain from buffering).
class MtaWriter {
public:
    explicit MtaWriter(QRBTempFile& file) : m_File(file) {}
    bool Bytes(const void* data, size_t n) { return m_File.Write(data, n); }
    bool Record(char a, char b, uint32_t value) {
        unsigned char record[6] = {static_cast<unsigned char>(a), static_cast<unsigned char>(b)};
        PutU32(record + 2, value);
        return Bytes(record, sizeof(record));
    }

private:
    QRBTempFile& m_File;
};

}  // namespace

std::string CQRBThumbnailVideoDecoder::m_VideoMtaPath(const std::string& mediaId) {
    return QRBSystemPath(QRB_VIDEO_DIR) + mediaId + ".mta";
}

bool CQRBThumbnailVideoDecoder::m_CreateBeside(const std::string& path, QRBTempFile& file) {
    static std::atomic<unsigned> counter{0};
    return file.Create([&path] {
        char suffix[48];
        std::snprintf(suffix, sizeof(suffix), ".%d.%u.tmp", static_cast<int>(getpid()),
                      counter++);
        return path + suffix;
    });
}

bool CQRBThumbnailVideoDecoder::m_WriteVideoMtaFile(std::string& path,
                                                    boost::intrusive_ptr<CQRBThumbnailItem>& item) {
    QRB_LOGD("begin m_WriteVideoMtaFile");
    if (!item) {
        QRB_LOGW("pItem:[%p].\n", static_cast<void*>(item.get()));
        return false;
    }
    const auto& images = item->GetImages();
    if (images.empty()) {
        QRB_LOGW("there is no thumbnail to be saved.\n");
        return false;
    }
    if (!images[0]) {
        QRB_LOGW("m_ThumbVector[0] pImage NULL.\n");
        return false;
    }
    const int w = images[0]->GetWidth();
    const int h = images[0]->GetHeight();
    const int d = images[0]->GetDepth();
    if (w <= 0 || h <= 0 || d <= 0 ||
        !SizeStorable(static_cast<uint32_t>(w), static_cast<uint32_t>(h),
                      static_cast<uint32_t>(d))) {
        QRB_LOGW("image size %dx%dx%d cannot be stored\n", w, h, d);
        return false;
    }
    // Every frame is written with the first image's size, so every image must have that size
    // and hold that many bytes; anything else would be read past its end.
    const size_t frameBytes =
        static_cast<size_t>(w) * static_cast<size_t>(h) * static_cast<size_t>(d);
    for (const auto& image : images) {
        if (!image || image->GetBuffer() == nullptr) continue;
        if (image->GetWidth() != w || image->GetHeight() != h || image->GetDepth() != d ||
            (image->GetBufSize() > 0 && static_cast<size_t>(image->GetBufSize()) < frameBytes)) {
            QRB_LOGW("images of different sizes cannot be stored together\n");
            return false;
        }
    }

    // Written under a fresh name and renamed into place: a reader never sees half a file, a
    // failure leaves nothing behind, and a link planted at either name is never followed.
    QRBTempFile file;
    if (!m_CreateBeside(path, file)) {
        QRB_LOGW("Failed to create %s  file.\n", path.c_str());
        return false;
    }
    MtaWriter out(file);
    const unsigned char countTail[2] = {0, 0};
    bool ok = out.Bytes(kMagic, sizeof(kMagic)) && out.Record('F', 'W', static_cast<uint32_t>(w)) &&
              out.Record('F', 'H', static_cast<uint32_t>(h)) &&
              out.Record('F', 'D', static_cast<uint32_t>(d)) &&
              out.Record('F', 'C', static_cast<uint32_t>(images.size())) &&
              out.Bytes(countTail, sizeof(countTail));
    for (size_t i = 0; ok && i < images.size(); ++i) {
        const unsigned char marker[2] = {'F', static_cast<unsigned char>('0' + i)};
        ok = out.Bytes(marker, sizeof(marker));
        // A missing image leaves only its marker; the reader then rejects the file, as it
        // should, since the frame cannot be restored.
        if (!ok || !images[i] || images[i]->GetBuffer() == nullptr) continue;
        unsigned char stamp[4];
        PutU32(stamp,
               static_cast<uint32_t>(static_cast<unsigned long long>(images[i]->GetTimeStamp())));
        ok = out.Bytes(stamp, sizeof(stamp)) && out.Bytes(images[i]->GetBuffer(), frameBytes);
    }
    const unsigned char trailer[2] = {'F', 'E'};
    ok = ok && out.Bytes(trailer, sizeof(trailer)) && fsync(file.Fd()) == 0 && file.Close();
    if (!ok) {
        QRB_LOGW("write %s fail\n", path.c_str());
        return false;
    }
    if (!file.RenameTo(path)) {
        QRB_LOGW("rename to %s fail, errno:%d\n", path.c_str(), file.Error());
        return false;
    }
    QRB_LOGD("m_WriteVideoMtaFile end");
    return true;
}

namespace {

// What the header of an MTA file announces.
struct MtaHeader {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t depth = 0;
    uint32_t count = 0;
};

// Opens an MTA file to read: only a regular file, never through a link, and never blocking on a
// planted FIFO. Null (and its size untouched) when there is none.
QRBScopedFile OpenMtaFile(const std::string& path, struct stat* st) {
    int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0 && (fstat(fd, st) != 0 || !S_ISREG(st->st_mode))) {
        close(fd);
        fd = -1;
    }
    QRBScopedFile file(fd >= 0 ? fdopen(fd, "rb") : nullptr);
    if (!file && fd >= 0) close(fd);
    return file;
}

// Reads and checks the records before the frames. False, with its message, on any mismatch or
// on sizes the reader does not take.
bool ReadMtaHeader(FILE* file, const std::string& path, MtaHeader* header) {
    unsigned char head[kHeaderBytes];
    if (std::fread(head, 1, sizeof(head), file) != sizeof(head)) {
        QRB_LOGW("mta file %s too short\n", path.c_str());
        return false;
    }
    if (std::memcmp(head, kMagic, sizeof(kMagic)) != 0) {
        QRB_LOGW("mta header mismatch\n");
        return false;
    }
    const unsigned char* fields = head + sizeof(kMagic);
    const char letters[4] = {'W', 'H', 'D', 'C'};
    for (int k = 0; k < 4; ++k) {
        if (fields[k * 6] != 'F' || fields[k * 6 + 1] != letters[k]) {
            QRB_LOGW("mta record F%c mismatch\n", letters[k]);
            return false;
        }
    }
    if (fields[24] != 0 || fields[25] != 0) {  // the two bytes after the count
        QRB_LOGW("mta record FC mismatch\n");
        return false;
    }
    header->width = GetU32(fields + 2);
    header->height = GetU32(fields + 6 + 2);
    header->depth = GetU32(fields + 12 + 2);
    header->count = GetU32(fields + 18 + 2);
    QRB_LOGD("image_width=%d, image_height=%d, image_depth=%d, frame_count=%d",
             static_cast<int>(header->width), static_cast<int>(header->height),
             static_cast<int>(header->depth), static_cast<int>(header->count));
    if (!SizeStorable(header->width, header->height, header->depth) || header->count < 1 ||
        header->count > kMaxFrames) {
        QRB_LOGW("get width, height, depth, count fail");
        return false;
    }
    return true;
}

// Reads every frame the header announces, in order, into buffers and stamps.
bool ReadMtaFrames(FILE* file, const MtaHeader& header, unsigned long long frameBytes,
                   std::vector<PixelBuffer>* buffers, std::vector<long long>* stamps) {
    for (uint32_t i = 0; i < header.count; ++i) {
        unsigned char frameHead[kFrameHeadBytes];
        if (std::fread(frameHead, 1, sizeof(frameHead), file) != sizeof(frameHead)) {
            QRB_LOGW("read frame[%d] fail\n", static_cast<int>(i));
            return false;
        }
        if (frameHead[0] != 'F' || frameHead[1] != static_cast<unsigned char>('0' + i)) {
            QRB_LOGW("frame[%d] marker mismatch\n", static_cast<int>(i));
            return false;
        }
        // The low 32 bits of the timestamp, read back as a signed value.
        stamps->push_back(static_cast<long long>(static_cast<int32_t>(GetU32(frameHead + 2))));
        PixelBuffer pixels(static_cast<unsigned char*>(std::malloc(frameBytes)), &std::free);
        if (!pixels) {
            QRB_LOGW("malloc fail, size=%llu\n", frameBytes);
            return false;
        }
        if (std::fread(pixels.get(), 1, frameBytes, file) != frameBytes) {
            QRB_LOGW("read frame[%d] fail\n", static_cast<int>(i));
            return false;
        }
        buffers->push_back(std::move(pixels));
    }
    return true;
}

}  // namespace

bool CQRBThumbnailVideoDecoder::m_ParseVideoMtaFile(_stRequestedItem& request, std::string mediaId,
                                                    boost::intrusive_ptr<CQRBThumbnailItem>& item) {
    if (!item) return false;
    if (mediaId.empty()) {
        QRB_LOGW("media id empty!!\n");
        return false;
    }
    const std::string path = m_VideoMtaPath(mediaId);
    struct stat st {};
    QRBScopedFile file = OpenMtaFile(path, &st);
    if (!file) {
        QRB_LOGW("open %s fail\n", path.c_str());
        return false;
    }
    MtaHeader header;
    if (!ReadMtaHeader(file.get(), path, &header)) return false;

    // At most 5 x (6 + 10^9) bytes: no overflow in 64 bits, and nothing is allocated before the
    // file is known to hold every frame it announces.
    const unsigned long long frameBytes =
        static_cast<unsigned long long>(header.width) * header.height * header.depth;
    const unsigned long long needed = kHeaderBytes + header.count * (kFrameHeadBytes + frameBytes);
    if (static_cast<unsigned long long>(st.st_size) < needed) {
        QRB_LOGW("mta file size %lld is less than %llu for %d frames of %dx%dx%d\n",
                 static_cast<long long>(st.st_size), needed, static_cast<int>(header.count),
                 static_cast<int>(header.width), static_cast<int>(header.height),
                 static_cast<int>(header.depth));
        return false;
    }
    std::vector<PixelBuffer> buffers;
    std::vector<long long> stamps;
    if (!ReadMtaFrames(file.get(), header, frameBytes, &buffers, &stamps)) return false;

    bool added = true;
    for (uint32_t i = 0; i < header.count; ++i) {
        boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
        image->Create(header.width, header.height, header.depth,
                      static_cast<long>(header.width) * 4, buffers[i].release(), stamps[i]);
        // The event path copies no more than this from the buffer.
        image->SetBufSize(static_cast<long>(frameBytes));
        added = item->AddImage(image) && added;
    }
    if (item->GetImageCount() > 0) {
        item->StampRequest(request);
        QRB_LOGD("parse mta success");
    }
    return added;
}
