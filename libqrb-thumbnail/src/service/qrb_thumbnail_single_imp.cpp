#include "qrb_thumbnail_single_imp.h"

#include "qrb_log.h"
#include "video-decoder/qrb_thumbnail_video_decoder.h"

CQRBThumbnailSingleImp::~CQRBThumbnailSingleImp() { t_Destroy(); }

void CQRBThumbnailSingleImp::StopThumbDecoding(bool) {
    ClearRequestList();
    if (m_pWorkers[0] != nullptr) m_pWorkers[0]->Stop();
}

bool CQRBThumbnailSingleImp::t_Create() {
    for (int slot = 0; slot < kWorkers; ++slot) {
        CQRBThumbnailVideoDecoder* worker = new CQRBThumbnailVideoDecoder;
        if (!worker->Create(slot, &m_RequestList, m_pCache)) {
            QRB_LOGW("video decoder %d failed to start", slot);
            delete worker;
            m_pWorkers[slot] = nullptr;
            return false;
        }
        m_pWorkers[slot] = worker;
    }
    return true;
}

void CQRBThumbnailSingleImp::t_Destroy() {
    for (CQRBThumbnailVideoDecoder*& worker : m_pWorkers) {
        if (worker == nullptr) continue;
        worker->Destroy();
        delete worker;
        worker = nullptr;
    }
}

void CQRBThumbnailSingleImp::RequestStop() {
    for (CQRBThumbnailVideoDecoder* worker : m_pWorkers) {
        if (worker != nullptr) worker->RequestStop();
    }
}
