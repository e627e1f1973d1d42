#include "child/pipe_end_windows.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>

namespace {

constexpr DWORD buffer_size = 64 * 1024;

// Nobody else can open the pipe first: that fails, and so does a second one.
std::wstring new_name() {
    static std::atomic<unsigned long> count{0};
    LARGE_INTEGER now{};
    QueryPerformanceCounter(&now);
    std::wstring name = L"\\\\.\\pipe\\qor.";
    for (const unsigned long long part :
         {static_cast<unsigned long long>(GetCurrentProcessId()), static_cast<unsigned long long>(++count),
          static_cast<unsigned long long>(now.QuadPart)})
        name.append(std::to_wstring(part)).append(L".");
    return name;
}

} // namespace

int qor::child::pipe_end::make(bool child_reads, HANDLE& childs) noexcept {
    m_buffer = std::make_unique<char[]>(buffer_size);
    m_event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (m_event == nullptr)
        return static_cast<int>(GetLastError());
    const std::wstring name = new_name();
    m_handle = CreateNamedPipeW(name.c_str(),
                                (child_reads ? PIPE_ACCESS_OUTBOUND : PIPE_ACCESS_INBOUND) | FILE_FLAG_OVERLAPPED |
                                    FILE_FLAG_FIRST_PIPE_INSTANCE,
                                PIPE_TYPE_BYTE | PIPE_REJECT_REMOTE_CLIENTS, 1, buffer_size, buffer_size, 0, nullptr);
    if (m_handle == INVALID_HANDLE_VALUE)
        return static_cast<int>(GetLastError());
    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
    childs = CreateFileW(name.c_str(), child_reads ? GENERIC_READ : GENERIC_WRITE, 0, &inheritable, OPEN_EXISTING,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
    return childs != INVALID_HANDLE_VALUE ? 0 : static_cast<int>(GetLastError());
}

void qor::child::pipe_end::close() noexcept {
    if (m_is_busy) {
        DWORD ignored;
        CancelIoEx(m_handle, &m_operation);
        GetOverlappedResult(m_handle, &m_operation, &ignored, TRUE);
    }
    m_is_busy = false;
    if (m_handle != INVALID_HANDLE_VALUE)
        CloseHandle(m_handle);
    if (m_event != nullptr)
        CloseHandle(m_event);
    m_handle = INVALID_HANDLE_VALUE;
    m_event = nullptr;
    m_begin = m_end = 0;
}

int qor::child::pipe_end::begin_read() noexcept {
    if (m_is_busy || m_begin < m_end)
        return 0;
    m_begin = m_end = 0;
    m_operation = {};
    m_operation.hEvent = m_event;
    if (!ReadFile(m_handle, m_buffer.get(), buffer_size, nullptr, &m_operation)) {
        const DWORD code = GetLastError();
        if (code != ERROR_IO_PENDING)
            return static_cast<int>(code);
    }
    m_is_busy = true;
    return 0;
}

int qor::child::pipe_end::end_read(const char*& bytes, uint64& count) noexcept {
    if (m_is_busy) {
        if (!GetOverlappedResult(m_handle, &m_operation, &m_end, FALSE)) {
            const DWORD code = GetLastError();
            m_is_busy = code == ERROR_IO_INCOMPLETE;
            return static_cast<int>(code);
        }
        m_is_busy = false;
    }
    bytes = m_buffer.get() + m_begin;
    count = m_end - m_begin;
    return 0;
}

// The bytes are copied, because a write that is given up may go on for a moment.
int qor::child::pipe_end::begin_write(const char* bytes, uint64 length) noexcept {
    const auto part = static_cast<DWORD>(std::min<uint64>(length, buffer_size));
    std::memcpy(m_buffer.get(), bytes, part);
    m_operation = {};
    m_operation.hEvent = m_event;
    if (!WriteFile(m_handle, m_buffer.get(), part, nullptr, &m_operation)) {
        const DWORD code = GetLastError();
        if (code != ERROR_IO_PENDING)
            return static_cast<int>(code);
    }
    m_is_busy = true;
    return 0;
}

int qor::child::pipe_end::end_write(uint64& written) noexcept {
    DWORD count = 0;
    if (!GetOverlappedResult(m_handle, &m_operation, &count, FALSE)) {
        const DWORD code = GetLastError();
        m_is_busy = code == ERROR_IO_INCOMPLETE;
        return static_cast<int>(code);
    }
    m_is_busy = false;
    written += count;
    return 0;
}

uint64 qor::child::pipe_end::cancel_write() noexcept {
    DWORD count = 0;
    CancelIoEx(m_handle, &m_operation);
    const bool is_written = GetOverlappedResult(m_handle, &m_operation, &count, TRUE);
    m_is_busy = false;
    return is_written ? count : 0;
}
