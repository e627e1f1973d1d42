// What the file of a program says about its binding.
#pragma once

#include "qor/qor.h"

#include <string>
#include <vector>

namespace qor::check {

struct program {
    std::string path; // without links
    bool is_described = false;
    // What its description says (qor/glue/binding.h); otherwise what the headers here have.
    std::string version;
    std::string folder = QOR_LIBRARY_FOLDER;
    uint32 table_length = 0;
    std::vector<uint8> needed;
    // Folders in which the loader looks for libraries of the program, before and behind those of LD_LIBRARY_PATH.
    std::vector<std::string> folders_before;
    std::vector<std::string> folders_behind;
};

enum class read_result { read, unreadable, no_program };

// Reads the file. Sets `reason`, the system's, if it is unreadable.
read_result read_program(const std::string& path, program& out, std::string& reason);

// Finds the description in the bytes of a file. Returns false if there is none.
bool find_client(std::string_view file, program& out);

} // namespace qor::check
