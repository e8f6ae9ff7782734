// A scratch root folder for one test: QRB_ROOT points at it while the object lives, so every
// fixed path of the library lands inside it; the folder is removed afterwards.
#ifndef QRB_TESTING_ROOT_H
#define QRB_TESTING_ROOT_H

#include <string>

namespace qrbtest {

class ScratchRoot {
public:
    ScratchRoot();
    ~ScratchRoot();
    ScratchRoot(const ScratchRoot&) = delete;
    ScratchRoot& operator=(const ScratchRoot&) = delete;

    const std::string& Path() const { return m_Path; }
    // The fixed absolute path as it lands under this root.
    std::string Resolve(const std::string& fixedPath) const;
    // Writes bytes to a file under the root (folders made as needed); returns its full path.
    std::string WriteFile(const std::string& relative, const std::string& bytes) const;
    // Number of entries in a folder under the root (0 when it does not exist).
    int CountEntries(const std::string& fixedPath) const;

private:
    std::string m_Path;
    std::string m_OldRoot;
    bool m_HadOldRoot = false;
};

// Number of open file descriptors of this process.
int OpenFileDescriptors();
// Number of threads of this process.
int ThreadCount();

}  // namespace qrbtest

#endif
