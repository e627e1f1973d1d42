// Inside the module qor-openssl: files that only their owner may use. Reasons are in the user's language. Thread-safe;
// throws std::bad_alloc.
#pragma once

#include "message_names.h"

#include <chrono>
#include <string>
#include <string_view>

namespace qor::control {

// Reads a whole file. For a missing file, the text is empty and `is_missing` true. Returns false if the file cannot be
// read, is not a plain file, or if others than its owner may read or write it.
bool read_private_file(const std::string& path, std::string& text, std::string& reason, bool& is_missing);

// Like the above for a file that is not secret: others may read it, but not write it.
bool read_own_file(const std::string& path, std::string& text, std::string& reason);

// Replaces a file atomically; only its owner has access to the new one. Makes missing folders, also for the owner only,
// but never in a folder of another user. The caller must hold a private_file_lock, which keeps other writers out.
bool write_private_file(const std::string& path, std::string_view text, std::string& reason);

// Returns the path of a file in the framework's configuration folder, for the user who runs this process. On false, the
// last error gives the reason.
bool configuration_file(const char* name, std::string& path);

// Our files are small, so longer ones are rejected.
inline constexpr std::size_t longest_private_file = 16 << 20;

// Makes the missing folders of a file, as write_private_file needs them.
bool make_private_folders(const std::string& path, std::string& reason);

// A reason in the catalog "qorcore".
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

// The longest wait for a lock that another process holds.
inline constexpr std::chrono::seconds lock_patience{20};

// While this object lives, no other process that asks for the lock changes the file. The lock is on a separate file
// beside it, "<file>.lock", which only its owner can open: other users could lock any file that they may read.
class private_file_lock {
public:
    explicit private_file_lock(const std::string& file);
    private_file_lock(const private_file_lock&) = delete;
    private_file_lock& operator=(const private_file_lock&) = delete;
    ~private_file_lock();

    // On false, `reason` has the text.
    bool is_held(std::string& reason) const {
        reason = m_reason;
        return m_handle != -1;
    }

private:
    long long m_handle = -1; // the system's handle or descriptor
    std::string m_path;
    std::string m_reason;
};

} // namespace qor::control
