#include "qrb_failure.h"

#include <cerrno>
#include <cstring>

namespace {

thread_local bool t_Noted = false;
thread_local std::string t_Text;

const char* Words(QRBFailure reason) {
    switch (reason) {
        case QRBFailure::kNoSuchFile: return "no such file";
        case QRBFailure::kPermissionDenied: return "permission denied";
        case QRBFailure::kUnreadable: return "cannot read the file";
        case QRBFailure::kUnknownFormat: return "not a format it reads";
        case QRBFailure::kDamaged: return "damaged file";
        case QRBFailure::kTooLarge: return "too large";
        case QRBFailure::kNoCoverArt: return "no cover art";
        case QRBFailure::kNoFrame: return "no frame could be decoded";
        case QRBFailure::kProtected: return "protected video";
        case QRBFailure::kNoPlugins: return "media plug-ins missing";
        case QRBFailure::kTimedOut: return "timed out";
        case QRBFailure::kDownloadFailed: return "download failed";
        case QRBFailure::kDeviceFailed: return "the device did not deliver it";
        case QRBFailure::kScratch: return "cannot write its scratch files";
        case QRBFailure::kNoKeyFrames: return "no key frames recorded for it";
    }
    return "failed";
}

}  // namespace

void QRBNoteFailure(QRBFailure reason, const std::string& detail) {
    if (t_Noted) return;
    t_Noted = true;
    t_Text = Words(reason);
    if (!detail.empty()) t_Text += " (" + detail + ")";
}

void QRBNoteFileFailure(int error) {
    switch (error) {
        case ENOENT:
        case ENOTDIR: QRBNoteFailure(QRBFailure::kNoSuchFile); break;
        case EACCES:
        case EPERM: QRBNoteFailure(QRBFailure::kPermissionDenied); break;
        default: QRBNoteFailure(QRBFailure::kUnreadable, std::strerror(error)); break;
    }
}

void QRBClearFailure() {
    t_Noted = false;
    t_Text.clear();
}

const char* QRBFailureText() { return t_Noted ? t_Text.c_str() : nullptr; }
