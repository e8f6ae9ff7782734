/* Compiled as C: the public header stays plain C and the result record keeps its layout. */
#include "qrb_thumbnail.h"

#include <stddef.h>

_Static_assert(THUMB_NONE == 17, "thumbnail kinds are fixed");
_Static_assert(ITEM_DECODING_SINGLE == 6, "item states are fixed");
_Static_assert(MEDIA_TYPE_DLNA == 6, "media types are fixed");
_Static_assert(sizeof(((_thumb_result*)0)->szURL) == 4352, "URL field holds 4351 bytes + NUL");
_Static_assert(offsetof(_thumb_result, pBuffer) == 4352, "buffers follow the URL");
_Static_assert(offsetof(_thumb_result, reserved) == 4352 + 5 * sizeof(void*), "reserved word");
_Static_assert(offsetof(_thumb_result, nBufSize) == offsetof(_thumb_result, reserved) + 4, "sizes");
_Static_assert(offsetof(_thumb_result, width) == offsetof(_thumb_result, nBufSize) + 20, "width");
_Static_assert(offsetof(_thumb_result, count) == offsetof(_thumb_result, width) + 12, "count");

static int c_callback(int status, _thumb_result* result, void* user_data) {
    (void)status;
    (void)result;
    (void)user_data;
    return 0;
}

/* Used by the C++ tests, so that this file is linked. */
qrb_thumbnail_callback qrb_c_callback_for_tests(void) { return c_callback; }
