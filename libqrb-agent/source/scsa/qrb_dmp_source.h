// The front of the package metadata: for a package path it has the platform's extractor read
// the package's documents and pictures, has the documents parsed, keeps the records in the
// process-wide DMP data store and hands out counts, values and picture bytes.
//
// How a package becomes records (MoveToIndex). Only paths ending in ".uvu", ".uva", ".uvt" or
// ".scsa" (in any case) are packages. Two documents may describe a package, and each that
// parses into a non-empty record becomes one content:
//  1. the descriptive metadata that the package's "TableOfContents.XML" names: an embedded
//     file found by the table's substring rule, or else a file beside the package by that path;
//  2. the package's own metadata box (the extractor's XML_BOX_NAME), unless the table of
//     contents named that very document.
// Contents come in that order. A content whose document names no picture takes the package's
// poster (the first embedded file that is a picture) as its picture, by its embedded name.
// Packages already in the store are not read again.
//
// An instance serves one request on one thread; the store it fills is shared. Picture buffers
// handed out are malloc'ed and become the caller's, who frees them; so do text values.
#ifndef QRB_DMP_SOURCE_H
#define QRB_DMP_SOURCE_H

#include "qrb_dmp_metadata.h"
#include "scsa_metadata_extractor.h"

#include <string>
#include <vector>

class CQRBDmpData;

class CQRBDmpSource {
public:
    CQRBDmpSource();

    // Makes sure the store holds the package's records; true when it does. The path becomes
    // the current one.
    bool MoveToIndex(std::string path);
    bool GetThumbCount(std::string path, int& count);
    bool GetThumbImageCount(std::string path, int content, int& count);
    // One picture's encoded bytes: embedded when the picture has a track reference, else a file
    // beside the package.
    bool GetThumbImage(std::string path, int content, int image, unsigned long long& size,
                       char** buffer);
    // A field of the current package's current content, by the data store's keys.
    bool GetValue(std::string field, int* value);
    bool GetValue(std::string field, char** value);

private:
    bool m_IsStandAloneMeta();
    bool m_HasTableOfContentsXML(const std::vector<std::string>& files, int& index);
    bool m_HasPoster(const std::vector<std::string>& files, int& index);
    // The record of the package's metadata box; document names what was read.
    bool m_MakeMetadataFromSFF(const std::vector<std::string>& files, _stDMPMETADATA& record,
                               std::string& document);
    // The record of the descriptive metadata that the table of contents names.
    bool m_GetMeteData(const std::vector<std::string>& files, _stDMPMETADATA& record,
                       std::string& document);
    // Fills in the package path and, for a record without pictures, the poster.
    void m_Complete(const std::vector<std::string>& files, _stDMPMETADATA& record);

    std::string m_strCurFilePath;
    SCSA_DMP::MetaDataExtractor m_Extractor;
    CQRBDmpData* m_pData;  // the process-wide store; not owned
};

#endif
