// The exported identifier functions: textual UUIDs from libuuid.
#define QRB_LOG_TAG "QRB-COMMON"
#include "qrb_log.h"
#include "qrb_thumbnail.h"

#include <uuid/uuid.h>

extern "C" int qrb_uuid_time(char* out) {
    if (out == nullptr) return 0;
    uuid_t uuid;
    uuid_generate_time_safe(uuid);
    uuid_unparse_lower(uuid, out);
    QRB_LOGD("generate uuid=%s", out);
    uuid_clear(uuid);
    return 0;
}

extern "C" int qrb_uuid_random(char* out) {
    if (out == nullptr) return 0;
    uuid_t uuid;
    uuid_generate_random(uuid);
    uuid_unparse_lower(uuid, out);
    QRB_LOGD("generate uuid=%s", out);
    uuid_clear(uuid);
    return 0;
}
