// The package reader on arbitrary bytes, read from memory. Whatever it lists must lie inside
// the input: every extent within the bytes, every length the sum of its extents, the counts
// within their bounds, and reading an item must give exactly the bytes its extents name.
#include "../platform/linux/scsa_metadata/qrb_package_reader.h"

#include "dlog_sink.h"
#include "scsa_metadata_extractor.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Items are read back whole only up to this size; the checks on their extents cover the rest.
constexpr uint64_t kReadBackLimit = 1u << 20;

void CheckHeaders(const QRBByteSource& source, uint64_t size) {
    uint64_t at = 0;
    for (int n = 0; n < 64 && at < size; ++n) {
        QRBBoxHeader box;
        if (!QRBReadBoxHeader(source, at, size, &box)) return;
        if (box.offset != at || box.payload > box.end || box.end > size || box.end <= at) abort();
        at = box.end;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dlog_set_stderr_level(7);  // every rejection is logged; keep the output readable
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QRBMemoryByteSource source(data, size);
    CheckHeaders(source, size);
    QRBPackageReader reader(source);
    if (!reader.Parse()) {
        if (!reader.Items().empty()) abort();
        return 0;
    }
    // The location table's items, plus the "xml " box.
    if (reader.Items().size() > QRBPackageReader::kMaxItems + 1) abort();
    for (const QRBPackageItem& item : reader.Items()) {
        if (item.extents.empty() || item.extents.size() > QRBPackageReader::kMaxExtentsPerItem) {
            abort();
        }
        uint64_t total = 0;
        for (const QRBPackageExtent& extent : item.extents) {
            if (extent.length == 0 || extent.offset > size ||
                extent.length > size - extent.offset) {
                abort();
            }
            total += extent.length;
        }
        if (total != item.length || reader.Find(item.name) == nullptr) abort();
        if (item.xmlBox && item.name != SCSA_DMP::MetaDataExtractor::XML_BOX_NAME) abort();

        const std::string head = reader.Head(item, 16);
        if (head.size() != (item.length < 16 ? item.length : 16)) abort();
        if (std::memcmp(head.data(), data + item.extents[0].offset,
                        std::min<size_t>(head.size(), item.extents[0].length)) != 0) {
            abort();
        }
        if (item.length > kReadBackLimit) continue;
        std::vector<uint8_t> bytes(static_cast<size_t>(item.length));
        if (!reader.Read(item, bytes.data())) abort();
        size_t at = 0;
        for (const QRBPackageExtent& extent : item.extents) {
            if (std::memcmp(bytes.data() + at, data + extent.offset, extent.length) != 0) abort();
            at += extent.length;
        }
    }
    return 0;
}
