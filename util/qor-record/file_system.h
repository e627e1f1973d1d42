// Files and folders of the system, by paths in UTF-8. Results are the system's error numbers, 0 for success.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qor::record {

// A file without a buffer.
class raw_file {
public:
    raw_file() = default;
    raw_file(const raw_file&) = delete;
    raw_file& operator=(const raw_file&) = delete;
    ~raw_file() { close(); }

    // For writing, with rights for the user alone where the system has such rights by themselves. Nothing that exists
    // is opened.
    int create(const std::string& path);
    // For reading. A link is not followed.
    int open(const std::string& path);
    bool is_open() const noexcept { return m_file != none; }
    void close();

    // Returns the number of bytes, 0 at the end or if it cannot be read.
    std::size_t read(char* data, std::size_t size);
    // Adds to `done` what was written, also if not all was.
    int write(const char* data, std::size_t size, std::size_t& done);
    void cut_to(std::uint64_t size);

private:
    static constexpr std::intptr_t none = -1;
    std::intptr_t m_file = none;
};

int remove_file(const std::string& path);
// Replaces a file that has this name.
int rename_file(const std::string& from, const std::string& to);
bool is_there(const std::string& path);
bool is_taken(int error) noexcept; // of create(): there is something of this name
bool is_missing(int error) noexcept;

// In the system's words.
std::string reason_of(int error);
extern const int out_of_memory;

enum class file_type { nothing, regular, other };
// A link is another thing than the file that it leads to.
file_type type_of(const std::string& path);

// The absolute path of a folder, links resolved where the system can; empty: there is no such folder.
std::string path_of_folder(const std::string& folder);
std::vector<std::string> names_in(const std::string& folder);

// Each of these characters parts the names of a path; the first one is the usual.
extern const char separators[];
inline std::size_t last_separator(const std::string& path) { return path.find_last_of(separators); }

} // namespace qor::record
