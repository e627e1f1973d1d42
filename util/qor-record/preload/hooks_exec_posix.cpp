// The functions that execute a program: they see to it that the program finds the recorder, although the environment
// that it is given may have another LD_PRELOAD or nothing at all, and tell the recorder which program it is. Most may
// be called in the child of a vfork, on the stack and in the memory of its parent, so they write to this stack and to
// the arena alone.
#include "next.h"
#include "process.h"
#include "raw_calls.h"
#include "recording.h"
#include "shared/offer_posix.h"
#include "shared/owner_posix.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <linux/seccomp.h>
#include <spawn.h>
#include <unistd.h>
#include <wordexp.h>

namespace qor::record {

namespace {

using variables = char* const*;

#define QOR_NEXT(name, type)                                                                                           \
    constinit next_function<type> next_##name { #name }

QOR_NEXT(execve, int(const char*, variables, variables));
QOR_NEXT(execvpe, int(const char*, variables, variables));
QOR_NEXT(fexecve, int(int, variables, variables));
QOR_NEXT(execveat, int(int, const char*, variables, variables, int));
QOR_NEXT(posix_spawn,
         int(pid_t*, const char*, const posix_spawn_file_actions_t*, const posix_spawnattr_t*, variables, variables));
QOR_NEXT(posix_spawnp,
         int(pid_t*, const char*, const posix_spawn_file_actions_t*, const posix_spawnattr_t*, variables, variables));
QOR_NEXT(system, int(const char*));
QOR_NEXT(popen, FILE*(const char*, const char*));
QOR_NEXT(wordexp, int(const char*, wordexp_t*, int));
QOR_NEXT(syscall, long(long, long, long, long, long, long, long));

template <class Function>
Function* find(next_function<Function>& next) noexcept {
    Function* found = next.function.load(std::memory_order_relaxed);
    if (found == nullptr) {
        found = reinterpret_cast<Function*>(find_next(next.name));
        next.function.store(found, std::memory_order_relaxed);
    }
    return found;
}

// Copies of the variables of this process, because the program may overwrite its environment.
char own_path[4096];
char record_text[512];
char memcheck_text[4096 + 64];

constexpr char preload_name[] = "LD_PRELOAD";

// Returns the value of a variable, or null if its name is another one.
const char* value_of(const char* variable, const char* name) noexcept {
    const std::size_t length = strlen(name);
    return strncmp(variable, name, length) == 0 && variable[length] == '=' ? variable + length + 1 : nullptr;
}

const char* find_variable(variables list, const char* name) noexcept {
    for (; list != nullptr && *list != nullptr; ++list)
        if (const char* const value = value_of(*list, name))
            return value;
    return nullptr;
}

// The loader splits the list at blanks and colons.
bool has_own_path(const char* list) noexcept {
    const std::size_t length = strlen(own_path);
    while (list != nullptr && *list != '\0') {
        const std::size_t word = strcspn(list, " :");
        if (word == length && strncmp(list, own_path, length) == 0)
            return true;
        list += word;
        list += strspn(list, " :");
    }
    return false;
}

// Whether programs that this process executes are recorded.
bool follows_programs() noexcept {
    if (this_process.shared == nullptr || own_path[0] == '\0' || this_process.without_system_calls ||
        recorder_is_gone(*this_process.shared))
        return false;
    const std::int32_t followed = this_process.shared->followed_process;
    return followed == 0 || followed == raw_call(SYS_getpid);
}

constexpr std::size_t added_variables = 4;
constexpr std::size_t most_room = 256U << 10;

// The memory that a complete environment needs, without the texts that exist already; 0: nothing is missing, or it
// would be too large.
std::size_t room_for(variables given) noexcept {
    const char* const preload = find_variable(given, preload_name);
    if ((has_own_path(preload) && find_variable(given, record_variable) != nullptr) || !follows_programs())
        return 0;
    std::size_t count = 0;
    while (given != nullptr && given[count] != nullptr)
        ++count;
    const std::size_t length = preload != nullptr ? strlen(preload) : 0;
    const std::size_t room = (count + added_variables + 1) * sizeof(char*) + strlen(own_path) + 2 * length +
                             sizeof preload_name + sizeof preload_variable + 8;
    return room <= most_room ? room : 0;
}

char* append(char* at, const char* text) noexcept {
    const std::size_t length = strlen(text);
    memcpy(at, text, length + 1);
    return at + length;
}

// Builds the complete environment in ROOM. The recorder's library comes before libraries that are preloaded already.
variables complete(variables given, char* room) noexcept {
    auto** const made = reinterpret_cast<char**>(room);
    const char* const preload = find_variable(given, preload_name);
    const bool has_library = has_own_path(preload);
    std::size_t count = 0;
    for (; given != nullptr && *given != nullptr; ++given)
        if (has_library || (value_of(*given, preload_name) == nullptr && value_of(*given, preload_variable) == nullptr))
            made[count++] = *given;
    made[count] = nullptr;
    if (find_variable(made, record_variable) == nullptr)
        made[count++] = record_text;
    made[count] = nullptr;
    if (memcheck_text[0] != '\0' && find_variable(made, memcheck_variable) == nullptr)
        made[count++] = memcheck_text;
    if (!has_library) {
        char* const first = reinterpret_cast<char*>(made + count + 3);
        char* at = append(append(append(first, preload_name), "="), own_path);
        if (preload != nullptr && *preload != '\0')
            at = append(append(at, ":"), preload);
        char* const second = at + 1;
        append(append(append(second, preload_variable), "="), preload != nullptr ? preload : "");
        made[count++] = first;
        made[count++] = second;
    }
    made[count] = nullptr;
    return made;
}

template <class Call>
int with_complete(variables given, Call call) noexcept {
    const std::size_t size = room_for(given);
    if (size == 0)
        return call(given);
    return call(complete(given, static_cast<char*>(__builtin_alloca(size))));
}

// Tells the recorder which program a process becomes or runs. Returns null if there was no room.
execution* announce(std::int32_t process, const char* program, bool is_new_process) noexcept {
    arena& shared = *this_process.shared;
    for (execution& each : shared.executions) {
        std::int32_t unused = 0;
        if (each.process.load(std::memory_order_relaxed) != 0 || !each.process.compare_exchange_strong(unused, -1))
            continue;
        const std::size_t length = program != nullptr ? strnlen(program, sizeof each.program - 1) : 0;
        memcpy(each.program, program, length);
        each.program[length] = '\0';
        each.is_new_process = is_new_process ? 1 : 0;
        each.process.store(process, std::memory_order_release);
        shared.executions_begun.fetch_add(1, std::memory_order_release);
        return &each;
    }
    shared.unnamed_executions.fetch_add(1, std::memory_order_relaxed);
    return nullptr;
}

// Runs a call that returns only if the program could not be executed.
template <class Call>
int become(const char* program, variables given, Call call) noexcept {
    execution* const announced =
        follows_programs() ? announce(static_cast<std::int32_t>(raw_call(SYS_getpid)), program, false) : nullptr;
    const int result = with_complete(given, call);
    if (announced != nullptr)
        announced->process.store(0, std::memory_order_release);
    return result;
}

template <class Function>
int execute(next_function<Function>& next, const char* file, variables words, variables environment) noexcept {
    Function* const function = find(next);
    return become(file, environment, [=](variables all) { return function(file, words, all); });
}

// Starts a program in a new process.
template <class Function>
int spawn(next_function<Function>& next, pid_t* process, const char* file, const posix_spawn_file_actions_t* actions,
          const posix_spawnattr_t* attributes, variables words, variables environment) noexcept {
    Function* const function = find(next);
    pid_t made = 0;
    const int result = with_complete(
        environment, [&](variables all) { return function(&made, file, actions, attributes, words, all); });
    if (result == 0 && process != nullptr)
        *process = made;
    if (result == 0 && follows_programs() && this_process.shared->followed_process == 0)
        (void)announce(made, file, true);
    return result;
}

// FIRST and what follows up to a null pointer, and behind it the environment if that is given too.
template <class Function>
int execute_list(next_function<Function>& next, const char* file, const char* first, va_list& list,
                 bool has_environment) noexcept {
    va_list ahead;
    va_copy(ahead, list);
    std::size_t count = 1;
    for (const char* word = first; word != nullptr; ++count)
        word = va_arg(ahead, const char*);
    va_end(ahead);
    auto** const words = static_cast<char**>(__builtin_alloca(count * sizeof(char*)));
    words[0] = const_cast<char*>(first);
    for (std::size_t i = 1; i < count; ++i)
        words[i] = va_arg(list, char*);
    return execute(next, file, words, has_environment ? va_arg(list, variables) : environ);
}

// The functions of the C library that start a shell give it the environment of the process. While one of them runs,
// that has what the shell needs to find the recorder, if the program has removed it.
class complete_environment {
public:
    complete_environment() noexcept {
        lock();
        if (users != 0 || add()) {
            ++users;
            m_is_user = true;
        }
        unlock();
    }
    ~complete_environment() {
        if (!m_is_user)
            return;
        lock();
        if (users != 0 && --users == 0)
            remove();
        unlock();
    }
    complete_environment(const complete_environment&) = delete;
    complete_environment& operator=(const complete_environment&) = delete;

private:
    // This is not a mutex: if a fork copied it while it was held, the child takes it over.
    static void lock() noexcept {
        const auto own = static_cast<std::int32_t>(raw_call(SYS_getpid));
        std::int32_t other = 0;
        while (!holder.compare_exchange_weak(other, own, std::memory_order_acquire)) {
            if (other != own && other != 0) {
                users = 0;
                continue; // `other` is what the next exchange expects
            }
            other = 0;
            pause_briefly();
        }
    }
    static void unlock() noexcept { holder.store(0, std::memory_order_release); }

    // Returns false if nothing is missing.
    static bool add() noexcept {
        if (room_for(environ) == 0)
            return false;
        const char* const preload = find_variable(environ, preload_name);
        has_library = has_own_path(preload);
        if (!has_library) {
            if (preload != nullptr &&
                strlen(preload) + strlen(own_path) + sizeof preload_name + 2 > sizeof added_preload)
                return false;
            char* at = append(append(append(added_preload, preload_name), "="), own_path);
            if (preload != nullptr && *preload != '\0')
                append(append(at, ":"), preload);
            append(append(append(added_before, preload_variable), "="), preload != nullptr ? preload : "");
            // The program's own text, which remove() puts back.
            replaced = preload != nullptr ? const_cast<char*>(preload) - sizeof preload_name : nullptr;
            putenv(added_preload);
            putenv(added_before);
        }
        has_record = find_variable(environ, record_variable) != nullptr;
        if (!has_record)
            putenv(record_text);
        return true;
    }

    static void remove() noexcept {
        const int reason = errno;
        if (!has_library) {
            if (replaced != nullptr)
                putenv(replaced);
            else
                unsetenv(preload_name);
            unsetenv(preload_variable);
        }
        if (!has_record)
            unsetenv(record_variable);
        errno = reason;
    }

    inline static std::atomic<std::int32_t> holder;
    inline static unsigned users;
    inline static bool has_library, has_record;
    inline static char* replaced;
    inline static char added_preload[2 * sizeof own_path];
    inline static char added_before[2 * sizeof own_path];

    bool m_is_user = false;
};

void copy_variable(char* to, std::size_t size, const char* name) noexcept {
    const char* const value = getenv(name);
    if (value != nullptr && strlen(name) + strlen(value) + 2 <= size)
        append(append(append(to, name), "="), value);
}

} // namespace

// Called at the start, because the loader may be locked after a fork.
void prepare_executions() noexcept {
    Dl_info own;
    copy_variable(record_text, sizeof record_text, record_variable);
    copy_variable(memcheck_text, sizeof memcheck_text, memcheck_variable);
    if (record_text[0] != '\0' && dladdr(own_path, &own) != 0 && strlen(own.dli_fname) < sizeof own_path)
        append(own_path, own.dli_fname);
    find(next_execve);
    find(next_execvpe);
    find(next_fexecve);
    find(next_execveat);
    find(next_posix_spawn);
    find(next_posix_spawnp);
    find(next_syscall);
}

} // namespace qor::record

using namespace qor::record;

#define QOR_HOOK extern "C" __attribute__((visibility("default")))

QOR_HOOK int execve(const char* path, variables words, variables environment) noexcept {
    return execute(next_execve, path, words, environment);
}

QOR_HOOK int execv(const char* path, variables words) noexcept { return execute(next_execve, path, words, environ); }

QOR_HOOK int execvp(const char* file, variables words) noexcept { return execute(next_execvpe, file, words, environ); }

QOR_HOOK int execvpe(const char* file, variables words, variables environment) noexcept {
    return execute(next_execvpe, file, words, environment);
}

QOR_HOOK int execl(const char* path, const char* first, ...) noexcept {
    va_list list;
    va_start(list, first);
    const int result = execute_list(next_execve, path, first, list, false);
    va_end(list);
    return result;
}

QOR_HOOK int execlp(const char* file, const char* first, ...) noexcept {
    va_list list;
    va_start(list, first);
    const int result = execute_list(next_execvpe, file, first, list, false);
    va_end(list);
    return result;
}

QOR_HOOK int execle(const char* path, const char* first, ...) noexcept {
    va_list list;
    va_start(list, first);
    const int result = execute_list(next_execve, path, first, list, true);
    va_end(list);
    return result;
}

QOR_HOOK int fexecve(int file, variables words, variables environment) noexcept {
    auto* const function = find(next_fexecve);
    return become("", environment, [=](variables all) { return function(file, words, all); });
}

QOR_HOOK int execveat(int folder, const char* path, variables words, variables environment, int flags) noexcept {
    auto* const function = find(next_execveat);
    return become(path, environment, [=](variables all) { return function(folder, path, words, all, flags); });
}

QOR_HOOK int posix_spawn(pid_t* process, const char* path, const posix_spawn_file_actions_t* actions,
                         const posix_spawnattr_t* attributes, variables words, variables environment) {
    return spawn(next_posix_spawn, process, path, actions, attributes, words, environment);
}

QOR_HOOK int posix_spawnp(pid_t* process, const char* file, const posix_spawn_file_actions_t* actions,
                          const posix_spawnattr_t* attributes, variables words, variables environment) {
    return spawn(next_posix_spawnp, process, file, actions, attributes, words, environment);
}

QOR_HOOK int system(const char* line) {
    auto* const function = find(next_system);
    const complete_environment scope;
    return function(line);
}

QOR_HOOK FILE* popen(const char* line, const char* mode) {
    auto* const function = find(next_popen);
    const complete_environment scope;
    return function(line, mode);
}

QOR_HOOK int wordexp(const char* words, wordexp_t* result, int flags) {
    auto* const function = find(next_wordexp);
    const complete_environment scope;
    return function(words, result, flags);
}

// The C library's function has a variable number of arguments, and reads all that a call of the system can have. With
// as many parameters here, a call that does not execute a program is a jump to it.
QOR_HOOK long record_syscall(long number, long a, long b, long c, long d, long e, long f) __asm__("syscall");
QOR_HOOK long record_syscall(long number, long a, long b, long c, long d, long e, long f) {
    if (number == SYS_execve) [[unlikely]]
        return execve(as_pointer<const char>(a), as_pointer<char* const>(b), as_pointer<char* const>(c));
    auto* const function = find(next_syscall);
    if (number == SYS_seccomp && (a == SECCOMP_SET_MODE_STRICT || a == SECCOMP_SET_MODE_FILTER)) [[unlikely]]
        confine(a == SECCOMP_SET_MODE_STRICT);
    if (number == SYS_execveat) [[unlikely]]
        return become(as_pointer<const char>(b), as_pointer<char* const>(d),
                      [=](variables all) { return static_cast<int>(function(number, a, b, c, as_word(all), e, f)); });
    return function(number, a, b, c, d, e, f);
}
