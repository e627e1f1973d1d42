// Inside the library: unbuffered files, the seam to the operating system. Results are error codes of the
// system, 0 for success; qor::error::system_reason words them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qor::platform {

class raw_file {
public:
    // `read` is for what the user names, which may be a pipe or a device and then makes him wait. `regular` is for all
    // that the library looks for by itself, and for reading at any place: it takes files on a disk only, and never
    // waits.
    enum class access { read, regular, truncate, append, create };

    // The codes of open() where `regular` meets a pipe or a device, and where a file that it should create is there
    // already.
    static const int not_regular;
    static const int is_taken;

    // Whether a code of open() says that there is no such file.
    static bool is_missing(int reason) noexcept;

    raw_file() noexcept = default;
    raw_file(const raw_file&) = delete;
    raw_file& operator=(const raw_file&) = delete;
    ~raw_file() { close(); }

    // A folder cannot be opened. Child processes that run another program do not inherit the file, and it
    // never takes the place of a closed standard stream.
    int open(const char* path, access how) noexcept;
    void close() noexcept;
    bool is_open() const noexcept { return m_handle >= 0; }

    // Up to `size` bytes; *count 0 is the end of the file.
    int read(void* bytes, std::size_t size, std::size_t* count) noexcept;

    // Whether read() would wait now: a pipe or a device has nothing to read yet, and may still get something.
    bool has_to_wait() const noexcept;

    // The same as read() from a place of choice; less than `size` only at the end of the file.
    int read_at(std::uint64_t offset, void* bytes, std::size_t size, std::size_t* count) noexcept;

    int size(std::uint64_t* bytes) noexcept;

    // All of them, however many calls it takes. A file that may grow no further and a pipe without a reader
    // are errors like any other, no signals.
    int write(const void* bytes, std::size_t size) noexcept;

    // Opens the file at `path` again, to append to it, if the host has closed what it did not open, or made
    // another file of it. A pipe or a device is not opened again, for that might wait. 0, or why there is nothing to
    // write to.
    int recover(const char* path) noexcept;

    // Ends a file that is written here after its first `size` bytes. What has no size stays as it is.
    void cut(std::uint64_t size) noexcept;

private:
    std::intptr_t m_handle = -1; // the system's
    // Where hosts close handles by their numbers: what it stood for at first.
    std::uint64_t m_identity[2] = {0, 0};
};

} // namespace qor::platform
