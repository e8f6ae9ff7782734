// The video worker of the single variant. Four instances share the variant's list. Each takes
// one request at a time (GetForSingle with all kinds), grabs frames spread over a video's
// duration through the media decoding table, keeps five-frame results in a video MTA file, and
// hands recordings, PTP and RA requests to the extractor. Every request it takes gets exactly
// one event; kinds it does not serve (the serial picture, music and video kinds among them) get
// status -1. A video that opens but gives no frame at any position is answered with status 0
// and no images (the failure reason says why); one that cannot be opened, with status -1.
//
// Threads: the constructor binds the process-wide media decoding table on the constructing
// thread; everything else but Stop and Destroy runs on the worker thread. Stop only waits for
// the request being served; Destroy ends and joins the thread.
#ifndef QRB_THUMBNAIL_VIDEO_DECODER_H
#define QRB_THUMBNAIL_VIDEO_DECODER_H

#include "qrb_thumbnail_decode_base.h"
#include "qrb_thumbnail_extractor.h"

#include "video-decoder/qrb_thumbnail_ffmpeg_define.h"

#include <atomic>
#include <mutex>
#include <cstdint>
#include <memory>
#include <string>

extern "C" {
struct AVFormatContext;
}

class QRBTempFile;

class CQRBThumbnailVideoDecoder : public QRBThumbnailDecodeBsae {
public:
    // Receives one grabbed frame; see Video_Complete_Cb.
    typedef bool (*FrameCallback)(_stRequestedItem request, unsigned char* argb, char* preset,
                                  long long timestamp, int width, int height, void* user,
                                  boost::intrusive_ptr<CQRBThumbnailItem> item);

    // Binds the media decoding table; never fails.
    CQRBThumbnailVideoDecoder();
    ~CQRBThumbnailVideoDecoder() override;

    using QRBThumbnailDecodeBsae::Create;
    // False for a null list or cache; otherwise the thread start's result.
    bool Create(int n, CQRBThumbRequestList* list, CQRBThumbCache* cache) override;
    // Stops the work in hand: the video being decoded is given up at the grabber's next look
    // (between packets), then Stop waits (10 ms polls) until the request is answered. The thread
    // goes on serving later requests.
    bool Stop() override;
    void Destroy() override;
    void t_Process() override;

    // Makes the frames of one video, through callback (with user) into item.
    bool Extract(_stRequestedItem request, boost::intrusive_ptr<CQRBThumbnailItem> item,
                 FrameCallback callback, void* user);
    // The frame grabber over the media decoding table: FrameCount frames at the positions
    // duration x (i + 1) / (FrameCount + 1), each scaled to cover the requested size and handed
    // to callback with its time stamp in milliseconds from the start of the video stream (the
    // first complete picture from the key frame at or before the position; only key frames for
    // 4K). True when every position was tried, whether or not it gave a frame; false
    // when the table is incomplete, the file cannot be grabbed from, a frame cannot be scaled,
    // or the work was given up (Stop, Destroy).
    bool m_GetFrameFromArcplayer(_stRequestedItem& request,
                                 boost::intrusive_ptr<CQRBThumbnailItem> item,
                                 FrameCallback callback, void* user);
    // A second grabber, over an input opened with m_FFMpegInit: the same positions, reading
    // loop and scaling as m_GetFrameFromArcplayer, calling this library's own FFmpeg functions
    // instead of the plug-ins'. The worker does not use it. The input stays open.
    bool m_GetFrame(AVFormatContext* context, int frameCount, int width, int height,
                    FrameCallback callback, _stRequestedItem& request,
                    boost::intrusive_ptr<CQRBThumbnailItem> item, void* user);
    // Opens a local file only (the file protocol, common video containers, no playlists).
    bool m_FFMpegInit(const char* url, AVFormatContext** context);
    bool m_FFMpegDeInit(AVFormatContext** context);

    // One grabbed frame: argb (malloc'ed, width x height x 4 bytes) belongs to the callback from
    // the call on, whatever it answers — it becomes the image's buffer or is freed. A preset text
    // is copied into the item. The image is centre-cropped to the requested size when it covers
    // it. True when the frame was added to the item (an item holds at most five).
    static bool Video_Complete_Cb(_stRequestedItem request, unsigned char* argb, char* preset,
                                  long long timestamp, int width, int height, void* user,
                                  boost::intrusive_ptr<CQRBThumbnailItem> item);

    // The video MTA file ("video/" + media id + ".mta"), in qrb_thumbnail_video_mta.cpp. A failed
    // write leaves no file; the reader checks every size against the file before allocating.
    bool m_WriteVideoMtaFile(std::string& path, boost::intrusive_ptr<CQRBThumbnailItem>& item);
    bool m_ParseVideoMtaFile(_stRequestedItem& request, std::string mediaId,
                             boost::intrusive_ptr<CQRBThumbnailItem>& item);
    static std::string m_VideoMtaPath(const std::string& mediaId);
    // Creates a fresh temporary file beside path (its name plus ".pid.n.tmp"), to be renamed
    // over path once written.
    static bool m_CreateBeside(const std::string& path, QRBTempFile& file);

    // True when the DRM library can open the file as a protected one.
    bool m_CheckDrm(const char* path);
    bool m_IsFileExist(const char* path);
    bool m_WriteFlashFile(const char* path, const char* data, int size);
    static uint32_t m_TimeTick();

    // Splits a video URL at ";": exactly two parts give a media id and a path; anything else
    // leaves the media id empty and the whole URL as the path. A media id that would leave the
    // video folder (one holding a "/") is dropped.
    static void m_SplitVideoURL(const std::string& url, std::string* mediaId, std::string* path);

    // Binds the plug-ins first if this decoder has not done so yet.
    bool MediaDecodingReady();
    bool Busy() const { return m_bBusy.load(); }
    // True while the grabbers are asked to give up what they decode (Destroy, or Stop during
    // the request being served).
    bool AbandonRequested() const;

private:
    // Serves one request; the caller sends its one event with the item and the answer.
    bool m_Serve(const _stRequestedItem& request, boost::intrusive_ptr<CQRBThumbnailItem>& item);
    bool m_ServeVideo(const _stRequestedItem& request,
                      boost::intrusive_ptr<CQRBThumbnailItem>& item);
    bool m_FindInCache(const _stRequestedItem& request,
                       boost::intrusive_ptr<CQRBThumbnailItem>& item);
    void m_MakeVideoFolder();
    // Steps shared by both grabbers, from the seek check to the release of everything: input is
    // open (and owned here from the call on), request carries FrameCount and the wanted size.
    bool m_GrabFrames(const QRBFFmpegApi& api, QRBFFmpegInput* input, _stRequestedItem& request,
                      boost::intrusive_ptr<CQRBThumbnailItem> item, FrameCallback callback,
                      void* user);

    std::unique_ptr<CQRBThumbnailExtractor> m_pExtractor;
    _stRequestedItem m_CurrentRequest;
    // The plug-in table is bound when this decoder first needs it (its first video), not when
    // it is built: binding loads FFmpeg, which a process that shows no video should not pay
    // for. The binding itself, its messages and the ready flag are as they always were.
    void m_BindMedia();
    std::once_flag m_MediaBound;
    uint8_t m_bMediaReady = 0;
    std::atomic<bool> m_bBusy{false};
    // Stop gives up one request, not the worker: requests are numbered as the worker takes
    // them, and Stop names the one in hand.
    std::atomic<uint64_t> m_nServing{0};
    std::atomic<uint64_t> m_nAbandoned{UINT64_MAX};
};

#endif
