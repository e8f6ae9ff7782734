// The media-sharing library's download service: fetches a file that a media server offers (an
// item's side file of chapter pictures, for instance) to a local path, asynchronously.
//
// Contract
//  - asf_provider_download copies its strings and returns at once: 0 when the request was
//    accepted, -1 when it was refused (a null argument, a URI that is not http:// or https://,
//    no thread to run it). A refused request gets no callback at all.
//  - After 0, the callback runs on the download's own thread, never on the caller's: any number
//    of progress calls (state ASF_PROVIDER_DOWNLOAD_STARTED or ASF_PROVIDER_DOWNLOAD_PROGRESS)
//    and then exactly one final call, state ASF_PROVIDER_DOWNLOAD_COMPLETED or
//    ASF_PROVIDER_DOWNLOAD_ERROR. The final call is the last use of user_data.
//  - The body is written to a new file beside dlpath, created exclusively, and renamed to dlpath
//    only when it is complete, before the COMPLETED call; on ERROR nothing is left behind and a
//    file already at dlpath is untouched. An HTTP answer of 400 or above is an error.
//  - The status record lives only for the duration of the call.
#ifndef QRB_PLATFORM_ASF_PROVIDER_H
#define QRB_PLATFORM_ASF_PROVIDER_H

#ifdef __cplusplus
extern "C" {
#endif

#define ASF_PROVIDER_DOWNLOAD_STARTED 1   /* the transfer has begun */
#define ASF_PROVIDER_DOWNLOAD_PROGRESS 2  /* bytes arrived */
#define ASF_PROVIDER_DOWNLOAD_COMPLETED 3 /* the whole file lies at dlpath */
#define ASF_PROVIDER_DOWNLOAD_ERROR 5     /* the download failed; nothing was written */

typedef struct {
    int state;     /* one of the ASF_PROVIDER_DOWNLOAD_* values */
    long received; /* body bytes received so far */
    long total;    /* body bytes announced by the server, 0 when unknown */
} asf_provider_download_status_s;

typedef void (*asf_provider_download_cb)(int token, asf_provider_download_status_s* status,
                                         void* user_data);

/* Starts downloading uri to the local file dlpath. mimetype is sent as the accepted type (a
 * value holding control characters is not sent). progress_interval_ms is the least time
 * between two PROGRESS calls (the first bytes are always reported); 0 or less takes 1000.
 * *token receives the number that every callback of this download carries. */
int asf_provider_download(const char* uri, const char* mimetype, const char* dlpath,
                          int progress_interval_ms, asf_provider_download_cb callback,
                          void* user_data, int* token);

#ifdef __cplusplus
}
#endif

#endif
