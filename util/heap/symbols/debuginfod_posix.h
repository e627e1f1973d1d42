// Files of debug information from debuginfod servers, by libdebuginfod, which is loaded only if DEBUGINFOD_URLS is set.
#pragma once

#include "elf_file_posix.h"
#include "reader.h"

#include <chrono>
#include <string>

namespace qor::heap {

class debuginfod {
public:
    // The servers that the user has named; empty: none, so nothing is asked.
    static std::string servers();

    struct result {
        int descriptor = -1; // the caller closes it
        std::string path;    // in the user's cache
        std::string server;
        std::string reason; // of a failure
    };

    // The file with the debug information of this build id.
    static result fetch(const std::string& build_id, std::chrono::seconds limit, const fetching& tell);
};

} // namespace qor::heap
