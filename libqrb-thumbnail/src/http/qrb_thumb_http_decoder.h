// The HTTP variant's decode thread. It takes requests in ITEM_WAITING and ITEM_DOWNLOADED with
// GetForHttpDecode (they become ITEM_DECODING and ITEM_DECODING_DOWNLOADED). A fresh request
// is answered from the cache when the caller allows it and a fitting entry exists; otherwise it
// goes to the download thread (ITEM_WAIT_DOWNLOAD). A downloaded request's parked bytes are
// turned into a thumbnail by the getter of its kind (the extractor's buffer form); fresh results
// are cached for callers that use the cache; the answer goes out through SendEvent, status -1
// for every failure.
//
// Threads: Create and Destroy run on the controlling thread, the rest on the decode thread.
// Destroy waits for at most one poll period or one decode. Every request the thread takes from
// ITEM_DOWNLOADED, or answers from the cache, gets exactly one event (delivered if it is still
// listed), also when a getter throws.
#ifndef QRB_THUMB_HTTP_DECODER_H
#define QRB_THUMB_HTTP_DECODER_H

#include "qrb_thumb_http_parking.h"
#include "qrb_thumbnail_decode_base.h"
#include "qrb_thumbnail_extractor.h"

#include <memory>

class CQRBThumbHttpDecoder : public QRBThumbnailDecodeBsae {
public:
    // parking (not owned) must outlive the thread.
    explicit CQRBThumbHttpDecoder(CQRBThumbHttpParking* parking);
    ~CQRBThumbHttpDecoder() override;
    CQRBThumbHttpDecoder(const CQRBThumbHttpDecoder&) = delete;
    CQRBThumbHttpDecoder& operator=(const CQRBThumbHttpDecoder&) = delete;

    using QRBThumbnailDecodeBsae::Create;
    bool Create(CQRBThumbRequestList* list, CQRBThumbCache* cache) override;
    void Destroy() override;
    void t_Process() override;
    bool m_SendDoneEvent(const _stRequestedItem* req, boost::intrusive_ptr<CQRBThumbnailItem> item,
                         bool ok) override;

private:
    void m_Serve(const _stRequestedItem& request);
    // True when the request was answered from the cache.
    bool m_AnswerFromCache(const _stRequestedItem& request);
    void m_Decode(const _stRequestedItem& request, std::string& bytes);

    CQRBThumbHttpParking* m_pParking;
    std::unique_ptr<CQRBThumbnailExtractor> m_pExtractor;
};

#endif
