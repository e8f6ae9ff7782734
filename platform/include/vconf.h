// The platform's key/value settings store.
#ifndef QRB_PLATFORM_VCONF_H
#define QRB_PLATFORM_VCONF_H

#ifdef __cplusplus
extern "C" {
#endif

#define VCONF_OK 0
#define VCONF_ERROR -1

int vconf_get_int(const char* key, int* value);
int vconf_set_int(const char* key, int value);

#ifdef __cplusplus
}
#endif

#endif
