// The start of a program. Only handles of the list are inherited, whatever else is inheritable.
#include "child/child_process_windows.h"
#include "child/command_line_windows.h"
#include "error/error.h"
#include "memory/allocator.h"
#include "platform/wide_windows.h"

#include <algorithm>
#include <optional>

namespace {

constexpr char source[] = "qorcore/src/child/start_windows";

// Handles that are closed at the end of the start.
class handles {
public:
    handles() noexcept = default;
    handles(const handles&) = delete;
    handles& operator=(const handles&) = delete;
    ~handles() {
        for (const HANDLE each : m_all)
            CloseHandle(each);
    }
    HANDLE add(HANDLE one) {
        m_all.push_back(one);
        return one;
    }

private:
    std::vector<HANDLE> m_all;
};

bool refuse_text(const char* what) noexcept {
    qor::error::set(qorError_invalid_argument, {"qorCreateChildProcess", what});
    return false;
}

bool to_wide_texts(const qorStringArray& from, const char* what, std::vector<std::wstring>& out) {
    for (const qorString& each : from)
        if (!qor::platform::to_wide({each.Text(), each.Length()}, out.emplace_back()))
            return refuse_text(what);
    return true;
}

// Returns an empty text if there is no such file. Without a path it looks in that folder, or for the path itself.
std::wstring find_file(const wchar_t* folders, const std::wstring& name) {
    std::wstring found(32768, L'\0');
    found.resize(SearchPathW(folders, name.c_str(), L".exe", static_cast<DWORD>(found.size()), found.data(), nullptr));
    return found;
}

bool is_path(const std::wstring& name) { return name.find_first_of(L"\\/:") != std::wstring::npos; }

std::wstring full_path(const std::wstring& path) {
    std::wstring full(32768, L'\0');
    full.resize(GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
    return full;
}

std::wstring search_path(const std::vector<std::wstring>* environment) {
    if (environment != nullptr) {
        for (const std::wstring& each : *environment)
            if (each.size() > 4 && CompareStringOrdinal(each.c_str(), 5, L"PATH=", 5, TRUE) == CSTR_EQUAL)
                return each.substr(5);
        return {};
    }
    std::wstring path(GetEnvironmentVariableW(L"PATH", nullptr, 0), L'\0');
    path.resize(GetEnvironmentVariableW(L"PATH", path.data(), static_cast<DWORD>(path.size())));
    return path;
}

// Gets the file to execute, or sets the last error.
bool find_program(const qorChildProcessOptions& options, const std::vector<std::wstring>* environment,
                  std::wstring& file) {
    const char* const name = qor::child::program_name(options);
    std::wstring wide;
    if (!qor::platform::to_wide(name, wide))
        return refuse_text("program");
    if (options.program != nullptr || is_path(wide)) {
        const std::wstring full = full_path(wide);
        const std::size_t slash = full.find_last_of(L'\\');
        file = slash != std::wstring::npos ? find_file(full.substr(0, slash + 1).c_str(), full.substr(slash + 1))
                                           : std::wstring();
    } else {
        file = find_file(search_path(environment).c_str(), wide);
    }
    if (qor::child::is_for_interpreter(wide) || qor::child::is_for_interpreter(file)) {
        qor::error::set(qorError_child_interpreter, {name});
        return false;
    }
    if (file.empty()) {
        qor::error::set(qorError_child_program_missing, {name});
        return false;
    }
    return true;
}

// Windows expects the names in order, without regard to case.
std::wstring environment_block(std::vector<std::wstring> all) {
    std::stable_sort(all.begin(), all.end(), [](const std::wstring& one, const std::wstring& other) {
        return CompareStringOrdinal(one.c_str(), static_cast<int>(one.find(L'=', 1)), other.c_str(),
                                    static_cast<int>(other.find(L'=', 1)), TRUE) == CSTR_LESS_THAN;
    });
    std::wstring block;
    for (const std::wstring& each : all)
        block.append(each).append(1, L'\0');
    if (all.empty())
        block.append(1, L'\0');
    block.append(1, L'\0');
    return block;
}

// Gets a handle that the child inherits; null if the own process has no such stream.
bool open_stream(const qorChildStream& stream, DWORD number, qor::child::pipe_end& pipe, handles& childs, HANDLE& out) {
    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
    const bool is_input = number == STD_INPUT_HANDLE;
    out = nullptr;
    switch (stream.kind) {
    case qorChildStreamKind::output:
        return true; // later
    case qorChildStreamKind::inherit: {
        const HANDLE own = GetStdHandle(number);
        if (own == nullptr || own == INVALID_HANDLE_VALUE)
            return true;
        if (DuplicateHandle(GetCurrentProcess(), own, GetCurrentProcess(), &out, 0, TRUE, DUPLICATE_SAME_ACCESS))
            childs.add(out);
        else
            out = nullptr; // it was closed
        return true;
    }
    case qorChildStreamKind::pipe:
        if (const int code = pipe.make(is_input, out)) {
            qor::error::set_with_reason(qorError_system, "CreateNamedPipe", code);
            return false;
        }
        childs.add(out);
        return true;
    case qorChildStreamKind::null:
    case qorChildStreamKind::file:
        break;
    }
    const bool is_file = stream.kind == qorChildStreamKind::file;
    const char* const path = is_file ? stream.path : "NUL";
    std::wstring wide;
    if (!qor::platform::to_wide_path(path, wide))
        return refuse_text("path");
    const DWORD access = is_input                   ? GENERIC_READ
                         : is_file && stream.append ? FILE_APPEND_DATA | SYNCHRONIZE | FILE_READ_ATTRIBUTES
                                                    : GENERIC_WRITE;
    const DWORD how = is_input || !is_file ? OPEN_EXISTING : stream.append ? OPEN_ALWAYS : CREATE_ALWAYS;
    const HANDLE opened = CreateFileW(wide.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      &inheritable, how, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (opened == INVALID_HANDLE_VALUE) {
        qor::error::set_with_reason(qorError_cannot_open_file, path, static_cast<int>(GetLastError()));
        return false;
    }
    out = childs.add(opened);
    return true;
}

bool add_handles(const qorChildProcessOptions& options, std::vector<HANDLE>& inherited) {
    for (uint32 i = 0; i < options.handle_count; ++i) {
        const auto handle = reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(options.handles[i].own));
        DWORD flags = 0;
        if (!GetHandleInformation(handle, &flags) || (flags & HANDLE_FLAG_INHERIT) == 0) {
            qor::error::set(qorError_child_handle,
                            {std::to_string(options.handles[i].own).c_str(), qor::child::program_name(options)});
            return false;
        }
        inherited.push_back(handle);
    }
    return true;
}

// A job that kills what is in it when its handle is closed.
HANDLE make_job() noexcept {
    const HANDLE job = CreateJobObjectW(nullptr, nullptr);
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    if (job != nullptr && !SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits)) {
        const DWORD code = GetLastError();
        CloseHandle(job);
        SetLastError(code);
        return nullptr;
    }
    return job;
}

// The list of the handles that a child inherits, in the form of the system.
class handle_list {
public:
    handle_list() noexcept = default;
    handle_list(const handle_list&) = delete;
    handle_list& operator=(const handle_list&) = delete;
    ~handle_list() {
        if (m_is_made)
            DeleteProcThreadAttributeList(get());
    }
    bool make(std::vector<HANDLE>& of) {
        SIZE_T size = 0;
        InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
        m_room.resize(size);
        m_is_made = InitializeProcThreadAttributeList(get(), 1, 0, &size);
        return m_is_made && UpdateProcThreadAttribute(get(), 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, of.data(),
                                                      of.size() * sizeof(HANDLE), nullptr, nullptr);
    }
    LPPROC_THREAD_ATTRIBUTE_LIST get() noexcept {
        return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(m_room.data());
    }

private:
    std::vector<char> m_room;
    bool m_is_made = false;
};

bool fail(const qorChildProcessOptions& options, DWORD code) noexcept {
    const char* const name = qor::child::program_name(options);
    if (code == ERROR_DIRECTORY && options.folder != nullptr)
        qor::error::set(qorError_child_folder,
                        {name, options.folder, qor::error::system_reason(static_cast<int>(code)).c_str()});
    else
        qor::error::set_with_reason(qorError_cannot_start_child, name, static_cast<int>(code));
    return false;
}

// What CreateProcessW gets.
struct prepared {
    std::wstring file;
    std::wstring line;
    std::wstring folder;
    std::optional<std::wstring> environment;
};

bool prepare(const qorChildProcessOptions& options, prepared& out) {
    std::vector<std::wstring> arguments;
    std::vector<std::wstring> variables;
    if (!to_wide_texts(*options.arguments, "arguments", arguments) ||
        (options.environment != nullptr && !to_wide_texts(*options.environment, "environment", variables)) ||
        !find_program(options, options.environment != nullptr ? &variables : nullptr, out.file))
        return false;
    // The name ends at its second quote, so it cannot have one.
    if (arguments.front().find(L'"') != std::wstring::npos)
        return refuse_text("arguments, because a program's name has no quotes");
    for (const std::wstring& each : arguments)
        qor::child::add_argument(out.line, each);
    if (options.folder != nullptr && !qor::platform::to_wide_path(options.folder, out.folder))
        return refuse_text("folder");
    if (options.environment != nullptr)
        out.environment = environment_block(std::move(variables));
    return true;
}

bool run(const qorChildProcessOptions& options, prepared& what, const HANDLE (&streams)[3],
         std::vector<HANDLE> inherited, qor::child::child_process& made) {
    std::sort(inherited.begin(), inherited.end());
    inherited.erase(std::unique(inherited.begin(), inherited.end()), inherited.end());
    handle_list list;
    STARTUPINFOEXW startup{};
    startup.StartupInfo.cb = sizeof startup;
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = streams[0];
    startup.StartupInfo.hStdOutput = streams[1];
    startup.StartupInfo.hStdError = streams[2];
    if (!inherited.empty()) {
        if (!list.make(inherited))
            return fail(options, GetLastError());
        startup.lpAttributeList = list.get();
    }
    if (options.whole_tree && (made.m_job = make_job()) == nullptr)
        return fail(options, GetLastError());
    DWORD flags = EXTENDED_STARTUPINFO_PRESENT | CREATE_UNICODE_ENVIRONMENT;
    if (options.whole_tree)
        flags |= CREATE_SUSPENDED; // until it is in its job
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(what.file.c_str(), what.line.data(), nullptr, nullptr, !inherited.empty(), flags,
                        what.environment.has_value() ? what.environment->data() : nullptr,
                        options.folder != nullptr ? what.folder.c_str() : nullptr, &startup.StartupInfo, &process))
        return fail(options, GetLastError());
    made.m_process = process.hProcess;
    made.m_id = process.dwProcessId;
    bool is_running = true;
    if (options.whole_tree) {
        is_running = AssignProcessToJobObject(made.m_job, process.hProcess) &&
                     ResumeThread(process.hThread) != static_cast<DWORD>(-1);
        if (!is_running) {
            const DWORD code = GetLastError();
            TerminateProcess(process.hProcess, 1);
            fail(options, code);
        }
    }
    CloseHandle(process.hThread);
    return is_running;
}

} // namespace

bool qor::child::start(const qorChildProcessOptions& options, IQORChildProcess** out) noexcept {
    prepared what;
    if (!prepare(options, what))
        return false;
    child_process* created = nullptr;
    if (!memory::make<child_process>(source, __LINE__, &created, program_name(options), options.whole_tree))
        return false;
    zetSmartPointer<child_process> made;
    made.AttachNew(created);
    handles childs;
    HANDLE streams[3];
    std::vector<HANDLE> inherited;
    if (!open_stream(options.input, STD_INPUT_HANDLE, created->m_input, childs, streams[0]) ||
        !open_stream(options.output, STD_OUTPUT_HANDLE, created->m_output, childs, streams[1]) ||
        !open_stream(options.errors, STD_ERROR_HANDLE, created->m_errors, childs, streams[2]))
        return false;
    if (options.errors.kind == qorChildStreamKind::output)
        streams[2] = streams[1];
    for (const HANDLE each : streams)
        if (each != nullptr)
            inherited.push_back(each);
    if (!add_handles(options, inherited) || !run(options, what, streams, std::move(inherited), *created))
        return false;
    *out = made.Detach();
    return true;
}
