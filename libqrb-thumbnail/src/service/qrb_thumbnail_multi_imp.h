// The multi variant: two general workers in parallel for pictures, music, DLNA and SCSA items
// and local device icons.
#ifndef QRB_THUMBNAIL_MULTI_IMP_H
#define QRB_THUMBNAIL_MULTI_IMP_H

#include "qrb_thumbnail_base_imp.h"
#include "qrb_thumbnail_decode_base.h"

#include <vector>

class CQRBThumbnailMultiImp : public CQRBThumbnailBaseImp {
public:
    static constexpr int kWorkers = 2;

    ~CQRBThumbnailMultiImp() override;
    boost::intrusive_ptr<CQRBThumbnailItem> RequestThumbnail(_stRequestedItem item, bool flag) override;
    bool t_Create() override;
    void t_Destroy() override;
    void RequestStop() override;

    int WorkerCount() const { return static_cast<int>(m_Workers.size()); }

private:
    std::vector<QRBThumbnailDecodeBsae*> m_Workers;  // owned; deleted by t_Destroy
    QRBThumbnailDecodeBsae* m_pLast = nullptr;
};

#endif
