// One object of a camera's listing, as the PTP manager hands it out: a folder or a picture.
#ifndef QRB_PTP_DATA_ITEM_H
#define QRB_PTP_DATA_ITEM_H

#include <string>

struct _ptp_data_item {
    std::string strURI;      // "ptp://%03d;%03d;%d" (bus, device, object handle); pictures only
    std::string strAddress;  // "ptp://%d/%d" (device handle, object handle); pictures only
    std::string strType;     // "FOLDER", "JPEG", "BMP" or "PNG"
    std::string strName;     // the object's file name (UTF-8)
    int nObjectHandle = 0;
    int nParentHandle = 0;  // 0 at a storage's root
    int nStorageID = 0;
    int nFileType = 0;  // the MTP client's numbering: 0 folder, 14 JPEG, 17 BMP, 20 PNG
    unsigned long long ullSize = 0;
    long long llModified = 0;  // seconds since the epoch, 0 when unknown
    int nWidth = 0;
    int nHeight = 0;

    _ptp_data_item() = default;
    _ptp_data_item(const _ptp_data_item&) = default;
    _ptp_data_item& operator=(const _ptp_data_item&) = default;

    // The listing's order: folders before pictures, then by name (byte order), then by
    // storage and object handle, so that equal names still have a fixed order.
    bool operator<(const _ptp_data_item& other) const;
};

#endif
