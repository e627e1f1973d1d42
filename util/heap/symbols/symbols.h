// Functions, source files and lines of the addresses in a profile, with the functions that are inlined there.
//
// The files that a profile names, and what is in them, are strangers' input. On Linux, processes of their own read
// them, with limits of time and memory: a file that makes libdw fail costs the symbols of that file and nothing else.
// On Windows the files are read in this process.
#pragma once

#include "qor/system/Types.h"

#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace qor::heap {

struct profile;

// A place in the sources. The texts are valid as long as the `symbols` that gave them; they may hold any bytes.
struct source_place {
    std::string_view function; // demangled; empty: unknown
    std::string_view file;     // empty: unknown
    uint32 line = 0;           // 0: unknown
};

struct symbol_options {
    // Folders with separate debug files, laid out as in /usr/lib/debug. Not on Windows.
    std::vector<std::string> debug_folders = {"/usr/lib/debug"};

    // Ask the servers that the environment variable DEBUGINFOD_URLS names, if it names any. Not on Windows.
    bool may_fetch = true;

    // The longest time for a file, and for fetching one.
    std::chrono::seconds file_time{120};
    std::chrono::seconds fetch_time{90};

    // The most memory of a process that reads files, beyond that of this process.
    uint64 memory = uint64{8} << 30;

    // Processes that read files at the same time; 0: as many as there are processors, up to 4.
    uint32 processes = 0;
};

// How the symbols of a module came out.
enum class symbol_status : uint8 {
    not_asked,            // no frame lies in it
    ok,                   // functions and lines
    no_debug_information, // functions from the table of symbols, and no lines
    no_file,              // there is no file of this path
    changed,              // the file is another one than the one recorded; it was not used
    refused,              // the path is not absolute, or names no regular file, or on Windows a share or a device
    damaged,              // the file is no object file, or reading it failed
    too_slow,             // the time limit was reached
    no_reader,            // the library that reads debug information is missing
    interrupted,          // the caller ended the search
};

struct module_symbols {
    symbol_status status = symbol_status::not_asked;
    bool is_unverified = false; // the recording has no build id: the file may be another one
    std::string file;           // the one with the debug information, or with the symbols
    std::string server;         // not empty: `file` was fetched because DEBUGINFOD_URLS names this server
    std::string reason;         // in the words of the system or of a library; may be empty
};

// A step of the search. The texts are valid during the call.
struct symbol_progress {
    enum class what : uint8 {
        module_done, // `modules` of `all_modules` are done
        fetching,    // a file of debug information is being fetched: `done` of `all` bytes, 0 of 0 at the beginning
    };
    what kind;
    uint32 modules, all_modules;
    std::string_view path;    // of the module
    std::string_view servers; // that are asked
    uint64 done = 0, all = 0;
};

// Not to be used on several threads at once.
class symbols {
public:
    // Returns false to end the search. It is called every tenth of a second or more often, with null if nothing is new.
    using progress = std::function<bool(const symbol_progress*)>;

    explicit symbols(symbol_options options = {});

    // The places of each frame of the profile, the innermost inlined function first. A frame about which nothing is
    // known has none. A frame's address is that to which a call returns, so the place is that of the byte before it.
    std::vector<std::vector<source_place>> resolve(const profile& of, const progress& tell = {});

    // Of the last resolve(): one for each module of the profile.
    const std::vector<module_symbols>& modules() const noexcept { return m_modules; }

    // The same for addresses as such, in the file of each module. `is_return`: they are return addresses.
    struct addresses {
        std::string path;
        std::string build_id; // raw bytes; empty: unknown
        std::vector<uint64> of;
        uint64 recorded_ns = 0; // since 1970; 0: unknown. Tells whether a file without a build id is newer
    };
    std::vector<std::vector<std::vector<source_place>>> resolve(const std::vector<addresses>& modules, bool is_return,
                                                                const progress& tell = {});

private:
    std::string_view keep(std::string_view text);

    symbol_options m_options;
    std::vector<module_symbols> m_modules;
    std::deque<std::string> m_texts;
    std::unordered_set<std::string_view> m_known;
};

} // namespace qor::heap
