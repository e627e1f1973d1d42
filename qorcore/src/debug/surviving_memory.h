// Inside tracing: memory that outlives its process, however that ends, because it belongs to a file.
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

    // A new file of zeros, with all its space on the disk. 0, or the system's error code; a file
    // that is there already stays as it is.
    int open(const std::string& path) noexcept;
    bool is_open() const noexcept { return m_bytes != nullptr; }
    char* bytes() const noexcept { return m_bytes; }

    // The file goes, too.
    void close() noexcept;

    // In the child of a fork: the file is the parent's.
    void leave() noexcept;

private:
    // ---- for each system
    void unmap() noexcept;
    void remove_file() noexcept;

    char* m_bytes = nullptr;
    std::string m_path;
};

// The full name of a file on a disk, for when the host has gone to another folder; empty for anything else.
std::string full_name_on_disk(const char* path) noexcept;

} // namespace qor::debug
