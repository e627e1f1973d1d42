// Inside the library: the contents of a folder, and the part that each system implements.
#pragma once

#include "qor/qor.h"

#include <string>
#include <string_view>
#include <vector>

namespace qor::folder {

// The entries while they are read: the names lie one behind the other in one block, which moves as it grows.
class listing {
public:
    void add(std::string_view name, const qorFileInfo& info) {
        m_entries.push_back({nullptr, static_cast<uint32>(name.size()), info.kind, info.size, info.modified});
        m_names.insert(m_names.end(), name.begin(), name.end());
        m_names.push_back('\0');
    }

    // Gives each entry its name; to be called once, behind the last one.
    void finish() noexcept {
        const char* at = m_names.data();
        for (qorFolderEntry& each : m_entries) {
            each.text = at;
            at += each.length + 1;
        }
    }

    const std::vector<qorFolderEntry>& entries() const noexcept { return m_entries; }

private:
    std::vector<qorFolderEntry> m_entries;
    std::vector<char> m_names;
};

// Adds everything in a folder but "." and "..". Returns 0 or the system's error code; then `failed` is the path that
// the failure is about: the folder, or a name in it.
int read_contents(const char* path, listing& out, std::string& failed);

} // namespace qor::folder
