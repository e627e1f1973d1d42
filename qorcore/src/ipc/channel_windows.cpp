// Named pipes and a completion port. The port tells that an operation has ended; what the rest of the library asks is
// whether one would wait. So each end of a pipe has a buffer that is being read into, and one that is being written
// from.
#include "error/error.h"
#include "ipc/address.h"
#include "ipc/channel.h"
#include "ipc/thread_start.h"
#include "platform/system_library_windows.h"
#include "platform/wide_windows.h"
#include "qor/glue/own_rights_windows.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <mutex>
#include <sddl.h>
#include <string_view>
#include <vector>

namespace {

constexpr DWORD buffer_size = 32 * 1024; // of a pipe, and of what is read
constexpr std::size_t most_written = 64 * 1024;
constexpr uint64 key_of_waker = 0;
constexpr ULONG most_entries = 128;
constexpr uint64 ticks_per_ms = qorTicksPerSecond / 1000;
constexpr DWORD pipe_pause = 50; // milliseconds, for which a client waits for an instance at a time

// What a channel shares with the operations that are under way, which may outlive it.
struct pipe_state;

struct operation {
    OVERLAPPED system{}; // the first: the port returns its address
    enum class kind { read, write, connect, again } what = kind::read;
    uint64 key = 0;
    std::shared_ptr<pipe_state> of; // while it is under way
};

struct pipe_state {
    std::mutex lock;
    HANDLE pipe = INVALID_HANDLE_VALUE;
    HANDLE port = nullptr;
    uint64 key = 0;

    operation reading;
    std::unique_ptr<char[]> input;
    DWORD begin = 0; // of what has been read and not taken
    DWORD end = 0;
    bool is_reading = false;
    bool wants_input = false;
    int read_code = 0; // why nothing more comes

    operation writing;
    std::unique_ptr<char[]> output;
    DWORD output_size = 0;
    bool is_writing = false;
    bool wants_output = false;
    int write_code = 0;
    int shown_code = 0;
};

bool is_end(int code) noexcept {
    return code == ERROR_BROKEN_PIPE || code == ERROR_NO_DATA || code == ERROR_HANDLE_EOF ||
           code == ERROR_PIPE_NOT_CONNECTED || code == ERROR_OPERATION_ABORTED || code == ERROR_INVALID_HANDLE;
}

// Under the lock. Begins to read, unless that was begun or something is there.
void begin_read(const std::shared_ptr<pipe_state>& of) noexcept {
    if (of->is_reading || of->begin != of->end || of->read_code != 0)
        return;
    if (of->input == nullptr)
        of->input = std::make_unique_for_overwrite<char[]>(buffer_size);
    of->begin = of->end = 0;
    of->reading.system = {};
    of->reading.what = operation::kind::read;
    of->reading.key = of->key;
    of->reading.of = of;
    of->is_reading = true;
    if (ReadFile(of->pipe, of->input.get(), buffer_size, nullptr, &of->reading.system) ||
        GetLastError() == ERROR_IO_PENDING)
        return;
    of->read_code = static_cast<int>(GetLastError());
    of->is_reading = false;
    of->reading.of.reset();
}

// Under the lock. Lets the port tell that there is something, or the end, although no operation has ended.
void tell_again(const std::shared_ptr<pipe_state>& of) noexcept {
    auto* const again = new operation;
    again->what = operation::kind::again;
    again->key = of->key;
    again->of = of;
    if (!PostQueuedCompletionStatus(of->port, 0, of->key, &again->system))
        delete again;
}

void close_pipe(pipe_state& of) noexcept {
    const std::lock_guard hold(of.lock);
    if (of.pipe == INVALID_HANDLE_VALUE)
        return;
    CloseHandle(of.pipe); // this cancels what is under way
    of.pipe = INVALID_HANDLE_VALUE;
}

std::string text_of_sid(PSID sid) {
    static auto* const print =
        qor::platform::find_function<decltype(ConvertSidToStringSidW)>(L"advapi32.dll", "ConvertSidToStringSidW");
    LPWSTR wide = nullptr;
    if (print == nullptr || !print(sid, &wide))
        return {};
    std::string out = qor::platform::from_wide(wide);
    LocalFree(wide);
    return out;
}

// Who the process on the other side is.
bool get_peer(DWORD process, qor::ipc::peer& out) {
    out.process = process;
    const HANDLE opened = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process);
    if (opened == nullptr)
        return false;
    HANDLE token = nullptr;
    const bool is_there = OpenProcessToken(opened, TOKEN_QUERY, &token);
    CloseHandle(opened);
    if (!is_there)
        return false;
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    std::vector<unsigned char> user(size);
    const bool is_known = size != 0 && GetTokenInformation(token, TokenUser, user.data(), size, &size);
    CloseHandle(token);
    if (!is_known)
        return false;
    const std::vector<unsigned char> own = qor::glue::current_user();
    out.user = text_of_sid(qor::glue::sid_of(user));
    out.is_own_user = !own.empty() && EqualSid(qor::glue::sid_of(user), qor::glue::sid_of(own));
    return true;
}

// The part of the address that names the pipe; empty with the last error set if it is wrong.
std::string name_of(const char* address) {
    std::string_view rest = address;
    if (rest.starts_with("pipe:"))
        rest.remove_prefix(5);
    if (qor::ipc::is_plain_name(rest))
        return std::string(rest);
    qor::ipc::refuse_address(address, 0);
    return {};
}

std::wstring wide_name(const wchar_t* begin, const std::string& name) {
    std::wstring out = begin;
    out.append(name.begin(), name.end()); // letters of ASCII only
    return out;
}

} // namespace

unsigned qor::ipc::generation() noexcept { return 0; }

int qor::ipc::start_thread(void (*run)(void* context) noexcept, void* context, thread::handle& out) noexcept {
    return thread::start(0, run, context, out);
}

// ---- channel

struct qor::ipc::channel::system {
    std::shared_ptr<pipe_state> state = std::make_shared<pipe_state>();
};

qor::ipc::channel::channel() noexcept : m_system(std::make_unique<system>()) {}
qor::ipc::channel::channel(channel&& other) noexcept = default;
qor::ipc::channel& qor::ipc::channel::operator=(channel&& other) noexcept = default;
qor::ipc::channel::~channel() {
    if (m_system != nullptr)
        close_pipe(*m_system->state);
}

bool qor::ipc::channel::is_open() const noexcept { return m_system->state->pipe != INVALID_HANDLE_VALUE; }
void qor::ipc::channel::close() noexcept { close_pipe(*m_system->state); }
int qor::ipc::channel::code() const noexcept { return m_system->state->shown_code; }

// A pipe has one end for both directions. Writing fails there only if the other end is gone.
void qor::ipc::channel::shut_writing() noexcept {}

void qor::ipc::channel::shut() noexcept {
    const std::lock_guard hold(m_system->state->lock);
    if (is_open())
        CancelIoEx(m_system->state->pipe, nullptr);
}

qor::ipc::io qor::ipc::channel::read(const piece* pieces, unsigned count, std::size_t& got) noexcept {
    const std::shared_ptr<pipe_state>& of = m_system->state;
    const std::lock_guard hold(of->lock);
    got = 0;
    for (unsigned i = 0; i < count && of->begin != of->end && !of->is_reading; ++i) {
        const std::size_t part = std::min<std::size_t>(pieces[i].length, of->end - of->begin);
        std::memcpy(pieces[i].bytes, of->input.get() + of->begin, part);
        of->begin += static_cast<DWORD>(part);
        got += part;
    }
    begin_read(of);
    if (got != 0) {
        // What is left, or the end, is told as the end of an operation would be.
        if (of->wants_input && !of->is_reading)
            tell_again(of);
        return io::done;
    }
    if (of->read_code == 0)
        return io::would_wait;
    of->shown_code = of->read_code;
    return is_end(of->read_code) ? io::ended : io::failed;
}

qor::ipc::io qor::ipc::channel::write(const piece* pieces, unsigned count, std::size_t& written) noexcept {
    const std::shared_ptr<pipe_state>& of = m_system->state;
    const std::lock_guard hold(of->lock);
    written = 0;
    if (of->write_code != 0) {
        of->shown_code = of->write_code;
        return is_end(of->write_code) ? io::ended : io::failed;
    }
    if (of->is_writing)
        return io::would_wait;
    std::size_t total = 0;
    for (unsigned i = 0; i < count; ++i)
        total += pieces[i].length;
    total = std::min(total, most_written);
    if (total > of->output_size) {
        of->output_size = static_cast<DWORD>(std::max<std::size_t>(total, 4096));
        of->output = std::make_unique_for_overwrite<char[]>(of->output_size);
    }
    for (unsigned i = 0; i < count && written < total; ++i) {
        const std::size_t part = std::min(pieces[i].length, total - written);
        std::memcpy(of->output.get() + written, pieces[i].bytes, part);
        written += part;
    }
    of->writing.system = {};
    of->writing.what = operation::kind::write;
    of->writing.key = of->key;
    of->writing.of = of;
    of->is_writing = true;
    // Where no port is known yet, nobody else writes; the end of this operation is told to the port later.
    if (WriteFile(of->pipe, of->output.get(), static_cast<DWORD>(total), nullptr, &of->writing.system) ||
        GetLastError() == ERROR_IO_PENDING)
        return io::done;
    of->write_code = of->shown_code = static_cast<int>(GetLastError());
    of->is_writing = false;
    of->writing.of.reset();
    written = 0;
    return is_end(of->write_code) ? io::ended : io::failed;
}

bool qor::ipc::channel::wait_writable(uint32) noexcept { return false; }

// ---- listener

struct qor::ipc::listener::system {
    HANDLE mutex = nullptr; // of the name, as long as the server is there
    std::wstring name;
    bool is_open = false;
    bool for_any_user = false;
    HANDLE port = nullptr;
    std::shared_ptr<pipe_state> next; // the instance that waits for a client
    bool is_connected = false;        // somebody has come
    int code = 0;

    int make_instance(bool is_first);
    int wait_for_client();
};

qor::ipc::listener::listener() noexcept : m_system(std::make_unique<system>()) {}
qor::ipc::listener::~listener() { close(); }

int qor::ipc::listener::system::make_instance(bool is_first) {
    const glue::own_rights own;
    SECURITY_DESCRIPTOR open_to_all;
    SECURITY_ATTRIBUTES all = {sizeof all, &open_to_all, FALSE};
    SECURITY_ATTRIBUTES* rights = const_cast<glue::own_rights&>(own).get();
    if (for_any_user) {
        // No list lets everybody of this computer in.
        if (!InitializeSecurityDescriptor(&open_to_all, SECURITY_DESCRIPTOR_REVISION) ||
            !SetSecurityDescriptorDacl(&open_to_all, TRUE, nullptr, FALSE))
            return static_cast<int>(GetLastError());
        rights = &all;
    }
    if (rights == nullptr)
        return static_cast<int>(GetLastError());
    next = std::make_shared<pipe_state>();
    next->pipe = CreateNamedPipeW(
        name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | (is_first ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0u),
        PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, PIPE_UNLIMITED_INSTANCES,
        buffer_size, buffer_size, 0, rights);
    return next->pipe != INVALID_HANDLE_VALUE ? 0 : static_cast<int>(GetLastError());
}

// The port tells when somebody comes.
int qor::ipc::listener::system::wait_for_client() {
    next->port = port;
    if (CreateIoCompletionPort(next->pipe, port, next->key, 0) == nullptr)
        return static_cast<int>(GetLastError());
    next->reading.system = {};
    next->reading.what = operation::kind::connect;
    next->reading.key = next->key;
    next->reading.of = next;
    if (ConnectNamedPipe(next->pipe, &next->reading.system) || GetLastError() == ERROR_IO_PENDING)
        return 0;
    const int result = static_cast<int>(GetLastError());
    next->reading.of.reset();
    if (result != ERROR_PIPE_CONNECTED)
        return result;
    tell_again(next);
    return 0;
}

bool qor::ipc::listener::open(const char* address, bool for_any_user, std::string& full) {
    system& own = *m_system;
    const std::string name = name_of(address);
    if (name.empty())
        return false;
    full.assign("pipe:").append(name);
    own.for_any_user = for_any_user;
    own.name = wide_name(L"\\\\.\\pipe\\qor.", name);
    // Not every system refuses a first instance of a pipe that is there, so a mutex goes before, and a look.
    own.mutex = CreateMutexW(nullptr, TRUE, wide_name(L"Global\\qor.pipe.", name).c_str());
    const bool is_held = own.mutex == nullptr || GetLastError() == ERROR_ALREADY_EXISTS;
    const bool is_there = !is_held && (WaitNamedPipeW(own.name.c_str(), 1) || GetLastError() != ERROR_FILE_NOT_FOUND);
    const int code = is_held || is_there ? ERROR_ACCESS_DENIED : own.make_instance(true);
    if (code == 0) {
        own.is_open = true;
        return true;
    }
    if (own.mutex != nullptr)
        CloseHandle(own.mutex);
    own.mutex = nullptr;
    if (code == ERROR_ACCESS_DENIED || code == ERROR_PIPE_BUSY)
        error::set(qorError_ipc_address_taken, {full.c_str()});
    else
        error::set_with_reason(qorError_ipc_cannot_listen, full.c_str(), code);
    return false;
}

// The client that has come gets the instance, and a further one waits for the next.
qor::ipc::io qor::ipc::listener::accept(channel& out, peer& from) noexcept {
    system& own = *m_system;
    if (own.code == 0 && !own.is_connected)
        return io::would_wait;
    if (own.is_connected) {
        const std::shared_ptr<pipe_state> come = own.next;
        const uint64 key = come->key;
        own.is_connected = false;
        own.code = own.make_instance(false);
        own.next->key = key;
        own.next->port = own.port;
        if (own.code == 0)
            own.code = own.wait_for_client();
        come->key = 0;
        out.m_system->state = come;
        ULONG process = 0;
        if (GetNamedPipeClientProcessId(come->pipe, &process) && get_peer(process, from))
            return io::done;
        from.is_own_user = false;
        return io::done;
    }
    // There was no instance to wait with.
    const uint64 key = own.next->key;
    own.code = own.make_instance(false);
    own.next->key = key;
    own.next->port = own.port;
    if (own.code == 0)
        own.code = own.wait_for_client();
    return own.code == 0 ? io::would_wait : io::failed;
}

void qor::ipc::listener::close() noexcept {
    system& own = *m_system;
    if (!own.is_open)
        return;
    own.is_open = false;
    close_pipe(*own.next);
    CloseHandle(own.mutex);
    own.mutex = nullptr;
}

// ---- connecting

bool qor::ipc::connect(const char* address, uint32 ms, channel& out, peer& to, std::string& full) {
    const std::string name = name_of(address);
    if (name.empty())
        return false;
    full.assign("pipe:").append(name);
    const std::wstring wide = wide_name(L"\\\\.\\pipe\\qor.", name);
    HANDLE& pipe = out.m_system->state->pipe;
    const ULONGLONG begin = GetTickCount64();
    for (;;) {
        // The server may learn who this is, and not act in this user's name.
        pipe = CreateFileW(wide.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                           FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr);
        if (pipe != INVALID_HANDLE_VALUE || GetLastError() != ERROR_PIPE_BUSY)
            break;
        if (ms != 0 && GetTickCount64() - begin >= ms) {
            error::set(qorError_timed_out);
            return false;
        }
        WaitNamedPipeW(wide.c_str(), pipe_pause);
    }
    const DWORD code = GetLastError();
    if (pipe == INVALID_HANDLE_VALUE) {
        if (code == ERROR_FILE_NOT_FOUND)
            error::set(qorError_ipc_no_server, {full.c_str()});
        else
            error::set_with_reason(qorError_ipc_cannot_connect, full.c_str(), static_cast<int>(code));
        return false;
    }
    ULONG process = 0;
    if (GetNamedPipeServerProcessId(pipe, &process))
        get_peer(process, to); // a process that cannot be looked at is not of this user
    return true;
}

// ---- poller

struct qor::ipc::poller::system {
    HANDLE port = nullptr;
    listener::system* listens = nullptr;
    std::atomic<bool> is_awake{false};

    bool take(OVERLAPPED* ended, DWORD code, event& out);
};

qor::ipc::poller::poller() noexcept : m_system(std::make_unique<system>()) {}

// What is still under way ends with its pipe; the port has to tell all of it before it goes.
qor::ipc::poller::~poller() {
    if (m_system->port == nullptr)
        return;
    OVERLAPPED_ENTRY entries[most_entries];
    ULONG count = 0;
    while (GetQueuedCompletionStatusEx(m_system->port, entries, most_entries, &count, 0, FALSE) && count != 0)
        for (ULONG i = 0; i < count; ++i) {
            event ignored{};
            if (entries[i].lpOverlapped != nullptr)
                m_system->take(entries[i].lpOverlapped, ERROR_OPERATION_ABORTED, ignored);
        }
    CloseHandle(m_system->port);
}

int qor::ipc::poller::open() noexcept {
    m_system->port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1);
    return m_system->port != nullptr ? 0 : static_cast<int>(GetLastError());
}

int qor::ipc::poller::add(channel& which, uint64 key) noexcept {
    const std::shared_ptr<pipe_state>& of = which.m_system->state;
    const std::lock_guard hold(of->lock);
    of->key = key;
    // A pipe that was listened on belongs to the port already.
    if (of->port == nullptr && CreateIoCompletionPort(of->pipe, m_system->port, key, 0) == nullptr)
        return static_cast<int>(GetLastError());
    of->port = m_system->port;
    return 0;
}

int qor::ipc::poller::add(listener& which, uint64 key) noexcept {
    m_system->listens = which.m_system.get();
    which.m_system->port = m_system->port;
    which.m_system->next->key = key;
    return which.m_system->wait_for_client();
}

// A write that has ended is told once. Who asks later, because another thread was writing meanwhile, is told again.
int qor::ipc::poller::set(channel& which, uint64, bool read, bool write) noexcept {
    const std::shared_ptr<pipe_state>& of = which.m_system->state;
    const std::lock_guard hold(of->lock);
    if (of->pipe == INVALID_HANDLE_VALUE)
        return 0;
    const bool asks_to_read = read && !of->wants_input;
    const bool asks_to_write = write && !of->wants_output;
    of->wants_input = read;
    of->wants_output = write;
    if (asks_to_read)
        begin_read(of);
    if ((asks_to_read && !of->is_reading) || (asks_to_write && !of->is_writing))
        tell_again(of);
    return 0;
}

int qor::ipc::poller::set(listener& which, uint64, bool read) noexcept {
    if (read && which.m_system->is_open)
        tell_again(which.m_system->next);
    return 0;
}

// Returns whether this is an event for the loop.
bool qor::ipc::poller::system::take(OVERLAPPED* ended, DWORD code, event& out) {
    auto* const which = reinterpret_cast<operation*>(ended);
    const operation::kind what = which->what;
    const uint64 key = which->key;
    const std::shared_ptr<pipe_state> of = std::move(which->of);
    out = {key, false, false};
    if (what == operation::kind::again)
        delete which;
    if (of == nullptr)
        return false;
    // The instance of the listener; it may have been closed since.
    if (listens != nullptr && listens->next == of && listens->is_open) {
        listens->is_connected = what == operation::kind::connect ? code == 0 : listens->code == 0;
        if (what == operation::kind::connect && code != 0)
            listens->code = static_cast<int>(code);
        out.can_read = true;
        return true;
    }
    const std::lock_guard hold(of->lock);
    switch (what) {
    case operation::kind::read:
        of->is_reading = false;
        if (code == 0) {
            of->begin = 0;
            of->end = static_cast<DWORD>(which->system.InternalHigh);
            if (of->end == 0) // a message of no bytes, which is no end
                begin_read(of);
        } else {
            of->read_code = static_cast<int>(code);
        }
        out.can_read = of->wants_input && !of->is_reading;
        break;
    case operation::kind::write:
        of->is_writing = false;
        if (code != 0)
            of->write_code = static_cast<int>(code);
        out.can_write = true;
        break;
    case operation::kind::again:
        out.can_read = of->wants_input && !of->is_reading;
        out.can_write = of->wants_output && !of->is_writing;
        break;
    case operation::kind::connect:
        break;
    }
    out.key = of->key;
    return out.can_read || out.can_write;
}

unsigned qor::ipc::poller::wait(event* out, unsigned most, uint64 until, uint64 now) noexcept {
    constexpr uint64 longest = 3'600'000; // milliseconds; then the caller looks again
    const uint64 left = until > now ? (until - now) / ticks_per_ms + 1 : 0;
    static auto* const reason = platform::find_function<ULONG WINAPI(NTSTATUS)>(L"ntdll.dll", "RtlNtStatusToDosError");
    OVERLAPPED_ENTRY entries[most_entries];
    ULONG count = 0;
    if (!GetQueuedCompletionStatusEx(m_system->port, entries, std::min<ULONG>(most, most_entries), &count,
                                     static_cast<DWORD>(std::min(left, longest)), FALSE))
        return 0;
    unsigned told = 0;
    for (ULONG i = 0; i < count; ++i) {
        if (entries[i].lpOverlapped == nullptr) {
            m_system->is_awake = false;
            continue;
        }
        const auto status = static_cast<NTSTATUS>(entries[i].lpOverlapped->Internal);
        const DWORD code = status == 0 || reason == nullptr ? static_cast<DWORD>(status) : reason(status);
        if (m_system->take(entries[i].lpOverlapped, code, out[told]))
            ++told;
    }
    return told;
}

void qor::ipc::poller::wake() noexcept {
    if (!m_system->is_awake.exchange(true))
        PostQueuedCompletionStatus(m_system->port, 0, key_of_waker, nullptr);
}
