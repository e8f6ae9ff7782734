// Keeps one shared getter per thumbnail kind (0 to 16), so that workers never make getters per
// request. The class name is spelled so deliberately.
#ifndef QRB_THUMB_FLYWEIGHT_FACTORY_H
#define QRB_THUMB_FLYWEIGHT_FACTORY_H

#include "qrb_mutex.h"
#include "qrb_thumbnail.h"
#include "qrb_thumbnail_getter.h"

#include <memory>

class CQRBThumbFlyWeightFactroy {
public:
    static CQRBThumbFlyWeightFactroy* GetInstance();
    // The shared getter of type, made on first use; null for a type above 16 or without one
    // (a null is asked for again next time).
    CQRBThumbnailGetter* GetFlyWeight(qrb_media_thumbnail_type type);
    // Installs a program's own getter for a kind, replacing the shared one (null puts the
    // factory's back on the next request). Tests use it for the reserved kinds; it must not
    // race with workers using the getter it replaces.
    void Install(qrb_media_thumbnail_type type, std::unique_ptr<CQRBThumbnailGetter> getter);

private:
    CQRBThumbFlyWeightFactroy() = default;
    static constexpr int kKinds = 17;
    CQRBMutex m_Mutex;
    std::unique_ptr<CQRBThumbnailGetter> m_Getters[kKinds];
};

#endif
