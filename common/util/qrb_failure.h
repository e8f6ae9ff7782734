// Why the request a thread is serving failed, in words for the person who asked.
//
// The place that finds a failure notes it; the worker serving the request clears the note
// before each request; the application reads it from inside its failure callback
// (thumbnail_failure_reason), which runs on that same thread. Only the first note of a request
// is kept: it is the cause, and what fails after it is a consequence.
#ifndef QRB_COMMON_FAILURE_H
#define QRB_COMMON_FAILURE_H

#include <string>

enum class QRBFailure {
    kNoSuchFile,
    kPermissionDenied,
    kUnreadable,      // detail: what the system said
    kUnknownFormat,
    kDamaged,
    kTooLarge,
    kNoCoverArt,
    kNoFrame,
    kProtected,
    kNoPlugins,
    kTimedOut,
    kDownloadFailed,  // detail: the HTTP status or the transfer's error
    kDeviceFailed,    // detail: what the device said
    kScratch,         // its own scratch files could not be written
    kNoKeyFrames,     // a recording whose recorder left no key frames
};

void QRBNoteFailure(QRBFailure reason, const std::string& detail = std::string());
// A failed open or read of the item's own file, by its errno.
void QRBNoteFileFailure(int error);
void QRBClearFailure();
// The note of this thread's request, or null when nothing was noted.
const char* QRBFailureText();

#endif
