// Inside the library: what belongs to a file beside its content, so that a new file can take its place. On POSIX
// rights, owner, group and extended attributes, the access control list among them; on Windows the access control list
// and whether the file is hidden.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qor::platform {

// Results are the system's error codes.
class file_attributes {
public:
    // Reads those of the file at `path`, which is no link. Leaves out what the system keeps from this process, and what
    // vouches for the content of the file.
    int read(const char* path);

    // Gives them to an open file. On Windows it has to be open for changing them. Leaves out what this process may not
    // set, but an access control list that cannot be set is a failure: without it, others would have more rights.
    int write(std::intptr_t file) const;

private:
    std::vector<std::pair<std::string, std::string>> m_named; // POSIX: names and values
    std::vector<unsigned char> m_descriptor;                  // Windows: the access control list, empty without one
    unsigned m_rights = 0;                                    // on Windows the file's attributes
    unsigned m_owner = 0;                                     // POSIX
    unsigned m_group = 0;
};

} // namespace qor::platform
