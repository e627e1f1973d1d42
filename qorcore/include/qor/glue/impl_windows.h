// The Windows part of the code that every client compiles in: the binding to libqor, the wide command line, and the
// critical section and the event behind the synchronisation primitives (primitives.h).
//
// The few system calls are declared here, because windows.h would bring thousands of names into every client, including
// macros that rename members of the framework (GetMessage). A client may include windows.h before or after this file:
// it repeats the same declarations, and the renamed members exist as well (String.h).
#pragma once

#include "qor/glue/binding.h"

#include <cerrno>
#include <cstdlib>
#include <cwchar>
#include <io.h>
#include <memory>
#include <string>

struct HINSTANCE__;
struct _MEMORY_BASIC_INFORMATION;
struct _RTL_CRITICAL_SECTION;
struct _SECURITY_ATTRIBUTES;

extern "C" {
__declspec(dllimport) unsigned long __stdcall GetModuleFileNameW(HINSTANCE__*, wchar_t*, unsigned long);
__declspec(dllimport) HINSTANCE__* __stdcall LoadLibraryExW(const wchar_t*, void*, unsigned long);
__declspec(dllimport) HINSTANCE__* __stdcall LoadLibraryW(const wchar_t*);
__declspec(dllimport) long long(__stdcall* __stdcall GetProcAddress(HINSTANCE__*, const char*))();
__declspec(dllimport) unsigned long long __stdcall VirtualQuery(const void*, _MEMORY_BASIC_INFORMATION*,
                                                                unsigned long long);
__declspec(dllimport) int __stdcall SetThreadErrorMode(unsigned long, unsigned long*);
__declspec(dllimport) void __stdcall OutputDebugStringW(const wchar_t*);
__declspec(dllimport) __declspec(noreturn) void __stdcall ExitProcess(unsigned int);

__declspec(dllimport) wchar_t* __stdcall GetCommandLineW();
__declspec(dllimport) wchar_t** __stdcall CommandLineToArgvW(const wchar_t*, int*);
__declspec(dllimport) void* __stdcall GlobalFree(void*);
__declspec(dllimport) int __stdcall WideCharToMultiByte(unsigned int, unsigned long, const wchar_t*, int, char*, int,
                                                        const char*, int*);

__declspec(dllimport) void __stdcall InitializeCriticalSection(_RTL_CRITICAL_SECTION*);
__declspec(dllimport) void __stdcall DeleteCriticalSection(_RTL_CRITICAL_SECTION*);
__declspec(dllimport) void __stdcall EnterCriticalSection(_RTL_CRITICAL_SECTION*);
__declspec(dllimport) void __stdcall LeaveCriticalSection(_RTL_CRITICAL_SECTION*);

__declspec(dllimport) void* __stdcall CreateEventW(_SECURITY_ATTRIBUTES*, int, int, const wchar_t*);
__declspec(dllimport) int __stdcall SetEvent(void*);
__declspec(dllimport) int __stdcall ResetEvent(void*);
__declspec(dllimport) unsigned long __stdcall GetLastError();
__declspec(dllimport) void __stdcall SetLastError(unsigned long);
__declspec(dllimport) int __stdcall GetConsoleMode(void*, unsigned long*);

__declspec(dllimport) unsigned long __stdcall WaitForSingleObject(void*, unsigned long);
__declspec(dllimport) int __stdcall CloseHandle(void*);
}

namespace qor::glue {

// Suppresses the system's error dialogs on this thread, for as long as an object lives. Otherwise a damaged library
// would stop the thread at a dialog, which nobody sees in a script.
class no_dialogs {
public:
    no_dialogs() noexcept { SetThreadErrorMode(fail_critical_errors, &m_before); }
    no_dialogs(const no_dialogs&) = delete;
    no_dialogs& operator=(const no_dialogs&) = delete;
    ~no_dialogs() { SetThreadErrorMode(m_before, nullptr); }

private:
    static constexpr unsigned long fail_critical_errors = 1;
    unsigned long m_before = 0;
};

// Returns whether an export of a library can be called: it must lie in executable memory.
inline bool is_function(const void* entry) noexcept {
    // The beginning of the system's structure, in the same size.
    struct {
        void* begin;
        void* reserved_at;
        unsigned long first_protection;
        unsigned short partition;
        unsigned long long size;
        unsigned long state, protection, kind;
    } region;
    static_assert(sizeof region == 48);
    constexpr unsigned long executable = 0xf0; // execute; with read; with write; with copy on write
    return entry != nullptr &&
           VirtualQuery(entry, reinterpret_cast<_MEMORY_BASIC_INFORMATION*>(&region), sizeof region) == sizeof region &&
           (region.protection & executable) != 0;
}

#ifndef QOR_INSIDE

// The module whose folder contains libqor; null means the executable.
inline constinit HINSTANCE__* s_hinst = nullptr;

// The debugger channel: a failed binding never writes to the console.
inline void debugger_message(const wchar_t* text) noexcept { OutputDebugStringW(text); }

// Writes out what was printed before the first bound call. Flushes only the two output streams, because another thread
// may be reading from standard input and hold its lock.
[[noreturn]] inline void end_process() noexcept {
    std::fflush(stdout);
    std::fflush(stderr);
    ExitProcess(100);
}

// Loads libqor.dll from the folder of the executable (or of s_hinst); returns null if that fails. Its path keeps to the
// system's limit of 260 characters, although the buffer is larger; a longer path is treated like a missing library.
inline HINSTANCE__* load_beside_executable() noexcept {
    constexpr wchar_t name[] = L"libqor.dll";
    constexpr std::size_t path_limit = 260;
    constexpr unsigned long with_altered_search_path = 8; // libqor's own dependencies come from its folder
    wchar_t path[8192];
    const unsigned long length = GetModuleFileNameW(s_hinst, path, 8192);
    if (length == 0 || length == 8192)
        return nullptr;
    wchar_t* const backslash = std::wcsrchr(path, L'\\');
    if (backslash == nullptr)
        return nullptr;
    const std::size_t position = static_cast<std::size_t>(backslash - path);
    // wcscpy_s would end the process if the name did not fit.
    if (position + sizeof name / sizeof *name > path_limit)
        return nullptr;
    wcscpy_s(backslash + 1, path_limit - position, name);
    return LoadLibraryExW(path, nullptr, with_altered_search_path);
}

inline HINSTANCE__* load_library() noexcept {
    const no_dialogs hold;
    HINSTANCE__* library = load_beside_executable();
    if (library == nullptr) {
        debugger_message(L"FAILED LoadLibraryExW() of libqor.dll\n");
        library = LoadLibraryW(L"libqor.dll");
        if (library == nullptr) {
            debugger_message(L"FAILED path-base LoadLibraryW() of libqor.dll\n");
            assert_failed("false", bind_function, impl_file, 77);
            end_process();
        }
        debugger_message(L"WARNING Loaded libqor.dll using name only\n");
    }
    return library;
}

QOR_COLD inline const binding_table* bind() noexcept {
    HINSTANCE__* const library = load_library();
    auto* const entry =
        reinterpret_cast<binding_point*>(reinterpret_cast<void (*)()>(GetProcAddress(library, "glue_binding_point")));
    if (!is_function(reinterpret_cast<const void*>(entry))) {
        debugger_message(L"FAILED GetProcAddress() on libqor.dll for main entry point\n");
        assert_failed("false", bind_function, impl_file, 92);
        end_process();
    }
    return store_table(entry(), [](bool is_incomplete) {
        if (is_incomplete)
            debugger_message(L"FAILED libqor.dll lacks operations that this program needs\n");
        end_process();
    });
}

// Converts a system text to UTF-8. Invalid characters are replaced.
inline std::string to_utf8(const wchar_t* text) {
    constexpr unsigned int utf8 = 65001;
    const int size = WideCharToMultiByte(utf8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(utf8, 0, text, -1, out.data(), size, nullptr, nullptr);
    out.pop_back(); // the final zero, which the size counts
    return out;
}

#endif

// ---- what c_stream.h needs

inline int64 stream_terminal(std::FILE* stream) noexcept {
    const int before = errno;
    const unsigned long systems_before = GetLastError();
    const int file = _fileno(stream);
    const std::intptr_t handle = file >= 0 ? _get_osfhandle(file) : -1;
    unsigned long mode;
    const bool is_console = handle != -1 && GetConsoleMode(reinterpret_cast<void*>(handle), &mode) != 0;
    errno = before;
    SetLastError(systems_before);
    return is_console ? handle : -1;
}

inline void flush_standard_output() noexcept {
    const int before = errno;
    const unsigned long systems_before = GetLastError();
    std::fflush(stdout);
    errno = before;
    SetLastError(systems_before);
}

// The C library buffers standard error if it is redirected. A question or a warning would then appear only when the
// process ends.
inline void set_up_standard_error() noexcept { std::setvbuf(stderr, nullptr, _IONBF, 0); }

// The C library may have read some input already, which comes first. Newer run-times do not show it.
template <class STREAM>
int64 input_terminal(STREAM* stream) noexcept {
    if constexpr (requires { stream->_cnt; })
        if (stream->_cnt > 0)
            return -1;
    return stream_terminal(stream);
}

inline void lock_stream(std::FILE* stream) noexcept { _lock_file(stream); }
inline void unlock_stream(std::FILE* stream) noexcept { _unlock_file(stream); }

// The C library stores the system's error code in _doserrno, unless it detected the fault itself: then the stream was
// opened in another mode, or is closed.
inline int32 stream_failure() noexcept {
    constexpr int32 invalid_handle = 6;
    return _doserrno != 0 ? static_cast<int32>(_doserrno) : invalid_handle;
}

// A recursive mutex.
class critical_section {
public:
    static critical_section* create() noexcept {
        auto* const made = static_cast<critical_section*>(std::malloc(sizeof(critical_section)));
        if (made != nullptr)
            InitializeCriticalSection(made->section());
        return made;
    }

    static void destroy(critical_section* self) noexcept {
        if (self != nullptr)
            DeleteCriticalSection(self->section());
        std::free(self);
    }

    static void enter(critical_section* self) noexcept {
        if (self != nullptr)
            EnterCriticalSection(self->section());
    }

    static void leave(critical_section* self) noexcept {
        if (self != nullptr)
            LeaveCriticalSection(self->section());
    }

private:
    _RTL_CRITICAL_SECTION* section() noexcept { return reinterpret_cast<_RTL_CRITICAL_SECTION*>(m_storage); }

    // At least as large as the system's structure: four pointers and two 32-bit numbers.
    alignas(void*) unsigned char m_storage[4 * sizeof(void*) + 8];
};

// An event of the operating system. The pointer is its handle.
class event {
public:
    // The event is reset manually, or automatically by the one waiter that it releases.
    static event* create(bool manual_reset, bool set) noexcept {
        return static_cast<event*>(CreateEventW(nullptr, manual_reset, set, nullptr));
    }

    static void destroy(event* self) noexcept {
        if (self != nullptr)
            CloseHandle(self);
    }

    static void set(event* self) noexcept { SetEvent(self); }
    static void reset(event* self) noexcept { ResetEvent(self); }

    enum class outcome { signalled, timed_out, failed };

    // A limit of 0 means an infinite wait, as does 0xFFFFFFFF.
    static outcome wait(event* self, uint32 ms) noexcept {
        constexpr unsigned long infinite = 0xffffffff;
        constexpr unsigned long wait_timeout = 258;
        switch (WaitForSingleObject(self, ms != 0 ? ms : infinite)) {
        case 0:
            return outcome::signalled;
        case wait_timeout:
            return outcome::timed_out;
        default:
            return outcome::failed;
        }
    }

private:
    event() = delete;
};

} // namespace qor::glue

#ifndef QOR_INSIDE

// For a client that is itself a library: makes libqor load from the folder of that module, not of the executable. Call
// it once, before the first call of the framework.
inline void qorwinSetInstanceHandle(void* module) noexcept {
    if (qor::glue::s_hinst != nullptr)
        qor::glue::assert_failed("s_hinst == NULL", "void qorwinSetInstanceHandle(void*)", qor::glue::impl_file, 26);
    qor::glue::s_hinst = static_cast<HINSTANCE__*>(module);
}

// Replaces the content of `args` by the words of the process's command line, without the program's name. For a client
// without a main function, or one whose arguments were converted to a code page. Throws std::bad_alloc when memory runs
// out.
inline void qorwinSetupProcessArgs(qorStringArray& args) {
    int count = 0;
    wchar_t** const argvec = CommandLineToArgvW(GetCommandLineW(), &count);
    if (argvec == nullptr)
        qor::glue::assert_failed("argvec != NULL", "void qorwinSetupProcessArgs(qorStringArray&)", qor::glue::impl_file,
                                 115);
    qor::glue::qorStringArray_Empty(&args);
    const std::unique_ptr<wchar_t*, decltype(&GlobalFree)> owner(argvec, GlobalFree);
    for (int i = 1; argvec != nullptr && i < count; ++i) {
        const std::string word = qor::glue::to_utf8(argvec[i]);
        qor::glue::qorStringArray_Append(&args, word.data(), static_cast<uint32>(word.size()));
    }
}

#endif
