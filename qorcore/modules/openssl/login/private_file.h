// Inside the module qor-openssl: files that are their owner's alone. Reasons are in the user's language. Any thread;
// throws std::bad_alloc.
#pragma once

#include "message_names.h"

#include <chrono>
#include <string>
#include <string_view>

namespace qor::control {

// All of a file. One that is not there is empty, and `is_missing` says so. False: it cannot be read, is no plain file,
// or others than its owner may read or write it.
bool read_private_file(const std::string& path, std::string& text, std::string& reason, bool& is_missing);

// The same of a file that is no secret: others may read it, but not write it.
bool read_own_file(const std::string& path, std::string& text, std::string& reason);

// Puts a file in the place of the one that is there, whole or not at all, for its owner only. Folders that are missing
// on the way are made, for their owner only, too, but not in a folder of somebody else. A private_file_lock has to keep
// other writers off.
bool write_private_file(const std::string& path, std::string_view text, std::string& reason);

// Where a file of the framework's configuration folder is for the user that runs this process. False: the last error
// says why.
bool configuration_file(const char* name, std::string& path);

// Our files are small, so a longer one is refused.
inline constexpr std::size_t longest_private_file = 16 << 20;

// A reason of the catalog "qorcore".
enum class private_file_fault : unsigned {
    others_have_access = messages::framework::others_have_access,
    of_another_owner = messages::framework::of_another_owner,
    no_plain_file = messages::framework::not_a_plain_file,
    too_long = messages::framework::file_too_long,
    folder_of_another_owner = messages::framework::folder_of_another_owner,
    others_change_folder = messages::framework::others_change_folder,
    locked = messages::framework::file_locked,
};
std::string reason_of(private_file_fault fault, const std::string& insert = {});

// So long one waits for another's lock.
inline constexpr std::chrono::seconds lock_patience{20};

// While it lives no other process that asks for it changes this file. It is a lock of a file of its own beside it,
// "<file>.lock", that nobody but its owner can open: other users could hold the lock of anything that they may read.
class private_file_lock {
public:
    explicit private_file_lock(const std::string& file);
    private_file_lock(const private_file_lock&) = delete;
    private_file_lock& operator=(const private_file_lock&) = delete;
    ~private_file_lock();

    // False: `reason` says why.
    bool is_held(std::string& reason) const {
        reason = m_reason;
        return m_handle != -1;
    }

private:
    long long m_handle = -1; // the system's
    std::string m_path;
    std::string m_reason;
};

} // namespace qor::control
