// The platform's system-information service: read-only feature flags by integer key.
#ifndef QRB_PLATFORM_SYSTEM_INFO_H
#define QRB_PLATFORM_SYSTEM_INFO_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SYSTEM_INFO_ERROR_NONE 0
#define SYSTEM_INFO_ERROR_INVALID_PARAMETER -22
#define SYSTEM_INFO_ERROR_NOT_SUPPORTED -95

// Key of the "family TV" feature.
#define SYSTEM_INFO_KEY_FAMILY_TV 524

int system_info_get_value_bool(int key, bool* value);

#ifdef __cplusplus
}
#endif

#endif
