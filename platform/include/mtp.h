/*
 * mtp.h - the platform's MTP client: cameras attached over USB (and spoken to with PTP), seen
 * as devices with storages and objects (folders and files) named by small integer handles.
 *
 * Conventions
 *  - Every function returns MTP_ERROR_NONE (0) or a negative mtp_error_e.
 *  - Arrays handed back through pointer arguments are allocated with malloc; the caller frees
 *    them with free(). The device list is released with mtp_destroy_device_list.
 *  - Device handles and object handles are small positive numbers chosen by this client, not
 *    by the device. They stay valid for the life of the process, also across
 *    mtp_deinitialize and a device's closing and reopening. Object handle 0 names the root
 *    folder of a storage. A handle this client never handed out is refused without any
 *    exchange with the device.
 *  - Only objects whose names can be addressed are listed: a name that is empty, "." or "..",
 *    contains "/" or is longer than 255 bytes never gets a handle. Names are UTF-8.
 *  - Calls may come from any thread; they are serialised inside the client, so a slow device
 *    delays every caller. Each call on a networked device is bounded in time (see below).
 *
 * The simulated camera
 *  When the environment variable QRB_PTPIP_CAMERA names one or more PTP/IP responders
 *  ("127.0.0.1:PORT", several separated by ","), each appears in the device list after the
 *  USB devices with bus location 1 and device numbers 2, 3, ... in the order given. Calls on
 *  such a device end with MTP_ERROR_IO when the device has not answered within
 *  QRB_PTPIP_TIMEOUT_MS milliseconds (default 10000).
 */
#ifndef QRB_PLATFORM_MTP_H
#define QRB_PLATFORM_MTP_H

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    MTP_ERROR_NONE = 0,
    MTP_ERROR_GENERAL = -1,
    MTP_ERROR_INVALID_PARAMETER = -2,
    MTP_ERROR_NOT_INITIALIZED = -3,
    MTP_ERROR_NO_DEVICE = -4,             /* no such device, or it is closed */
    MTP_ERROR_INVALID_OBJECT_HANDLE = -5, /* no such object, or not of the kind asked for */
    MTP_ERROR_IO = -6,                    /* the device failed, went away or did not answer */
    MTP_ERROR_NO_THUMBNAIL = -7,          /* the device has no usable thumbnail of the object */
    MTP_ERROR_TOO_LARGE = -8,             /* the object exceeds the client's size limit */
    MTP_ERROR_FILE = -9,                  /* the local file could not be written */
    MTP_ERROR_OUT_OF_MEMORY = -10
} mtp_error_e;

/* What an object is, as far as its listing cares. */
typedef enum {
    MTP_FILETYPE_FOLDER = 0,
    MTP_FILETYPE_JPEG = 14,
    MTP_FILETYPE_BMP = 17,
    MTP_FILETYPE_PNG = 20,
    MTP_FILETYPE_OTHER = 44, /* any file of another type */
    MTP_FILETYPE_ALL = 45    /* as a filter: every object */
} mtp_filetype_e;

typedef struct {
    int bus_location;
    int device_number;
    char model_name[128];
} mtp_raw_device;

typedef struct {
    int device_num;
    mtp_raw_device* devices; /* device_num entries */
} mtp_device_list;

typedef struct {
    int storage_id;
    int parent_object_handle; /* 0 at the storage's root */
    mtp_filetype_e file_type;
    unsigned long long size; /* bytes; 0 for folders and when unknown */
    long long modified;      /* seconds since the epoch; 0 when unknown */
    int image_width;         /* pixels; 0 when unknown */
    int image_height;
    char filename[256]; /* UTF-8, zero-terminated */
} mtp_object_info;

/* Prepares the client; counted, so every successful call is paired with mtp_deinitialize. */
int mtp_initialize(void);
/* The last one closes every open device. Handles keep their meaning for a later initialise. */
int mtp_deinitialize(void);

/* The attached devices (USB cameras first, then the simulated ones). */
int mtp_get_device_list(mtp_device_list** list);
void mtp_destroy_device_list(mtp_device_list* list);

/* Opens the device at a bus location and device number (counted: a device opened twice needs
 * two mtp_close_device). Opening numbers every object on the device. */
int mtp_get_device_handle_internal(int bus_location, int device_number, int* device_handle);
int mtp_close_device(int device_handle);

/* The device's storages, in the device's order. */
int mtp_get_storage_ids(int device_handle, int** storage_ids, int* count);

/* The objects directly inside parent_object_handle (0: the storage's root) that are of
 * file_type (MTP_FILETYPE_ALL: every object). */
int mtp_get_object_handles(int device_handle, int storage_id, mtp_filetype_e file_type,
                           int parent_object_handle, int** object_handles, int* count);

/* Fills *info for an object. */
int mtp_objectinfo_get_object_info(int device_handle, int object_handle, mtp_object_info* info);

/* Writes the device's own thumbnail of an object (a JPEG) to dest_path. The bytes go to a new
 * file beside dest_path first and replace dest_path only when complete; on failure dest_path
 * is left as it was and nothing else is left behind. Empty data and data that is not a JPEG
 * are refused (MTP_ERROR_NO_THUMBNAIL). */
int mtp_get_thumbnail(int device_handle, int object_handle, const char* dest_path);

/* Reads a whole file into *data (malloc'ed, *size bytes; the caller frees it). */
int mtp_get_object(int device_handle, int object_handle, unsigned char** data, unsigned long* size);

#ifdef __cplusplus
}
#endif

#endif /* QRB_PLATFORM_MTP_H */
