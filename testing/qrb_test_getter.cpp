#include "qrb_test_getter.h"

#include "qrb_thumb_flyweight_factory.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace qrbtest {

namespace {
bool StartsWith(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

// Blank pixels; image i of an item is stamped at (i + 1) seconds.
boost::intrusive_ptr<CQRBThumbImage> MakeImage(int width, int height, int index) {
    boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
    image->Create(width, height, 4, width * 4,
                  static_cast<unsigned char*>(calloc(static_cast<size_t>(width) * height, 4)),
                  1000LL * (index + 1));
    image->SetBufSize(static_cast<long>(width) * height * 4);
    return image;
}
}  // namespace

boost::intrusive_ptr<CQRBThumbnailItem> ScriptedGetter::ExtractThumbnail(_stExtractInfo info) {
    ++calls;
    lastOrientation = info.nOrientation;
    // The script is the text after the last '/', so callers can make URLs unique.
    std::string script = info.strURL.substr(info.strURL.rfind('/') + 1);
    return m_Run(script, info);
}

boost::intrusive_ptr<CQRBThumbnailItem> ScriptedGetter::m_Run(const std::string& script,
                                                              const _stExtractInfo& info) {
    if (StartsWith(script, "gate")) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        ++m_nBlocked;
        m_Cond.notify_all();
        m_Cond.wait(lock, [&] { return m_bOpen; });
        --m_nBlocked;
        lock.unlock();
        return m_Run(script.size() > 5 ? script.substr(5) : "ok:1x1", info);
    }
    if (StartsWith(script, "throw")) throw std::runtime_error("scripted failure");
    if (StartsWith(script, "frames")) {
        boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
        for (int i = 0; i < info.FrameCount; ++i) item->AddImage(MakeImage(1, 1, i));
        item->SetSize(4);
        return item;
    }
    int width = 1, height = 1;
    if (std::sscanf(script.c_str(), "ok:%dx%d", &width, &height) == 2)
        return t_PackImage(MakeImage(width, height, 0));
    return nullptr;
}

void ScriptedGetter::OpenGate() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_bOpen = true;
    m_Cond.notify_all();
}

bool ScriptedGetter::WaitForBlocked(int n, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_Mutex);
    return m_Cond.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                           [&] { return m_nBlocked >= n; });
}

ScriptedGetter* InstallScriptedGetter(qrb_media_thumbnail_type kind) {
    auto* getter = new ScriptedGetter;
    CQRBThumbFlyWeightFactroy::GetInstance()->Install(kind,
                                                      std::unique_ptr<CQRBThumbnailGetter>(getter));
    return getter;
}

}  // namespace qrbtest
