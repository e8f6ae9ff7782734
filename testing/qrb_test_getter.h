// A getter for the reserved kinds that does what its URL says, so that the workers, the cache
// and the event path can be exercised before (and independently of) the real getters:
//   "ok:WxH"       one blank W x H image
//   "throw"        throws std::runtime_error
//   "gate[:...]"   waits until the gate opens, then behaves as the rest ("gate:ok:2x2")
//   "frames"       as many 1 x 1 images as the request's frame count
//   anything else  a null item
// Requests are counted; the last orientation seen is kept.
#ifndef QRB_TESTING_GETTER_H
#define QRB_TESTING_GETTER_H

#include "qrb_thumbnail_getter.h"

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace qrbtest {

class ScriptedGetter : public CQRBThumbnailGetter {
public:
    boost::intrusive_ptr<CQRBThumbnailItem> ExtractThumbnail(_stExtractInfo info) override;
    const char* T_CONVERTURITOPATH(const char* uri) override { return uri; }

    void OpenGate();
    // Waits until n extractions are blocked at the gate.
    bool WaitForBlocked(int n, int timeoutMs);

    std::atomic<int> calls{0};
    std::atomic<int> lastOrientation{-1};

private:
    boost::intrusive_ptr<CQRBThumbnailItem> m_Run(const std::string& script,
                                                  const _stExtractInfo& info);
    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    bool m_bOpen = false;
    int m_nBlocked = 0;
};

// Installs a fresh ScriptedGetter for kind (7, 8 or 9) and returns it (owned by the factory).
ScriptedGetter* InstallScriptedGetter(qrb_media_thumbnail_type kind);

}  // namespace qrbtest

#endif
