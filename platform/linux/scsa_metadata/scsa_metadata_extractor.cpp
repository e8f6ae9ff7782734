// The metadata extractor on a host: content packages are read by this project's own box reader.
#define QRB_LOG_TAG "QRB-DMP"

#include "scsa_metadata_extractor.h"

#include "qrb_box_reader.h"
#include "qrb_log.h"
#include "qrb_package_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace SCSA_DMP {

const char* const MetaDataExtractor::XML_BOX_NAME = "embedded-metadata.xml";
const char* const MetaDataExtractor::ITEM_NAME_PREFIX = "urn:dece:container:imageindex:";

namespace {

bool StartsWith(const std::string& bytes, const char* magic, size_t n, size_t at = 0) {
    return bytes.size() >= at + n && std::memcmp(bytes.data() + at, magic, n) == 0;
}

int TypeOf(const QRBPackageItem& item, const std::string& head) {
    if (StartsWith(head, "\xFF\xD8\xFF", 3) || StartsWith(head, "\x89PNG\r\n\x1A\n", 8) ||
        // "BM" alone is two letters of text: the four reserved header bytes must be zero too.
        (StartsWith(head, "BM", 2) && StartsWith(head, "\0\0\0\0", 4, 6))) {
        return FILE_TYPE_PICTURE;
    }
    if (item.xmlBox || item.contentType.find("xml") != std::string::npos) return FILE_TYPE_XML;
    size_t at = StartsWith(head, "\xEF\xBB\xBF", 3) ? 3 : 0;  // a UTF-8 byte order mark
    while (at < head.size() && std::strchr(" \t\r\n", head[at]) != nullptr) ++at;
    return at < head.size() && head[at] == '<' ? FILE_TYPE_XML : FILE_TYPE_OTHER;
}

// Copies all of a source into text, refusing sources above limit before allocating.
template <typename ReadFn>
bool ReadText(uint64_t length, unsigned long long limit, const char* what, std::string& text,
              ReadFn read) {
    if (length > limit) {
        QRB_LOGW("MetaDataExtractor: %s of %llu bytes refused (limit %llu)", what,
                 static_cast<unsigned long long>(length), limit);
        return false;
    }
    try {
        text.resize(static_cast<size_t>(length));
    } catch (const std::bad_alloc&) {
        QRB_LOGW("MetaDataExtractor: no memory for %llu bytes",
                 static_cast<unsigned long long>(length));
        return false;
    }
    if (!read(reinterpret_cast<uint8_t*>(&text[0]))) {
        QRB_LOGW("MetaDataExtractor: reading %s failed", what);
        text.clear();
        return false;
    }
    return true;
}

// As ReadText, into a malloc'ed buffer that becomes the caller's.
template <typename ReadFn>
bool ReadBuffer(uint64_t length, const char* what, unsigned long long& size, char** buffer,
                ReadFn read) {
    if (length == 0 || length > MetaDataExtractor::MAX_IMAGE_BYTES) {
        QRB_LOGW("MetaDataExtractor: %s of %llu bytes refused (limit %llu)", what,
                 static_cast<unsigned long long>(length), MetaDataExtractor::MAX_IMAGE_BYTES);
        return false;
    }
    // Freed by the caller (the contract of the interface).
    char* bytes = static_cast<char*>(std::malloc(static_cast<size_t>(length)));
    if (bytes == nullptr) {
        QRB_LOGW("MetaDataExtractor: no memory for %llu bytes",
                 static_cast<unsigned long long>(length));
        return false;
    }
    if (!read(reinterpret_cast<uint8_t*>(bytes))) {
        QRB_LOGW("MetaDataExtractor: reading %s failed", what);
        std::free(bytes);
        return false;
    }
    *buffer = bytes;
    size = length;
    return true;
}

// Opens relative (a path relative to the package's folder) for reading, one component at a
// time and without following any link, so that neither the path nor a link planted along it
// can lead outside the folder.
std::unique_ptr<QRBFileByteSource> OpenBeside(const std::string& package,
                                              const std::string& relative) {
    if (relative.empty() || relative[0] == '/') {
        QRB_LOGW("MetaDataExtractor: [%s] refused: not a relative path", relative.c_str());
        return nullptr;
    }
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= relative.size()) {
        const size_t slash = relative.find('/', start);
        const size_t stop = slash == std::string::npos ? relative.size() : slash;
        const std::string part = relative.substr(start, stop - start);
        if (part == "..") {
            QRB_LOGW("MetaDataExtractor: [%s] refused: it leaves the package's folder",
                     relative.c_str());
            return nullptr;
        }
        if (!part.empty() && part != ".") parts.push_back(part);
        start = stop + 1;
    }
    if (parts.empty()) return nullptr;

    const size_t slash = package.rfind('/');
    const std::string folder =
        slash == std::string::npos ? "." : (slash == 0 ? "/" : package.substr(0, slash));
    QRBScopedFd at(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (size_t i = 0; at.Valid() && i + 1 < parts.size(); ++i) {
        at = QRBScopedFd(
            openat(at.Get(), parts[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    // O_NONBLOCK: a FIFO at the name must not hang the caller; it is refused below.
    QRBScopedFd file(at.Valid() ? openat(at.Get(), parts.back().c_str(),
                                         O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK)
                                : -1);
    if (!file.Valid()) {
        QRB_LOGW("MetaDataExtractor: [%s] beside %s cannot be opened, errno=%d", relative.c_str(),
                 package.c_str(), errno);
        return nullptr;
    }
    std::unique_ptr<QRBFileByteSource> source = QRBFileByteSource::FromFd(std::move(file));
    if (!source) QRB_LOGW("MetaDataExtractor: [%s] is not a regular file", relative.c_str());
    return source;
}

}  // namespace

// A package file opened and parsed, with what identifies the file that was read.
struct MetaDataExtractor::Package {
    std::string path;
    struct stat identity;
    std::unique_ptr<QRBFileByteSource> source;
    std::unique_ptr<QRBPackageReader> reader;
    bool parsed = false;

    bool SameFile(const struct stat& st) const {
        return st.st_dev == identity.st_dev && st.st_ino == identity.st_ino &&
               st.st_size == identity.st_size && st.st_mtim.tv_sec == identity.st_mtim.tv_sec &&
               st.st_mtim.tv_nsec == identity.st_mtim.tv_nsec;
    }
};

MetaDataExtractor::MetaDataExtractor() = default;
MetaDataExtractor::~MetaDataExtractor() = default;

const MetaDataExtractor::Package* MetaDataExtractor::m_Open(const std::string& path) const {
    struct stat st;
    if (m_pLast && m_pLast->path == path && stat(path.c_str(), &st) == 0 && m_pLast->SameFile(st)) {
        return m_pLast->parsed ? m_pLast.get() : nullptr;
    }
    m_pLast.reset();
    auto package = std::make_unique<Package>();
    package->path = path;
    package->source = QRBFileByteSource::Open(path);
    if (!package->source || !package->source->Identity(&package->identity)) {
        QRB_LOGW("MetaDataExtractor: cannot open %s, errno=%d", path.c_str(), errno);
        return nullptr;
    }
    package->reader = std::make_unique<QRBPackageReader>(*package->source);
    package->parsed = package->reader->Parse();
    if (!package->parsed)
        QRB_LOGW("MetaDataExtractor: %s carries no package metadata", path.c_str());
    // Kept either way: asking again about the same file gives the same answer.
    m_pLast = std::move(package);
    return m_pLast->parsed ? m_pLast.get() : nullptr;
}

bool MetaDataExtractor::GetFileList(const std::string& package,
                                    std::vector<std::string>& files) const {
    files.clear();
    const Package* opened = m_Open(package);
    if (opened == nullptr) return false;
    for (const QRBPackageItem& item : opened->reader->Items()) files.push_back(item.name);
    return true;
}

bool MetaDataExtractor::GetFileType(const std::string& package, const std::string& name,
                                    int& type) const {
    type = FILE_TYPE_OTHER;
    const Package* opened = m_Open(package);
    if (opened == nullptr) return false;
    const QRBPackageItem* item = opened->reader->Find(name);
    if (item == nullptr) {
        QRB_LOGW("MetaDataExtractor: no [%s] in %s", name.c_str(), package.c_str());
        return false;
    }
    type = TypeOf(*item, opened->reader->Head(*item, 16));
    return true;
}

bool MetaDataExtractor::GetXMLFromSFF(const std::string& package, const std::string& name,
                                      std::string& xml) const {
    xml.clear();
    const Package* opened = m_Open(package);
    if (opened == nullptr) return false;
    const QRBPackageItem* item = opened->reader->Find(name);
    if (item == nullptr) {
        QRB_LOGW("MetaDataExtractor: no [%s] in %s", name.c_str(), package.c_str());
        return false;
    }
    return ReadText(item->length, MAX_XML_BYTES, name.c_str(), xml,
                    [&](uint8_t* out) { return opened->reader->Read(*item, out); });
}

bool MetaDataExtractor::GetXML(const std::string& package, const std::string& relative,
                               std::string& xml) const {
    xml.clear();
    std::unique_ptr<QRBFileByteSource> source = OpenBeside(package, relative);
    if (!source) return false;
    return ReadText(source->Size(), MAX_XML_BYTES, relative.c_str(), xml, [&](uint8_t* out) {
        return source->ReadAt(0, out, static_cast<size_t>(source->Size()));
    });
}

bool MetaDataExtractor::GetImageBufferFromSFF(const std::string& package,
                                              const std::string& picturePath,
                                              const std::string& trackReference,
                                              unsigned long long& size, char** buffer) const {
    size = 0;
    if (buffer == nullptr) return false;
    *buffer = nullptr;
    const Package* opened = m_Open(package);
    if (opened == nullptr) return false;
    const QRBPackageItem* item =
        trackReference.empty() ? nullptr : opened->reader->Find(trackReference);
    if (item == nullptr && !picturePath.empty()) item = opened->reader->Find(picturePath);
    if (item == nullptr) {
        QRB_LOGW("MetaDataExtractor: no picture [%s] / [%s] in %s", trackReference.c_str(),
                 picturePath.c_str(), package.c_str());
        return false;
    }
    return ReadBuffer(item->length, item->name.c_str(), size, buffer,
                      [&](uint8_t* out) { return opened->reader->Read(*item, out); });
}

bool MetaDataExtractor::GetImageBuffer(const std::string& package, const std::string& picturePath,
                                       unsigned long long& size, char** buffer) const {
    size = 0;
    if (buffer == nullptr) return false;
    *buffer = nullptr;
    std::unique_ptr<QRBFileByteSource> source = OpenBeside(package, picturePath);
    if (!source) return false;
    return ReadBuffer(source->Size(), picturePath.c_str(), size, buffer, [&](uint8_t* out) {
        return source->ReadAt(0, out, static_cast<size_t>(source->Size()));
    });
}

}  // namespace SCSA_DMP
