// The base of every getter: it knows how to obtain the thumbnail of one kind of item. One
// instance per kind serves every worker, so a getter keeps no per-request state; counters that
// it does keep are guarded by its own mutex.
#ifndef QRB_THUMBNAIL_GETTER_H
#define QRB_THUMBNAIL_GETTER_H

#include "qrb_extract_info.h"
#include "qrb_thumb_image.h"
#include "qrb_thumbnail_item.h"

#include <boost/intrusive_ptr.hpp>

#include <functional>
#include <string>

class QRBTempFile;

class CQRBThumbnailGetter {
public:
    virtual ~CQRBThumbnailGetter() = default;
    // The item for info, brought to the requested size, or null on every failure.
    virtual boost::intrusive_ptr<CQRBThumbnailItem> ExtractThumbnail(_stExtractInfo info) = 0;
    // Turns a request URI into a local path.
    virtual const char* T_CONVERTURITOPATH(const char* uri) = 0;
    // The form for bytes already fetched (web pictures): null unless the kind supports it.
    virtual boost::intrusive_ptr<CQRBThumbnailItem> ExtractThumbnail(std::string& buffer, int width,
                                                                     int height);

    // Makes every missing folder of path with mode 0755 exactly, whatever the umask; logs the
    // step that failed ("mkdir   error", "chmod   error"). True when the folder exists after.
    static bool t_CreateDir(const char* path);
    // Writes size bytes into a new temporary file for the picture decoder: created exclusively
    // under the first name from nextName that is not taken (a planted link or FIFO included;
    // at most QRBTempFile::kNameAttempts names), mode 0600, with the getters' log lines. On
    // failure nothing this call made is left; on success the file goes when `file` does.
    static bool t_WriteFlashFile(QRBTempFile& file, const std::function<std::string()>& nextName,
                                 const void* data, size_t size);
    // The picture in the file at path, decoded by the picture decoder to cover width x height
    // and centre-cropped to it (when both are non-zero and the picture is at least that large);
    // null when the decoder refuses it. fastDecode asks the decoder for its quick mode and
    // flag, as the web kinds do.
    static boost::intrusive_ptr<CQRBThumbImage> t_DecodePictureFile(const std::string& path,
                                                                    int width, int height,
                                                                    bool fastDecode = false);

protected:
    // The downloaded bytes of one picture, through a temporary file that write fills: written
    // into the data folder (made as needed), decoded to cover width x height, centre-cropped and
    // packed; the file is gone before this returns. Empty or absurdly large bytes give null.
    boost::intrusive_ptr<CQRBThumbnailItem> t_DecodeDownloaded(
        const std::string& bytes, int width, int height,
        const std::function<bool(QRBTempFile&)>& write);
    // Wraps an image (already at the requested size) into a new item with RID 0.
    boost::intrusive_ptr<CQRBThumbnailItem> t_PackImage(boost::intrusive_ptr<CQRBThumbImage> image);
};

#endif
