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
    int depth;                                      /* the last image's depth value, as the
                                                       kind sets it: 32 (bits) for pictures and
                                                       covers, 4 (bytes) for video frames; every
                                                       raster is 4-byte ARGB whatever it says, so
                                                       size buffers from nBufSize, never depth */
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
 * nOrientation is carried with the request and handed to the getter, but no kind reads it: a
 * picture is turned by its own EXIF orientation, not by this value. bUsedCache non-zero lets the
 * service answer from its memory cache of recent results and keep this result there; zero
 * always decodes afresh and caches nothing. Always returns 0. */
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

/* Why the request being answered failed, in a few words for a person: "no such file",
 * "permission denied", "not a format it reads", "damaged file", "no cover art",
 * "download failed (HTTP 404)", "timed out", "protected video", "media plug-ins missing" and
 * the like; NULL when the library cannot tell. It is the one library function a callback may
 * call: only from inside a callback with status -1, or with status 0 and no image (a video
 * that opens but gives no frame: "no frame could be decoded"), on the callback's thread. The
 * text stays valid until the callback returns. */
const char* thumbnail_failure_reason(void);

/* Writes a textual UUID (36 characters and a NUL: out must hold 37 bytes). Return 0. */
int qrb_uuid_time(char* out);
int qrb_uuid_random(char* out);

/*
 * Recordings. The recorder hands over the key frames of a recording once, as it records; the
 * library turns them into thumbnails kept in a file beside the recording ("name.srf" gets
 * "name.mta"), and a request for the recording (media MEDIA_TYPE_PVR) later shows them. Both
 * functions run synchronously on the caller's thread and need no thumbnail_init.
 */

/* One key frame as the recorder hands it over: an elementary-stream access unit (a complete
 * coded picture with the headers it needs). The library reads it during the call only. */
typedef struct {
    const unsigned char* buffer; /* the coded picture */
    int buffer_size;             /* bytes at buffer, 1 to 32 MiB */
    int encode_type;             /* 1: MPEG-2 video, 2: H.264; anything else is refused */
    int reserved[2];             /* the recorder's own; not read */
} _key_frame;

/* Decodes frame_count (1 to 5) key frames from frames (an array of _key_frame), brings each to
 * exactly request_width x request_height (1 to 4096 each; the picture is stretched, not
 * cropped) and writes them, raw ARGB, to the ".mta" file beside srf_path, which must contain
 * ".srf". 0 on success; -1 when a frame cannot be decoded or the file cannot be written, and
 * then no file is left behind. */
int set_pvr_key_frame(void* frames, int frame_count, int request_width, int request_height,
                      const char* srf_path);

/* Reads the ".mta" file beside srf_path into *result (a _thumb_result the caller provides):
 * width, height, depth (bytes a pixel: 4 in the files set_pvr_key_frame writes), count, and one
 * malloc'ed raster per frame in pBuffer[i] with its size in nBufSize[i]; the caller frees them.
 * Other fields are left as they were. 0 on success, -1 when the file is missing or malformed
 * (then nothing is allocated). */
int parse_pvr_mta_file(const char* srf_path, void* result);

/*
 * DLNA chapter pictures. Beside a video item a DLNA server offers a small side file (the MTA
 * file, an XML document) holding five chapter pictures as base64 JPEG with their start times.
 * A request for a DLNA item (media MEDIA_TYPE_DLNA) names it by three fields joined by ";": the
 * local path the MTA file is downloaded to, its URI on the server, and its MIME type. Its
 * result carries the five pictures still encoded: pBuffer[i] holds the JPEG bytes of chapter i,
 * nBufSize[i] their number and timestamp[i] the chapter's start; width, height and depth are 0
 * and bBuffer stays 0 (a chapter without a picture leaves its slot empty). The functions below
 * are what that request uses; they run synchronously on the caller's thread.
 */

/* One chapter of an MTA file. */
typedef struct {
    unsigned char* stream; /* the chapter picture's JPEG bytes (owned by the array) */
    int size;              /* bytes at stream; 0 when the chapter has no picture */
    int start_time;        /* the chapter's start, as the file's "timePoint" gives it */
} thumb_asf_mta_info_s;

/* Result codes of qrb_dlna_asf_mta_decode. */
#define QRB_DLNA_MTA_OK 0
#define QRB_DLNA_MTA_NO_MEMORY 1  /* the chapter array could not be allocated */
#define QRB_DLNA_MTA_UNREADABLE 2 /* unreadable, not an MTA file, or not exactly five chapters */

/* Downloads uri (http:// or https://) to the local file dlpath, asking for mimetype, and blocks
 * until the download ends. 0 when the whole file lies at dlpath, -1 on error (the server's
 * error answer, a broken connection, a refused request). user is kept with the download and
 * not otherwise used. Downloads in flight at the same time share one completion signal: the
 * first to end may release another caller, which then answers -1 although its own file may
 * still arrive. */
int qrb_dlna_asf_mta_download(const char* uri, const char* mimetype, const char* dlpath,
                              void* user);

/* Reads the MTA file at path. On QRB_DLNA_MTA_OK, *infos is an array of *count (always 5)
 * chapters in file order, to be released with qrb_dlna_asf_mta_free and nothing else; on any
 * other code *infos is NULL. */
int qrb_dlna_asf_mta_decode(const char* path, thumb_asf_mta_info_s** infos, int* count);

/* Releases an array from qrb_dlna_asf_mta_decode (NULL is allowed) with its pictures. Returns 0. */
int qrb_dlna_asf_mta_free(thumb_asf_mta_info_s* infos, int count);

#ifdef __cplusplus
}
#endif

#endif /* QRB_THUMBNAIL_H */
