// Inside the library: unbuffered files, the seam to the operating system. Results are the system's error codes, 0 for
// success; qor::error::system_reason converts them to text.
#pragma once

#include "platform/file_status.h"

#include <cstddef>
#include <cstdint>

namespace qor::platform {

class raw_file {
public:
    // Use `read` for files that the user names; such a file may be a pipe or a device, and reading it may wait. Use
    // `regular` for files that the library looks for by itself, and for read_at(): it accepts only files on a disk and
    // never waits.
    enum class access { read, regular, truncate, append, create };

    // How a file on a disk is opened for a program that names it. Never waits.
    struct terms {
        bool reads = false;
        bool writes = false;
        bool creates = false;    // a missing file
        bool is_new = false;     // an existing file is refused
        bool is_shared = false;  // others may have the file open
        bool is_private = false; // a new file is for this user alone
        bool truncates = false;
        bool appends = false; // write() writes at the end
    };

    // Results of open(): not a file on a disk; the file to create already exists; another has the file open, and one of
    // the two does not share it.
    static const int not_regular;
    static const int is_taken;
    static const int in_use;

    // A result of remove(): the path leads to another file.
    static const int was_replaced;

    // Whether a result of open() means that there is no such file.
    static bool is_missing(int reason) noexcept;

    raw_file() noexcept = default;
    raw_file(const raw_file&) = delete;
    raw_file& operator=(const raw_file&) = delete;
    ~raw_file() { close(); }

    // Fails for a folder. Child processes that run another program do not inherit the file. The file never takes the
    // place of a closed standard stream.
    int open(const char* path, access how) noexcept;
    int open(const char* path, const terms& how) noexcept;

    // Closes the file in any case. A result other than 0 tells of earlier writes that failed.
    int close() noexcept;
    bool is_open() const noexcept { return m_handle >= 0; }

    // Reads up to `size` bytes. *count is 0 at the end of the file.
    int read(void* bytes, std::size_t size, std::size_t* count) noexcept;

    // Whether read() would wait now: a pipe or a device has nothing to read yet, but may still receive data.
    bool has_to_wait() const noexcept;

    // Reads from `offset`. Reads less than `size` bytes only at the end of the file.
    int read_at(std::uint64_t offset, void* bytes, std::size_t size, std::size_t* count) noexcept;

    int size(std::uint64_t* bytes) noexcept;
    int status(file_status& out) noexcept;

    // Writes all bytes at `offset`. *count is the number of bytes written, also on failure.
    int write_at(std::uint64_t offset, const void* bytes, std::size_t size, std::size_t* count) noexcept;

    // Writes all bytes, in as many calls as that takes. A file-size limit and a pipe without a reader are reported as
    // ordinary errors, not as signals. If `count` is not null, it receives the number of bytes written, also on
    // failure.
    int write(const void* bytes, std::size_t size, std::size_t* count = nullptr) noexcept;

    // Returns when all that was written is on the disk.
    int sync() noexcept;

    // Cuts the file, or adds zeros.
    int set_size(std::uint64_t size) noexcept;

    // Removes the name `path` of this open file.
    int remove(const char* path) noexcept;

    // The run that begins at a position: bytes, or a hole, which reads as zeros and takes no room on the disk.
    struct run {
        std::uint64_t length = 0;
        bool is_hole = false;
    };

    // Finds out what follows the position, up to `limit` bytes. Where the system does not tell, it is bytes, of which
    // there may be fewer.
    int next_run(std::uint64_t limit, run& out) noexcept;

    // Makes a hole of `size` bytes here as there is one at the position of `from`, and moves both positions behind it.
    // Only at the end of this file; elsewhere it returns `no_hole`, changes nothing, and the caller writes zeros.
    int skip_hole(raw_file& from, std::uint64_t size) noexcept;
    static const int no_hole;

    // Copies up to `limit` bytes from the position of `from` to the position of this file, inside the system, and
    // returns their number. If it is less, the system goes no further: the caller reads and writes the rest, if there
    // is any, and so meets the reason.
    std::uint64_t copy_from(raw_file& from, std::uint64_t limit) noexcept;

    // Whether `path` leads to this open file.
    bool is_at(const char* path) const noexcept;

    // Opens the file at `path` again for appending if the host has closed the descriptor or has opened another file
    // under its number. Does not reopen a pipe or a device, because opening one might wait. Returns 0, or the reason
    // why there is nothing to write to.
    int recover(const char* path) noexcept;

    // Truncates a file that is open for writing to its first `size` bytes; write() goes on there. Does nothing for a
    // file that has no size.
    void cut(std::uint64_t size) noexcept;

    // Takes over a handle or a descriptor that is open. Closes it on failure.
    int adopt(std::intptr_t handle) noexcept;
    std::intptr_t handle() const noexcept { return m_handle; }

private:
    std::intptr_t m_handle = -1; // the system's handle or descriptor
    bool m_appends = false;      // write() writes at the end
    // Identifies the file that was opened, on systems where the host may close a descriptor by its number.
    std::uint64_t m_identity[2] = {0, 0};
};

} // namespace qor::platform
