// The single variant: four video workers sharing one list, for video, recordings, PTP and RA
// items and the serial device range.
#ifndef QRB_THUMBNAIL_SINGLE_IMP_H
#define QRB_THUMBNAIL_SINGLE_IMP_H

#include "qrb_thumbnail_base_imp.h"

class CQRBThumbnailVideoDecoder;

class CQRBThumbnailSingleImp : public CQRBThumbnailBaseImp {
public:
    static constexpr int kWorkers = 4;

    ~CQRBThumbnailSingleImp() override;
    // Drops every queued request without callbacks, then waits for worker 0 only (the other
    // three are deliberately not asked).
    void StopThumbDecoding(bool sync) override;
    bool t_Create() override;
    void t_Destroy() override;
    void RequestStop() override;

    CQRBThumbnailVideoDecoder* Worker(int slot) { return m_pWorkers[slot]; }

private:
    CQRBThumbnailVideoDecoder* m_pWorkers[kWorkers] = {nullptr, nullptr, nullptr, nullptr};
};

#endif
