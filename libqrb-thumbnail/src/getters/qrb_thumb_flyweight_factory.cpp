#include "qrb_thumb_flyweight_factory.h"

#include "qrb_thumbnail_getter_factory.h"

CQRBThumbFlyWeightFactroy* CQRBThumbFlyWeightFactroy::GetInstance() {
    // Never destroyed: workers of a service being torn down at exit may still ask for getters.
    static CQRBThumbFlyWeightFactroy* instance = new CQRBThumbFlyWeightFactroy;
    return instance;
}

CQRBThumbnailGetter* CQRBThumbFlyWeightFactroy::GetFlyWeight(qrb_media_thumbnail_type type) {
    const int index = static_cast<int>(type);
    if (index < 0 || index >= kKinds) return nullptr;
    CQRBAutoLock lock(m_Mutex);
    if (!m_Getters[index]) {
        m_Getters[index].reset(CQRBThumbnailGetterFactroy::GetInstance()->CreateThumbnailGetter(type));
    }
    return m_Getters[index].get();
}

void CQRBThumbFlyWeightFactroy::Install(qrb_media_thumbnail_type type,
                                       std::unique_ptr<CQRBThumbnailGetter> getter) {
    const int index = static_cast<int>(type);
    if (index < 0 || index >= kKinds) return;
    CQRBAutoLock lock(m_Mutex);
    m_Getters[index] = std::move(getter);
}
