// One run of the video worker's frame grabber over a media decoding table: the request's
// positions, each read the way the video worker always has (the key frame at or before the
// position, then the packets after it until a picture is complete; key frames only for 4K),
// with fall-backs where that gives no picture, and each picture brought to the request as a
// player shows it: its sample aspect ratio and display matrix applied, scaled to cover the
// wanted size in the stream's own colours (the scaler plug-in's part), then handed to the
// callback, which crops the centre.
//
// Fall-backs, within a bound of decoded packets for each: when the key frame at or before a
// position gives no picture (a transport stream's seek that lands past the last key frame, a
// stream with a single key frame, an open GOP whose pictures need references before the seek
// point), the grabber decodes on from an earlier key frame, a few seconds before the position
// and then from the start, to the picture at the position, as a player seeking there does; a
// stream whose length nobody can tell is read from the start.
//
// Used by one thread at a time; owns the input from construction on and releases everything
// (frames, packet, codec, input) when it goes.
#ifndef QRB_VIDEO_FRAME_GRABBER_H
#define QRB_VIDEO_FRAME_GRABBER_H

#include "video-decoder/qrb_thumbnail_ffmpeg_define.h"
#include "video-decoder/qrb_thumbnail_video_decoder.h"

#include <functional>
#include <memory>

extern "C" {
struct AVFrame;
struct AVPacket;
}

class QRBVideoFrameGrabber {
public:
    using FrameCallback = CQRBThumbnailVideoDecoder::FrameCallback;

    // input is open and owned from here on; abandoned is polled between packets.
    QRBVideoFrameGrabber(const QRBFFmpegApi& api, QRBFFmpegInput* input,
                         const _stRequestedItem& request,
                         boost::intrusive_ptr<CQRBThumbnailItem> item, FrameCallback callback,
                         void* user, std::function<bool()> abandoned);
    ~QRBVideoFrameGrabber();
    QRBVideoFrameGrabber(const QRBVideoFrameGrabber&) = delete;
    QRBVideoFrameGrabber& operator=(const QRBVideoFrameGrabber&) = delete;

    // Every position in turn. True when every position was tried, however many gave a frame;
    // false when the input cannot be grabbed from, a frame cannot be scaled, or the work was
    // given up.
    bool Run();

private:
    struct Resources;

    bool m_Open();
    bool m_OpenCodec();
    // Pictures above 2 x 1080p are decoded one at a time across the workers.
    bool m_WaitForLargeDecode();
    void m_FreeLargeDecode();
    // One position: its picture (owned by the grabber), or null.
    AVFrame* m_TakePosition(int i);
    // The key frame at or before the position, then on until a picture is complete.
    bool m_ReadFromKeyFrame(int i);
    bool m_Drain();
    AVFrame* m_FallBack(int i, long long targetUs);
    AVFrame* m_DecodeOnward(long long targetUs);
    bool m_ReadVideoPacket();
    long long m_PictureTimeUs(const AVFrame* picture) const;
    // Brings the picture to the request and hands it to the callback.
    bool m_Deliver(int i, AVFrame* picture);
    void m_ShownSize(const AVFrame* picture, long long* width, long long* height) const;
    unsigned char* m_Scale(AVFrame* picture, int width, int height);
    unsigned char* m_Turn(unsigned char* buffer, int width, int height);

    const QRBFFmpegApi& m_Api;
    const _stRequestedItem m_Request;
    boost::intrusive_ptr<CQRBThumbnailItem> m_Item;
    FrameCallback m_Callback;
    void* m_User;
    std::function<bool()> m_Abandoned;
    std::unique_ptr<Resources> m_Res;
    bool m_HoldsLargeDecode = false;
    bool m_Is4K = false;
    long long m_Step = 0;
    int m_ForwardBudget = 0;
};

#endif
