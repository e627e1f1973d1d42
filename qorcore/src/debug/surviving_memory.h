// Inside tracing: memory that survives the end of its process, however it ends, because it belongs to a file.
#pragma once

#include <cstddef>
#include <string>

namespace qor::debug {

class surviving_memory {
public:
    static constexpr std::size_t size = 65536;

    surviving_memory() noexcept = default;
    surviving_memory(const surviving_memory&) = delete;
    surviving_memory& operator=(const surviving_memory&) = delete;

    // Creates a new file of zeros and allocates all its disk space. Returns 0, or the system's error code; an existing
    // file is left alone.
    int open(const std::string& path) noexcept;
    bool is_open() const noexcept { return m_bytes != nullptr; }
    char* bytes() const noexcept { return m_bytes; }

    // Unmaps the memory and deletes the file.
    void close() noexcept;

    // For a forked child: unmaps the memory only, because the file belongs to the parent.
    void leave() noexcept;

private:
    // ---- implemented for each system
    void unmap() noexcept;
    void remove_file() noexcept;

    char* m_bytes = nullptr;
    std::string m_path;
};

// Returns the absolute path of a file on a disk, which stays valid when the process changes its current folder. Empty
// for anything else.
std::string full_name_on_disk(const char* path) noexcept;

} // namespace qor::debug
