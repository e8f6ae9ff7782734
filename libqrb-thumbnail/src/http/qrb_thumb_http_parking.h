// Downloaded bytes of the HTTP variant waiting for its decode thread. The download thread parks
// a request's body here, keyed like the request ((URL, user_data) when RID is -1, else (RID,
// user_data)), before it moves the request to ITEM_DOWNLOADED; the decode thread takes them
// when it takes the request. The variant drops bytes whose request is cancelled or cleared.
//
// Every operation is atomic under one mutex. Entries never outlive their request for long:
// whoever removes a request from the list (event, cancel, clear) also removes its bytes, and
// the download thread unparks what it parked when it finds the request gone after parking.
#ifndef QRB_THUMB_HTTP_PARKING_H
#define QRB_THUMB_HTTP_PARKING_H

#include "qrb_mutex.h"
#include "qrb_requested_item.h"

#include <string>
#include <vector>

class CQRBThumbHttpParking {
public:
    CQRBThumbHttpParking() = default;
    CQRBThumbHttpParking(const CQRBThumbHttpParking&) = delete;
    CQRBThumbHttpParking& operator=(const CQRBThumbHttpParking&) = delete;

    // Stores bytes for the request's key, replacing what that key held before, with the HTTP
    // status they came with (0 when there was none), which says why they fail to decode.
    void Park(const _stRequestedItem& request, std::string bytes, long httpStatus = 0);
    // Moves the bytes of the request's key into out and forgets them; false when none.
    bool Take(const _stRequestedItem& request, std::string* out, long* httpStatus = nullptr);
    // Forgets the bytes of the request's key; true when there were some.
    bool Drop(const _stRequestedItem& request);
    // Forget every entry of that URL (whatever its id or user pointer), or of that id: the
    // same requests the list's Delete(url) and Delete(rid) remove.
    int DropURL(const std::string& url);
    int DropRID(long long rid);
    void Clear();

    int Count();
    long long TotalBytes();

private:
    struct Entry {
        _stRequestedItem key;  // only strURL, RID and user_data matter
        std::string bytes;
        long httpStatus = 0;
    };

    CQRBMutex m_Mutex;
    std::vector<Entry> m_Entries;
};

#endif
