// What a getter asks of the picture decoder: the picture and the size it wants. The record keeps
// its historical layout (reserved words included); callers zero what they do not set.
#ifndef QRB_PICTURE_THUMB_PARAM_H
#define QRB_PICTURE_THUMB_PARAM_H

#include <cstdint>

struct qrb_picture_thumb_param {
    const char* path = nullptr;  // the picture's URI or path
    int32_t reserved0 = 0;
    int32_t width = 0;  // requested thumbnail size; 0 takes the picture's own
    int32_t height = 0;
    int32_t reserved1 = 0;
    int32_t reserved2 = 0;
    // Set to 1 by the getters whose extract mode is not 1. bDecoderFlag is handed to the decoder
    // as its construction argument; no decoding decision reads either of them.
    int32_t bModeFlag = 0;
    int32_t bDecoderFlag = 0;
    int32_t reserved3 = 0;
    int32_t reserved4 = 0;
    // Skip every embedded thumbnail and decode the whole picture.
    bool forceFull = false;
};

#endif
