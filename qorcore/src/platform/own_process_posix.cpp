#include "platform/own_process.h"

#include "platform/whole_file.h"
#include "qor/glue/impl_posix.h"
#include "qor/qor.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/auxv.h>
#include <unistd.h>

namespace {

// The kernel accepts at most 6 MB of arguments for a program.
constexpr std::size_t longest_command_line = 16 << 20;

// Never destroyed: exit handlers also report under this name.
std::string& process_name() {
    static std::string* const name = new std::string(program_invocation_short_name);
    return *name;
}

void* thread_main(void* run) {
    reinterpret_cast<void (*)() noexcept>(run)();
    return nullptr;
}

} // namespace

const char* qor::platform::name() noexcept { return process_name().c_str(); }
void qor::platform::set_name(const char* name) { process_name() = name; }

unsigned long qor::platform::process_id() noexcept { return static_cast<unsigned long>(getpid()); }
unsigned long qor::platform::thread_id() noexcept { return static_cast<unsigned long>(gettid()); }
bool qor::platform::is_main_thread() noexcept { return gettid() == getpid(); }

// A thread_local object with a destructor would not do: registering the destructor allocates memory, and the C library
// aborts if that fails. If no key is left, the end of a thread goes unnoticed.
void qor::platform::at_thread_end(void (*run)()) noexcept {
    static pthread_key_t key;
    static const bool is_made =
        pthread_key_create(&key, [](void* called) { reinterpret_cast<void (*)()>(called)(); }) == 0;
    if (is_made && pthread_setspecific(key, reinterpret_cast<void*>(run)) != 0)
        qorEndOutOfMemory();
}

std::string qor::platform::executable() {
    glue::own_path path;
    return glue::get_own_path(path) ? path : std::string();
}

std::string qor::platform::library_folder() {
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(&qor::platform::library_folder), &info) == 0 || info.dli_fname == nullptr)
        return {};
    const std::string path = info.dli_fname;
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

bool qor::platform::is_privileged() noexcept { return getauxval(AT_SECURE) != 0; }

const char* qor::platform::environment(const char* variable) noexcept {
    const char* const value = secure_getenv(variable);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

void qor::platform::set_environment(const char* variable, const char* value) noexcept { setenv(variable, value, 1); }

bool qor::platform::has_argument(const char* begin) noexcept {
    // Each word ends with a NUL.
    std::string text;
    if (!platform::read_whole("/proc/self/cmdline", longest_command_line, text))
        return false;
    return text.find('\0' + std::string(begin)) != std::string::npos;
}

void qor::platform::set_up_standard_streams() noexcept {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
        // The access mode is deliberately the wrong one, so that using the stream still fails as it should.
        if (fcntl(stream, F_GETFD) < 0 && errno == EBADF)
            (void)open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}

void qor::platform::watch_forks(void (*before)() noexcept, void (*in_parent)() noexcept,
                                void (*in_child)() noexcept) noexcept {
    pthread_atfork(before, in_parent, in_child);
}

int qor::platform::start_thread(void (*run)() noexcept) noexcept {
    sigset_t all;
    sigset_t mask_of_the_host;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &mask_of_the_host);
    pthread_t thread;
    const int failed = pthread_create(&thread, nullptr, thread_main, reinterpret_cast<void*>(run));
    pthread_sigmask(SIG_SETMASK, &mask_of_the_host, nullptr);
    if (failed == 0)
        pthread_detach(thread);
    return failed;
}
