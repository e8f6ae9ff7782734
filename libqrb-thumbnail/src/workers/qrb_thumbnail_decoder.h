// The general worker of the multi variant: polls its list every 50 ms, answers from the cache
// when the caller allows it, otherwise runs the getter of the request's kind, caches fresh
// results for callers that use the cache, and reports every request it takes exactly once —
// also when something throws inside.
#ifndef QRB_THUMBNAIL_DECODER_H
#define QRB_THUMBNAIL_DECODER_H

#include "qrb_thumbnail_decode_base.h"
#include "qrb_thumbnail_extractor.h"

#include <memory>

class CQRBThumbnailDecoder : public QRBThumbnailDecodeBsae {
public:
    CQRBThumbnailDecoder() = default;
    ~CQRBThumbnailDecoder() override;

    using QRBThumbnailDecodeBsae::Create;
    bool Create(int n, CQRBThumbRequestList* list, CQRBThumbCache* cache) override;
    void Destroy() override;
    void t_Process() override;
    bool m_SendDoneEvent(const _stRequestedItem* req, boost::intrusive_ptr<CQRBThumbnailItem> item,
                         bool ok) override;

    int Number() const { return m_nNumber; }

private:
    void m_Serve(const _stRequestedItem& request);

    std::unique_ptr<CQRBThumbnailExtractor> m_pExtractor;
    int m_nNumber = 0;
};

#endif
