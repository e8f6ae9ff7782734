// The HTTP variant: web (SNS) pictures and remote device icons. One decode thread and one
// download thread share the variant's list; the download thread parks the bytes of requests
// that want a decoded thumbnail here, in the variant, until the decode thread takes them.
// Cancelling or clearing drops parked bytes together with their requests.
#ifndef QRB_THUMBNAIL_HTTP_IMP_H
#define QRB_THUMBNAIL_HTTP_IMP_H

#include "qrb_thumb_http_decoder.h"
#include "qrb_thumb_http_handle.h"
#include "qrb_thumb_http_parking.h"
#include "qrb_thumbnail_base_imp.h"

#include <memory>
#include <string>

class CQRBThumbnailHttpImp : public CQRBThumbnailBaseImp {
public:
    CQRBThumbnailHttpImp() = default;
    ~CQRBThumbnailHttpImp() override;

    void ClearRequestList() override;
    void CancelRequest(long long rid) override;
    void CancelRequest(std::string url) override;
    bool t_Create() override;
    void t_Destroy() override;
    void RequestStop() override;

    // Requests whose downloaded bytes wait for the decode thread.
    int ParkedCount() { return m_Parking.Count(); }
    CQRBThumbHttpParking* Parking() { return &m_Parking; }

private:
    // Declared first: both threads use it until t_Destroy has stopped them.
    CQRBThumbHttpParking m_Parking;
    std::unique_ptr<CQRBThumbHttpDecoder> m_pDecoder;
    std::unique_ptr<CQRBThumbHttpHandle> m_pHandle;
};

#endif
