#include "qrb_ptp_data_item.h"

#include <tuple>

bool _ptp_data_item::operator<(const _ptp_data_item& other) const {
    const bool folder = strType == "FOLDER";
    const bool otherFolder = other.strType == "FOLDER";
    return std::make_tuple(!folder, strName, nStorageID, nObjectHandle) <
           std::make_tuple(!otherFolder, other.strName, other.nStorageID, other.nObjectHandle);
}
