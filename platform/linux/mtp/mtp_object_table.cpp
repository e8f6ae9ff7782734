#include "mtp_object_table.h"

std::string CMtpObjectTable::Entry::Path() const {
    if (!folder.empty() && folder.back() == '/') return folder + name;
    return folder + "/" + name;
}

bool CMtpObjectTable::IsAddressableName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.size() < 256 &&
           name.find('/') == std::string::npos;
}

int CMtpObjectTable::Intern(int storage, int parent, const std::string& folder,
                            const std::string& name, bool isFolder) {
    if (!IsAddressableName(name)) return 0;
    Entry entry;
    entry.storage = storage;
    entry.parent = parent;
    entry.folder = folder;
    entry.name = name;
    entry.isFolder = isFolder;
    const std::string path = entry.Path();
    auto it = m_ByPath.find(path);
    if (it != m_ByPath.end()) return it->second;
    if (m_Entries.size() >= kMaxObjects) return 0;
    m_Entries.push_back(entry);
    const int handle = static_cast<int>(m_Entries.size());
    m_ByPath.emplace(path, handle);
    return handle;
}

const CMtpObjectTable::Entry* CMtpObjectTable::Find(int handle) const {
    if (handle <= 0 || static_cast<size_t>(handle) > m_Entries.size()) return nullptr;
    return &m_Entries[static_cast<size_t>(handle) - 1];
}

void CMtpObjectTable::Clear() {
    m_Entries.clear();
    m_ByPath.clear();
}
