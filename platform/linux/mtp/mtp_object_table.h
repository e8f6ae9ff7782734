// The client's own numbering of one device's objects: a camera reached through libgphoto2 is
// addressed by folder and file name, while callers of the MTP interface hold small numbers.
// The table gives every addressable object one handle (1, 2, ... in the order objects are
// first seen) and keeps it for the life of the table, so a number handed out once always means
// the same path. Not thread-safe: the client's lock guards it.
#ifndef QRB_PLATFORM_MTP_OBJECT_TABLE_H
#define QRB_PLATFORM_MTP_OBJECT_TABLE_H

#include <map>
#include <string>
#include <vector>

class CMtpObjectTable {
public:
    // A device offering more objects than this gets no numbers for the rest: a table entry
    // costs about a hundred bytes, so this bounds what a hostile device can make us hold.
    static constexpr size_t kMaxObjects = 200000;

    struct Entry {
        int storage = 0;
        int parent = 0;      // 0 at the storage's root
        std::string folder;  // the libgphoto2 folder holding the object
        std::string name;
        bool isFolder = false;

        // The libgphoto2 path of the object itself.
        std::string Path() const;
    };

    // Whether a name can be addressed inside a folder: not empty, not "." or "..", no "/",
    // and short enough for the interface's 256-byte name field.
    static bool IsAddressableName(const std::string& name);

    // The handle of the object name in folder, numbered now if it is new; 0 when the name is
    // not addressable or the table is full. A known path keeps its handle (and its kind).
    int Intern(int storage, int parent, const std::string& folder, const std::string& name,
               bool isFolder);
    // The entry of a handle, or null for a number this table never gave out.
    const Entry* Find(int handle) const;
    size_t Size() const { return m_Entries.size(); }
    void Clear();

private:
    std::vector<Entry> m_Entries;  // handle = index + 1
    std::map<std::string, int> m_ByPath;
};

#endif
