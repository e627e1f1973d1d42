// Properties of the system that tests need to know.
#pragma once

#include "support/temp_folder.h"

#include <string>
#include <vector>

namespace qor::test {

std::string process_id();
std::string thread_id(); // of the calling thread

// Returns when all of these threads of this process are asleep or gone. Each must be about to wait for one event and do
// nothing else. If the system does not report the states of threads, only waits for `milliseconds`.
void wait_until_asleep(const std::vector<std::string>& thread_ids, int milliseconds);
extern const bool tells_who_sleeps;

// Whether the system tells how much memory a process has used when it has ended.
extern const bool tells_memory_of_ended;

// Sends Ctrl-C to this process.
void interrupt_process();

// Ends this process at once, without running any more of its code; the exit code that others then see.
void kill_process();
inline constexpr int killed_code = 137;

// Returns the program's default name.
std::string program_name();

// The system's texts for errors with a path.
struct reasons {
    std::string no_file;   // the last part is missing
    std::string no_folder; // an earlier part is missing
    std::string a_folder;  // the path is a folder
    std::string below_a_file;
    std::string no_name; // the text is empty
    std::string full;    // the disk is full
};
reasons system_reasons();

// A file that accepts no byte, as on a full disk. Null: this system has none.
extern const char* const full_disk;

// Sets a locale whose decimal point is a comma while this object lives.
class comma_locale {
public:
    comma_locale();
    comma_locale(const comma_locale&) = delete;
    comma_locale& operator=(const comma_locale&) = delete;
    ~comma_locale();

private:
    temp_folder m_folder;
};

} // namespace qor::test

// Skips a test of a full disk if the system has no such file.
#define QOR_NEEDS_FULL_DISK()                                                                                          \
    if (qor::test::full_disk == nullptr)                                                                               \
    GTEST_SKIP() << "this system has no file that is always full"
