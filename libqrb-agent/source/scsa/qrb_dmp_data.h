// The process-wide store of parsed package metadata (CQRBSingleton<CQRBDmpData>): each package
// path maps to the records of its contents, in the order they were inserted.
//
// Every public operation holds the store's mutex for its whole run, so a reader never sees a
// package half inserted; the store is shared by all decoder workers.
//
// GetValue reads the current content of a package: the one whose picture GetThumbnailData
// handed out last (content 0 until then, and again whenever another package becomes current),
// its current picture (the one handed out, else its first) and its first rating. "INDEX" is
// the current content's position. Text results are copies made with malloc that the caller
// releases with free().
#ifndef QRB_DMP_DATA_H
#define QRB_DMP_DATA_H

#include "qrb_dmp_metadata.h"
#include "qrb_mutex.h"

#include <map>
#include <string>
#include <vector>

class CQRBDmpData {
public:
    CQRBDmpData() = default;
    CQRBDmpData(const CQRBDmpData&) = delete;
    CQRBDmpData& operator=(const CQRBDmpData&) = delete;

    // Stores all records of a package, replacing what was stored for it.
    void InsertData(std::string path, std::vector<_stDMPMETADATA>& records);
    // Appends one record to a package's records.
    void InsertData(std::string path, _stDMPMETADATA& record);
    // Drops a package; false when it was not stored.
    bool RemoveData(std::string path);
    bool FindPathExist(std::string path);

    // The number of contents of a package; false (count 0) when it has none.
    bool GetThumbCount(std::string path, int& count);
    // The number of pictures of one content; false (count 0) for a content index out of range.
    bool GetThumbDataCount(std::string path, int content, int& count);
    // One picture's path and track reference; false for either index out of range. Makes that
    // content and picture the current ones.
    bool GetThumbnailData(std::string path, int content, int image, std::string& picturePath,
                          std::string& trackReference);

    // "INDEX", "WIDTH", "HEIGHT".
    bool GetValue(std::string path, std::string field, int* value);
    // Every text key (see the table in the .cpp); *value becomes the caller's.
    bool GetValue(std::string path, std::string field, char** value);

private:
    using Map = std::map<std::string, std::vector<_stDMPMETADATA>>;

    // Looks path up and makes it the current entry. Called with the mutex held.
    bool m_FindData(const std::string& path);
    // The current content and its picture for GetValue, after the checks that GetValue logs.
    const _stDMPMETADATA* m_CurrentRecord(const std::string& path, const void* value);

    CQRBMutex m_Mutex;
    Map m_MetaDataMap;
    Map::iterator m_Current = m_MetaDataMap.end();
    int m_nCurrentContent = 0;
    int m_nCurrentImage = 0;
};

#endif
