// Inside the library: the description of a module, read from its file without loading it. The file may have any
// content.
#pragma once

#include "qor/glue/module_description.h"

#include <string>
#include <string_view>
#include <vector>

namespace qor::module {

// Where the bytes of a file come from.
class file_bytes {
public:
    file_bytes() = default;
    file_bytes(const file_bytes&) = delete;
    file_bytes& operator=(const file_bytes&) = delete;

    // Reads `size` bytes at `offset`. Returns false if the file does not have all of them.
    virtual bool read(uint64 offset, void* bytes, std::size_t size) = 0;

protected:
    ~file_bytes() = default;
};

enum class find_result {
    found,
    no_library,     // neither an ELF library nor one of Windows, or only part of one
    no_description, // a library without such a section
};

// Finds the section with the description in a library, of whichever system, and gets its bytes.
find_result find_description(file_bytes& file, std::string& section);

struct description {
    std::string_view bytes{}; // of the section, without what may follow the description there
    uint32 table_length = 0;
    std::vector<glue::module_row> rows{}; // sorted by number
    std::string name{};
    std::string version{};
    std::string framework{};
    std::vector<std::string> components{};
};

// Takes such a section apart. Returns false if it is no description, or one of a form that this library does not know.
bool parse_description(std::string_view section, description& out);

// Returns why a module with this description cannot work with the library whose version and table these are; empty if
// it can.
std::string objection(const description& module, std::string_view version, uint32 table_length,
                      const std::vector<glue::module_row>& rows);

// The same for this library.
std::string objection(const description& module);

} // namespace qor::module
