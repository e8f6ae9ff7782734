// The platform's reader of content packages (".uvu", ".uva", ".uvt", ".scsa"): the metadata
// documents and pictures a package carries inside it, and the files that lie beside it.
//
// A package is an ISO base media file. What it embeds is listed by name:
//  - the text of its "xml " box under XML_BOX_NAME (listed last);
//  - each item of its item location table, by the name its item information gives it, or else
//    by ITEM_NAME_PREFIX followed by the item's id in decimal, which is how a picture's
//    TrackReference names it.
//
// Conventions: every operation answers true on success and fills its outputs; on failure the
// outputs are left empty (sizes 0, buffers null) and the reason is logged. Picture buffers are
// allocated with malloc and become the caller's, who releases them with free(). Documents above
// MAX_XML_BYTES and pictures above MAX_IMAGE_BYTES are refused before anything is allocated for
// them.
//
// An instance keeps the last package it read open and parsed for as long as the file at that
// path stays the same one, unchanged in size and modification time, so that asking for each
// listed name in turn reads the package's tables once. An instance is used by one thread at a
// time; separate instances may be used at once.
#ifndef QRB_PLATFORM_SCSA_METADATA_EXTRACTOR_H
#define QRB_PLATFORM_SCSA_METADATA_EXTRACTOR_H

#include <memory>
#include <string>
#include <vector>

namespace SCSA_DMP {

// What GetFileType answers.
enum {
    FILE_TYPE_OTHER = 0,
    FILE_TYPE_XML = 1,
    FILE_TYPE_PICTURE = 2,  // JPEG, PNG or BMP, told by the first bytes
};

class MetaDataExtractor {
public:
    MetaDataExtractor();
    ~MetaDataExtractor();
    MetaDataExtractor(const MetaDataExtractor&) = delete;
    MetaDataExtractor& operator=(const MetaDataExtractor&) = delete;

    static const char* const XML_BOX_NAME;
    static const char* const ITEM_NAME_PREFIX;

    // A package's metadata documents are tens of kilobytes; four megabytes is far beyond any
    // real one and still cheap to hold.
    static constexpr unsigned long long MAX_XML_BYTES = 4ull << 20;
    // Posters and chapter pictures are screen-sized JPEGs of a few hundred kilobytes.
    static constexpr unsigned long long MAX_IMAGE_BYTES = 16ull << 20;

    // The names of what package embeds. False when the file cannot be read or carries no
    // package metadata; an empty list is a success.
    bool GetFileList(const std::string& package, std::vector<std::string>& files) const;

    // One of the FILE_TYPE_ values for the embedded file listed as name.
    bool GetFileType(const std::string& package, const std::string& name, int& type) const;

    // The text of the embedded file listed as name.
    bool GetXMLFromSFF(const std::string& package, const std::string& name, std::string& xml) const;

    // The text of a file beside the package; relative is a path relative to the package's
    // folder. Absolute paths, ".." components and symbolic links (at any component) are
    // refused, as is anything but a regular file.
    bool GetXML(const std::string& package, const std::string& relative, std::string& xml) const;

    // The bytes of an embedded picture: the one trackReference names (a listed name, or the
    // ITEM_NAME_PREFIX form for any item id), else the one listed as picturePath.
    bool GetImageBufferFromSFF(const std::string& package, const std::string& picturePath,
                               const std::string& trackReference, unsigned long long& size,
                               char** buffer) const;

    // The bytes of a picture file beside the package, refused on the same terms as GetXML.
    bool GetImageBuffer(const std::string& package, const std::string& picturePath,
                        unsigned long long& size, char** buffer) const;

private:
    struct Package;
    // The package at path, read now or kept from the last call; null (logged) when it cannot
    // be opened or carries no package metadata.
    const Package* m_Open(const std::string& path) const;
    mutable std::unique_ptr<Package> m_pLast;
};

}  // namespace SCSA_DMP

#endif
