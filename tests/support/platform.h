// What tests have to know of the system that they run on.
#pragma once

#include "support/temp_folder.h"

#include <string>
#include <vector>

namespace qor::test {

std::string process_id();
std::string thread_id(); // the calling thread's

// Returns when all of these threads of this process are asleep, or gone; each must be about to do nothing but wait for
// one thing. Where the system does not tell, it only lets the milliseconds pass.
void wait_until_asleep(const std::vector<std::string>& thread_ids, int milliseconds);
extern const bool tells_who_sleeps;

// Ctrl-C, sent to this process by itself.
void interrupt_process();

// Ends this process at once, so that nothing of its own runs any more; the code that others see then.
void kill_process();
inline constexpr int killed_code = 137;

// The program's name as it is without being told.
std::string program_name();

// How the system words what went wrong with a path.
struct reasons {
    std::string no_file;   // the last part is not there
    std::string no_folder; // a part before it is not there
    std::string a_folder;  // it is a folder
    std::string below_a_file;
    std::string no_name; // an empty text
    std::string full;    // no room is left on the disk
};
reasons system_reasons();

// A file that takes no byte, as on a full disk. Null: this system has none.
extern const char* const full_disk;

// A locale whose decimal point is a comma, for as long as this object lives.
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

// For tests of a full disk.
#define QOR_NEEDS_FULL_DISK()                                                                                          \
    if (qor::test::full_disk == nullptr)                                                                               \
    GTEST_SKIP() << "this system has no file that is always full"
