// What a worker hands a getter: the parts of a request that shape its thumbnail.
#ifndef QRB_EXTRACT_INFO_H
#define QRB_EXTRACT_INFO_H

#include <string>

struct _stExtractInfo {
    std::string strURL;
    int width = 0;
    int height = 0;
    int nOrientation = 0;
    unsigned char FrameCount = 1;
};

#endif
