/*
 * qrb_thumbnail.h - the thumbnail service's C interface.
 *
 * An application initialises the service, posts asynchronous requests for the thumbnail of a
 * media item (a path or URL plus a callback and an opaque user pointer), may cancel them, and
 * finally tears the service down. This is the only header an application needs.
 *
 * Conventions
 *  - Functions returning int answer 0 for success and -1 for failure. Posting a request never
 *    fails at the call: its outcome arrives later through the callback, with status 0 (the
 *    result holds the thumbnail) or -1 (it failed; only the URL is filled in).
 *  - A request that routes nowhere (an unknown media type on an ordinary device) or that
 *    duplicates one still queued (same URL and same user pointer) is dropped silently: it gets
 *    no callback.
 *  - Every request the library has taken gets exactly one callback, unless it was cancelled or
 *    cleared before its result was delivered; then it gets none.
 *  - The callback runs on one of the library's worker threads, never on the caller's, while
 *    the lock of that request's queue is held. It must not call back into the library's request
 *    or cancel functions, and it should return quickly: a slow callback stalls its queue.
 *  - The _thumb_result record lives only for the duration of the callback, but every buffer it
 *    points at (pBuffer[i], buffer_preset) was allocated with malloc and belongs to the
 *    application, which releases it with free().
 *  - Pixel buffers are 32-bit rasters, 4 bytes per pixel in the order blue, green, red, alpha,
 *    rows packed (stride = width * 4), top row first.
 *  - Call thumbnail_init first and thumbnail_finalize last; the functions in between may be
 *    called from any thread. thumbnail_finalize must not race with other calls.
 */
#ifndef QRB_THUMBNAIL_H
#define QRB_THUMBNAIL_H

#ifdef __cplusplus
extern "C" {
#endif

/* What the caller says the item is. */
typedef enum {
    MEDIA_TYPE_VIDEO = 0,
    MEDIA_TYPE_PICTURE = 1,
    MEDIA_TYPE_MUSIC = 2,
    MEDIA_TYPE_PVR = 3,
    MEDIA_TYPE_NONE = 4,
    MEDIA_TYPE_SCSA = 5,
    MEDIA_TYPE_DLNA = 6
} qrb_item_media_type;

/* Where the item lives. Values not listed here mean ordinary storage. */
typedef enum {
    DEV_TYPE_LOCAL = 100,
    DEV_TYPE_USB = 101,
    DEV_TYPE_DLNA = 102,
    DEV_TYPE_PTP = 103,
    DEV_TYPE_SNS = 104,
    DEV_TYPE_STORAGE = 105,
    DEV_TYPE_RA = 106,
    DEV_TYPE_SERIAL_FIRST = 107,
    DEV_TYPE_SERIAL_LAST = 113,
    DEV_TYPE_PTP_EXT = 114,
    DEV_TYPE_SNS_EXT1 = 115,
    DEV_TYPE_SNS_EXT2 = 116,
    DEV_TYPE_SNS_EXT3 = 117,
    DEV_TYPE_SNS_EXT4 = 118
} qrb_extend_dev_type;

/* The internal kind of a thumbnail, chosen from the media and device types. */
typedef enum {
    THUMB_PICTURE = 0,
    THUMB_MUSIC = 1,
    THUMB_VIDEO = 2,
    THUMB_PICTURE_MODE2 = 3,
    THUMB_PICTURE_MODE1 = 4,
    THUMB_PVR = 5,
    THUMB_PTP = 6,
    THUMB_RESERVED7 = 7,
    THUMB_RESERVED8 = 8,
    THUMB_RESERVED9 = 9,
    THUMB_DLNA = 10,
    THUMB_SNS = 11,
    THUMB_RA = 12,
    THUMB_SERIAL_PICTURE = 13,
    THUMB_SERIAL_MUSIC = 14,
    THUMB_SERIAL_VIDEO = 15,
    THUMB_SCSA = 16,
    THUMB_NONE = 17
} qrb_media_thumbnail_type;

/* The kind of device icon asked for; passed through as an integer. */
typedef enum {
    DEVICE_ICON_SMALL = 0,
    DEVICE_ICON_LARGE = 1,
    DEVICE_ICON_REMOTE = 2
} qrb_device_icon_type;

/* The state of a queued request. */
typedef enum {
    ITEM_WAITING = 0,
    ITEM_WAIT_DOWNLOAD = 1,
    ITEM_DOWNLOADING = 2,
    ITEM_DOWNLOADED = 3,
    ITEM_DECODING = 4,
    ITEM_DECODING_DOWNLOADED = 5,
    ITEM_DECODING_SINGLE = 6
} qrb_thumb_item_state;

#define QRB_THUMB_URL_MAX 4352
#define QRB_THUMB_MAX_IMAGES 5
#define QRB_THUMB_PRESET_SIZE 4096

/* What a callback receives. Zero-filled before each callback; see the conventions above. */
typedef struct {
    char szURL[QRB_THUMB_URL_MAX];                  /* the request's URL, cut to 4351 bytes + NUL */
    unsigned char* pBuffer[QRB_THUMB_MAX_IMAGES];   /* per-image buffer (malloc'ed, caller frees) */
    int reserved;                                   /* never written by the library */
    int nBufSize[QRB_THUMB_MAX_IMAGES];             /* per-image buffer size in bytes */
    int width;                                      /* width of the last image delivered */
    int height;                                     /* height of the last image delivered */
    int depth;                                      /* bytes per pixel of the last image */
    int count;                                      /* number of filled buffer slots */
    long long timestamp[QRB_THUMB_MAX_IMAGES];      /* per-image time stamp (video position) */
    int bBuffer;                                    /* 1: pBuffer[0] holds encoded bytes */
    char* buffer_preset;                            /* 4096-byte preset text or NULL (caller frees) */
} _thumb_result;

/* Status is 0 on success and -1 on failure; the return value is ignored. */
typedef int (*qrb_thumbnail_callback)(int status, _thumb_result* result, void* user_data);

/* Creates the service and starts its threads; 0 when it exists, -1 when it could not be made. */
int thumbnail_init(void);

/* Posts a request for the thumbnail of url. width x height is the wanted size (0 x 0: the
 * picture's own size); FrameCount is the number of video frames wanted (at most 5 are served).
 * Always returns 0. */
int thumbnail_request_async(const char* url, qrb_item_media_type media, qrb_extend_dev_type dev,
                            int nOrientation, int width, int height, int bUsedCache,
                            unsigned char FrameCount, qrb_thumbnail_callback callback,
                            void* user_data);

/* As thumbnail_request_async, but the result carries the item's downloaded bytes as they are
 * (bBuffer 1, pBuffer[0] / nBufSize[0]) when the kind delivers encoded data. */
int thumbnail_request_http_buffer_async(const char* url, qrb_item_media_type media,
                                        qrb_extend_dev_type dev, int nOrientation, int width,
                                        int height, int bUsedCache, unsigned char FrameCount,
                                        qrb_thumbnail_callback callback, void* user_data);

/* Removes every queued request for url (whatever its user pointer). A request being worked on
 * finishes silently. Always returns 0. */
int thumbnail_request_cancel(const char* url, qrb_item_media_type media, qrb_extend_dev_type dev);

/* Removes every queued request of every kind, without callbacks. Returns 0. */
int thumbnail_request_cancel_all(void);

/* Drops the queue of the one-at-a-time worker (video, recordings, PTP, RA) and waits until
 * its first worker has finished what it is doing. */
void thumbnail_stop_ptp_decode_sync(void);
void thumbnail_stop_ra_decode_sync(void);

/* Stops and joins every thread and destroys the service. Returns 0. */
int thumbnail_finalize(void);

/* Writes a textual UUID (36 characters and a NUL: out must hold 37 bytes). Return 0. */
int qrb_uuid_time(char* out);
int qrb_uuid_random(char* out);

#ifdef __cplusplus
}
#endif

#endif /* QRB_THUMBNAIL_H */
