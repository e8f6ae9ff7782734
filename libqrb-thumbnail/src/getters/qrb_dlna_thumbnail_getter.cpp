#include "qrb_dlna_thumbnail_getter.h"

#include "qrb_log.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

struct ChapterArray {
    thumb_asf_mta_info_s* infos = nullptr;
    int count = 0;
    ~ChapterArray() {
        if (infos == nullptr) return;
        // The array always holds five entries, whatever count the decode reported.
        qrb_dlna_asf_mta_free(infos, CQRBDLNAThumbnailGetter::kChapters);
        QRB_LOGD("end of mta free ");
    }
};

}  // namespace

bool CQRBDLNAThumbnailGetter::DlnaMtaDownload(const char* uri, std::string* dstPath) {
    if (uri == nullptr || dstPath == nullptr) {
        QRB_LOGW("DLNA-SOURCE: down parameter error");
        return false;
    }
    QRB_LOGD("DlnaMtaDownload: URL[%s]", uri);
    std::vector<std::string> fields;
    try {
        boost::algorithm::split(fields, uri, boost::algorithm::is_any_of(";"),
                                boost::algorithm::token_compress_off);
    } catch (...) {
        QRB_LOGW("RequestThumbnail Exception caught");
        fields.clear();
    }
    // Range-checked on purpose: fewer than three fields leave through std::out_of_range.
    QRB_LOGD("one =%s two =%s  three = %s,size=%d", fields.at(0).c_str(), fields.at(1).c_str(),
             fields.at(2).c_str(), static_cast<int>(fields.size()));
    *dstPath = fields[0];
    const std::string& remote = fields[1];
    const std::string& mimetype = fields[2];
    QRB_LOGD("MtaDownload param: uri[%s] , mimetype[%s] , dlpath[%s]", remote.c_str(),
             mimetype.c_str(), dstPath->c_str());
    const int result =
        qrb_dlna_asf_mta_download(remote.c_str(), mimetype.c_str(), dstPath->c_str(), this);
    QRB_LOGD("nResult [%d]###", result);
    return result == 0;
}

bool CQRBDLNAThumbnailGetter::DlnaMtaDecode(const char* path, thumb_asf_mta_info_s** infos,
                                            int& count) {
    QRB_LOGD("CQRBDLNAThumbnailGetter::DlnaMtaDecode szDstPath[%s]",
             path != nullptr ? path : "(null)");
    if (qrb_dlna_asf_mta_decode(path, infos, &count) != QRB_DLNA_MTA_OK) {
        QRB_LOGW("DlnaMtaDecode fail");
        return false;
    }
    return true;
}

void CQRBDLNAThumbnailGetter::DlnaMtaFree(thumb_asf_mta_info_s* infos, int count) {
    qrb_dlna_asf_mta_free(infos, count);
}

boost::intrusive_ptr<CQRBThumbnailItem> CQRBDLNAThumbnailGetter::ExtractThumbnail(
    _stExtractInfo info) {
    boost::intrusive_ptr<CQRBThumbnailItem> item(new CQRBThumbnailItem);
    QRB_LOGD("CQRBDLNAThumbnailGetter URI:%s,w:%d,h:%d", info.strURL.c_str(), info.width,
             info.height);

    std::string dstPath;
    if (!DlnaMtaDownload(info.strURL.c_str(), &dstPath)) {
        QRB_LOGW("download dlnamta file fail");
        return nullptr;
    }
    ChapterArray chapters;
    if (!DlnaMtaDecode(dstPath.c_str(), &chapters.infos, chapters.count)) {
        QRB_LOGW("decode dlnamta file fail");
        return nullptr;
    }
    QRB_LOGD("dlnaMtaDecode success");

    // The item accounts for its largest picture per image, so that the cache's budget sees the
    // encoded bytes these images carry instead of their (zero) raster size.
    int largest = 0;
    for (int i = 0; i < kChapters; ++i) {
        const thumb_asf_mta_info_s& chapter = chapters.infos[i];
        const size_t size = chapter.size > 0 ? static_cast<size_t>(chapter.size) : 0;
        // Freed by the image (it takes ownership). At least one byte, so that a chapter without
        // a picture still has an image with an empty buffer.
        auto* buffer = static_cast<unsigned char*>(std::malloc(std::max<size_t>(size, 1)));
        if (buffer == nullptr) {
            QRB_LOGW("no memory for chapter %d (%d bytes)", i, chapter.size);
            continue;
        }
        if (size > 0) std::memcpy(buffer, chapter.stream, size);
        boost::intrusive_ptr<CQRBThumbImage> image(new CQRBThumbImage);
        if (!image->Create(0, 0, 0, 0, buffer, static_cast<long long>(chapter.start_time)))
            continue;
        image->SetBufSize(static_cast<long>(size));
        item->AddImage(image);
        largest = std::max(largest, static_cast<int>(size));
        item->SetSize(largest);
    }
    if (item->GetImageCount() == 0) {
        QRB_LOGW("return NULL...");
        return nullptr;
    }
    QRB_LOGD("pThumbItem->GetSizeOfThumbs()[%d]###", item->GetImageCount());
    return item;
}
