#include "qrb_thumb_http_handle.h"

#include "qrb_failure.h"
#include "qrb_log.h"

#include <unistd.h>

#include <exception>
#include <mutex>

namespace {

// libcurl's global state is set up once, before the first transfer, and kept for the life of
// the process.
void EnsureCurlGlobalInit() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

unsigned long HandleId(CURL* easy) { return reinterpret_cast<unsigned long>(easy); }
CURL* HandleFromId(unsigned long handle) { return reinterpret_cast<CURL*>(handle); }

}  // namespace

CQRBThumbHttpHandle::CQRBThumbHttpHandle(CQRBThumbHttpParking* parking) : m_pParking(parking) {}

CQRBThumbHttpHandle::~CQRBThumbHttpHandle() { Destroy(); }

bool CQRBThumbHttpHandle::Create(CQRBThumbRequestList* list, CQRBThumbCache* cache) {
    if (list == nullptr || cache == nullptr || m_pParking == nullptr) {
        QRB_LOGW("[%s][create failed]", __func__);
        return false;
    }
    EnsureCurlGlobalInit();
    m_pList = list;
    m_pCache = cache;
    m_bStop = false;
    if (!CQRBThread::Create("QRBThumbHttpDL")) {
        QRB_LOGW("[%s][create failed]", __func__);
        return false;
    }
    return true;
}

void CQRBThumbHttpHandle::Destroy() {
    if (!FlagCreate()) return;
    QRB_LOGD("[%s][%d]", __func__, __LINE__);
    RequestStop();
    CQRBThread::Destroy();
}

void CQRBThumbHttpHandle::RequestStop() {
    QRBThumbnailDecodeBsae::RequestStop();
    // A thread waiting for socket activity is woken as well.
    CQRBAutoLock lock(m_MultiMutex);
    if (m_pMulti) curl_multi_wakeup(m_pMulti.get());
}

bool CQRBThumbHttpHandle::m_SendDoneEvent(const _stRequestedItem* req,
                                          boost::intrusive_ptr<CQRBThumbnailItem> item, bool ok) {
    return t_SendEvent(req, std::move(item), ok);
}

bool CQRBThumbHttpHandle::m_SendEventWithBuffer(const _stRequestedItem* req,
                                                boost::intrusive_ptr<CQRBThumbnailItem> item,
                                                bool ok) {
    if (req == nullptr || m_pList == nullptr) return false;
    if (!ok || !item) return m_SendDoneEvent(req, nullptr, false);

    if (req->bRequestBuffer) {
        const bool delivered =
            m_pList->SendEventWithBuffer(req->user_data, req->strURL, req->callback, item, true);
        if (!delivered)
            QRB_LOGD("result not delivered (request gone or no callback), url=%s",
                     req->strURL.c_str());
        return delivered;
    }

    // The bytes are parked before the request moves to ITEM_DOWNLOADED, so the decode thread
    // always finds them. A cancel or clear may remove the request at any point of this
    // sequence; it drops parked bytes after removing the request, and whatever it missed is
    // unparked here once the request is seen gone.
    m_pParking->Park(*req, item->GetData(), m_nAnsweredStatus);
    m_pList->ChangeItemState(*req, ITEM_DOWNLOADED);
    if (!m_pList->Contains(*req)) {
        m_pParking->Drop(*req);
        QRB_LOGD("request gone while downloading, bytes dropped, url=%s", req->strURL.c_str());
        return false;
    }
    return true;
}

CQRBThumbHttpRequest* CQRBThumbHttpHandle::m_FindActive(CURL* easy) {
    for (const auto& request : m_Active) {
        if (request->GetCurlHandle() == easy) return request.get();
    }
    return nullptr;
}

CURL* CQRBThumbHttpHandle::m_AddHandle(_stRequestedItem item) {
    if (!m_pMulti) return nullptr;
    try {
        boost::intrusive_ptr<CQRBThumbHttpRequest> request(new CQRBThumbHttpRequest);
        if (!request->Init(item)) return nullptr;
        CURL* easy = request->GetCurlHandle();
        // Room first, so that nothing can fail once the multi handle holds the easy handle.
        m_Active.reserve(m_Active.size() + 1);
        const CURLMcode mc = curl_multi_add_handle(m_pMulti.get(), easy);
        if (mc != CURLM_OK) {
            QRB_LOGW("curl_multi_add_handle fail: %d, url=%s", static_cast<int>(mc),
                     item.strURL.c_str());
            return nullptr;
        }
        m_Active.push_back(request);
        return easy;
    } catch (const std::exception& e) {
        QRB_LOGW("Exception caught: %s, url=%s", e.what(), item.strURL.c_str());
        return nullptr;
    }
}

void CQRBThumbHttpHandle::m_RemoveHandle(unsigned long handle) {
    CURL* easy = HandleFromId(handle);
    if (m_pMulti) curl_multi_remove_handle(m_pMulti.get(), easy);
    for (auto it = m_Active.begin(); it != m_Active.end(); ++it) {
        if ((*it)->GetCurlHandle() == easy) {
            m_Active.erase(it);  // the last reference: the easy handle is cleaned up here
            return;
        }
    }
}

void CQRBThumbHttpHandle::m_SendEvent(unsigned long handle) {
    CQRBThumbHttpRequest* request = m_FindActive(HandleFromId(handle));
    if (request == nullptr) return;
    const _stRequestedItem req = request->GetRequestItem();
    m_SendDoneEvent(&req, nullptr, false);
}

bool CQRBThumbHttpHandle::m_ProcessJob() {
    const size_t n = m_Active.size();
    if (n >= kMaxTransfers) return true;
    // A failed add deliberately uses up a slot of this pass, like a started one.
    for (size_t pass = n; pass < kMaxTransfers; ++pass) {
        _stRequestedItem request;
        if (!m_pList->GetForHttpDownLoad(&request)) return !m_Active.empty();
        if (m_AddHandle(request) == nullptr) {
            m_SendDoneEvent(&request, nullptr, false);
            QRB_LOGW("*********m_AddHandle fail**********\n");
        }
    }
    return !m_Active.empty();
}

void CQRBThumbHttpHandle::m_OnTransferDone(CURL* easy, CURLcode result) {
    const unsigned long handle = HandleId(easy);
    char* priv = nullptr;
    long statusCode = 0;
    CURLcode info = curl_easy_getinfo(easy, CURLINFO_PRIVATE, &priv);
    if (info == CURLE_OK) info = curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &statusCode);
    CQRBThumbHttpRequest* request = reinterpret_cast<CQRBThumbHttpRequest*>(priv);
    if (info != CURLE_OK || request == nullptr || request != m_FindActive(easy)) {
        QRB_LOGW(
            "*********curl_easy_getinfo CURLINFO_PRIVATE fail, data.result=%d, getinfo "
            "result=%d, status code=%ld***\n",
            static_cast<int>(result), static_cast<int>(info), statusCode);
        m_SendEvent(handle);
        m_RemoveHandle(handle);
        usleep(100000);
        return;
    }

    const _stRequestedItem req = request->GetRequestItem();
    QRBClearFailure();
    m_nAnsweredStatus = statusCode;
    try {
        QRB_LOGD("Download file url=%s", req.strURL.c_str());
        curl_off_t declared = -1;
        curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &declared);
        QRB_LOGD("*********DownloadFileLenth %0.0f**********\n", static_cast<double>(declared));
        const size_t received = request->DownloadedBytes();
        if (declared >= 0 && static_cast<curl_off_t>(received) < declared) {
            QRB_LOGW("*********Not Fully Downloaded download size = %d**********\n",
                     static_cast<int>(received));
        }
        // The peer closed the connection before the length it declared: what came is handed
        // on like any body (a cut picture then fails in the decoder, a whole one decodes).
        const bool endedShort = result == CURLE_PARTIAL_FILE;

        boost::intrusive_ptr<CQRBThumbnailItem> item;
        if (result == CURLE_OK || endedShort) {
            item = new CQRBThumbnailItem;
            item->StampRequest(req);
            item->SetData(request->TakeDownloadBuff());
        } else {
            if (result == CURLE_OPERATION_TIMEDOUT) {
                QRBNoteFailure(QRBFailure::kTimedOut);
            } else {
                QRBNoteFailure(QRBFailure::kDownloadFailed, curl_easy_strerror(result));
            }
            QRB_LOGW("transfer failed: result=%d (%s), status code=%ld, url=%s",
                     static_cast<int>(result), curl_easy_strerror(result), statusCode,
                     req.strURL.c_str());
        }
        if (!item) QRB_LOGW("pThumbItem is NULL\n");
        m_SendEventWithBuffer(&req, item, item != nullptr);
    } catch (const std::exception& e) {
        // Nothing above throws after the event went out, so the request is still unanswered.
        QRB_LOGW("Exception caught: %s, url=%s", e.what(), req.strURL.c_str());
        m_SendDoneEvent(&req, nullptr, false);
    }
    m_RemoveHandle(handle);
}

void CQRBThumbHttpHandle::m_ReadMessages() {
    int pending = 0;
    while (CURLMsg* msg = curl_multi_info_read(m_pMulti.get(), &pending)) {
        if (msg->msg != CURLMSG_DONE) continue;
        // Copied out first: the message is invalid once its handle is removed.
        CURL* easy = msg->easy_handle;
        const CURLcode result = msg->data.result;
        m_OnTransferDone(easy, result);
    }
}

void CQRBThumbHttpHandle::m_StopAll() {
    while (!m_Active.empty()) {
        CURL* easy = m_Active.back()->GetCurlHandle();
        QRB_LOGD("transfer stopped before its end, url=%s",
                 m_Active.back()->GetRequestItem().strURL.c_str());
        m_SendEvent(HandleId(easy));
        m_RemoveHandle(HandleId(easy));
    }
}

void CQRBThumbHttpHandle::t_Process() {
    QRB_LOGD("[QRB][EST]t_Process begin");
    {
        CQRBAutoLock lock(m_MultiMutex);
        m_pMulti.reset(curl_multi_init());
    }
    if (m_pMulti) {
        curl_multi_setopt(m_pMulti.get(), CURLMOPT_MAXCONNECTS, kMaxConnects);
    } else {
        // Every request taken is then answered as a failed add.
        QRB_LOGW("curl_multi_init fail");
    }

    for (;;) {
        // Count before flag, as in every worker loop: no stop or new work is slept through.
        const unsigned seen = m_pList->ChangeCount();
        if (m_bStop) break;
        bool active = false;
        try {
            active = m_ProcessJob();
        } catch (const std::exception& e) {
            QRB_LOGW("Exception caught: %s", e.what());
            active = !m_Active.empty();
        }
        if (!active) {
            m_WaitForWork(seen);
            continue;
        }
        int running = 0;
        CURLMcode mc;
        do {
            mc = curl_multi_perform(m_pMulti.get(), &running);
        } while (mc == CURLM_CALL_MULTI_PERFORM);
        if (mc != CURLM_OK) QRB_LOGW("curl_multi_perform fail: %d", static_cast<int>(mc));
        m_ReadMessages();
        // Waits for socket activity instead of spinning on perform; libcurl shortens the wait
        // when one of its own timers is due sooner.
        if (!m_Active.empty() && !m_bStop) {
            curl_multi_poll(m_pMulti.get(), nullptr, 0, kPollMs, nullptr);
        }
    }

    m_StopAll();
    CQRBAutoLock lock(m_MultiMutex);
    m_pMulti.reset();
    QRB_LOGD("[QRB][EST]t_Process end");
}
