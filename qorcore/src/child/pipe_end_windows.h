// Inside the Windows half of child processes: the own process's end of a pipe. Windows waits with a limit only for
// pipes that have a name.
#pragma once

#include "child/child.h"

#include <memory>
#include <windows.h>

namespace qor::child {

class pipe_end {
public:
    pipe_end() noexcept = default;
    pipe_end(const pipe_end&) = delete;
    pipe_end& operator=(const pipe_end&) = delete;
    ~pipe_end() { close(); }

    // Makes a pipe whose other end the child inherits. Returns 0 or the system's code.
    int make(bool child_reads, HANDLE& childs) noexcept;
    bool is_open() const noexcept { return m_handle != INVALID_HANDLE_VALUE; }
    void close() noexcept;

    // An operation is under way, or its result is there.
    bool is_busy() const noexcept { return m_is_busy; }
    // Is set when it has ended.
    HANDLE event() const noexcept { return m_event; }

    // Begins to read, unless that was begun or there is something already. Returns 0 or the system's code, which is
    // ERROR_BROKEN_PIPE at the end of the stream.
    int begin_read() noexcept;
    // What has been read, after the event. ERROR_IO_INCOMPLETE: nothing yet.
    int end_read(const char*& bytes, uint64& count) noexcept;
    // Drops bytes that were taken.
    void take(uint64 count) noexcept { m_begin += static_cast<DWORD>(count); }

    // Begins to write as much as it takes, and gets how much was written.
    int begin_write(const char* bytes, uint64 length) noexcept;
    int end_write(uint64& written) noexcept;
    // Stops an operation; what has been written until then counts.
    uint64 cancel_write() noexcept;

private:
    HANDLE m_handle = INVALID_HANDLE_VALUE;
    HANDLE m_event = nullptr;
    OVERLAPPED m_operation{};
    std::unique_ptr<char[]> m_buffer;
    DWORD m_begin = 0;
    DWORD m_end = 0;
    bool m_is_busy = false;
};

} // namespace qor::child
