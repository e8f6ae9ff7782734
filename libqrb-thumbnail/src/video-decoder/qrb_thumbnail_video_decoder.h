// The video worker of the single variant. Four instances share the variant's list. Each takes
// one request at a time (GetForSingle with all kinds), grabs frames spread over a video's
// duration through the media decoding table, keeps five-frame results in a video MTA file, and
// hands recordings, PTP and RA requests to the extractor. Every request it takes gets exactly
// one event; kinds it does not serve get status -1.
#ifndef QRB_THUMBNAIL_VIDEO_DECODER_H
#define QRB_THUMBNAIL_VIDEO_DECODER_H

#include "qrb_thumbnail_decode_base.h"
#include "qrb_thumbnail_extractor.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

extern "C" {
struct AVFormatContext;
}

class CQRBThumbnailVideoDecoder : public QRBThumbnailDecodeBsae {
public:
    // Receives one grabbed frame; see Video_Complete_Cb.
    typedef bool (*FrameCallback)(_stRequestedItem request, unsigned char* argb, char* preset,
                                  long long timestamp, int width, int height, void* user,
                                  boost::intrusive_ptr<CQRBThumbnailItem> item);

    CQRBThumbnailVideoDecoder();
    ~CQRBThumbnailVideoDecoder() override;

    using QRBThumbnailDecodeBsae::Create;
    // Returns false (the spec's 0) for a null list or cache; otherwise the thread start's result.
    bool Create(int n, CQRBThumbRequestList* list, CQRBThumbCache* cache) override;
    // Waits (10 ms polls) until the request being served is finished.
    bool Stop() override;
    void Destroy() override;
    void t_Process() override;

    bool Extract(_stRequestedItem request, boost::intrusive_ptr<CQRBThumbnailItem> item,
                 FrameCallback callback, void* user);
    bool m_GetFrameFromArcplayer(_stRequestedItem& request,
                                 boost::intrusive_ptr<CQRBThumbnailItem> item,
                                 FrameCallback callback, void* user);
    bool m_GetFrame(AVFormatContext* context, int frameCount, int width, int height,
                    FrameCallback callback, _stRequestedItem& request,
                    boost::intrusive_ptr<CQRBThumbnailItem> item, void* user);
    bool m_FFMpegInit(const char* url, AVFormatContext** context);
    bool m_FFMpegDeInit(AVFormatContext** context);

    static bool Video_Complete_Cb(_stRequestedItem request, unsigned char* argb, char* preset,
                                  long long timestamp, int width, int height, void* user,
                                  boost::intrusive_ptr<CQRBThumbnailItem> item);

    bool m_WriteVideoMtaFile(std::string& path, boost::intrusive_ptr<CQRBThumbnailItem>& item);
    bool m_ParseVideoMtaFile(_stRequestedItem& request, std::string mediaId,
                             boost::intrusive_ptr<CQRBThumbnailItem>& item);
    bool m_CheckDrm(const char* path);
    bool m_IsFileExist(const char* path);
    bool m_WriteFlashFile(const char* path, const char* data, int size);
    static uint32_t m_TimeTick();

    bool MediaDecodingReady() const { return m_bMediaReady != 0; }
    bool Busy() const { return m_bBusy.load(); }

private:
    // Serves one request taken from the list and sends its one event.
    void m_Serve(_stRequestedItem& request);

    std::unique_ptr<CQRBThumbnailExtractor> m_pExtractor;
    _stRequestedItem m_CurrentRequest;
    uint8_t m_bMediaReady = 0;
    std::atomic<bool> m_bBusy{false};
};

#endif
