// qor-record: runs a program and records its heap.
//
// There are two processes: this one starts the program, passes signals on and ends with its exit code; the recording
// one reads and writes, and goes on after this one as long as something that the program has started is still running.
#include "control.h"
#include "messages.h"
#include "process_facts.h"
#include "qor/qor.h"
#include "recorder_posix.h"
#include "shared/offer_posix.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gnu/libc-version.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

using namespace qor::record;

constexpr int passed_on[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2};

// The library to preload: beside this program, as it is built, or in the folder of libraries, as it is installed.
std::string find_preload() {
    constexpr const char* places[] = {"libqor-record.so", QOR_LIBRARY_FOLDER "/libqor-record.so"};
    qor::glue::own_path program;
    qor::glue::own_path path = "libqor-record.so";
    if (qor::glue::get_own_path(program))
        for (const char* const place : places) {
            std::strcpy(path, program);
            if (char* const slash = std::strrchr(path, '/');
                slash != nullptr && qor::glue::make_library_path(path, slash, place) && ::access(path, R_OK) == 0)
                return path;
        }
    say(message::preload_missing, {path});
    return {};
}

// A list of libraries to preload is parted at blanks and colons: then it is found through the recorder's own
// descriptor.
std::string preload_list(const std::string& library) {
    std::string name = library;
    if (name.find_first_of(" :") != std::string::npos) {
        const int descriptor = ::open(library.c_str(), O_RDONLY | O_CLOEXEC);
        name = path_in_proc(::getpid(), "fd/") += std::to_string(descriptor);
    }
    const char* const before = std::getenv("LD_PRELOAD");
    return before != nullptr && *before != '\0' ? name + ':' + before : name;
}

[[noreturn]] void become_program(const options& chosen, const std::string& path, const recorder& recording,
                                 const std::string& offer, const log_names& names, const std::string& preload,
                                 int report, const sigset_t& signals) {
    if (!chosen.follows_children)
        recording.first_arena().followed_process = ::getpid();
    const char* const before = std::getenv("LD_PRELOAD");
    ::setenv(preload_variable, before != nullptr ? before : "", 1);
    ::setenv("LD_PRELOAD", preload.c_str(), 1);
    ::setenv(record_variable, offer.c_str(), 1);
    ::setenv(memcheck_variable, names.memcheck().c_str(), 1);
    ::setenv("QOR_MEMCHECK", names.memcheck().c_str(), 1);
    ::fcntl(recording.first_descriptor(), F_SETFD, 0);
    ::pthread_sigmask(SIG_SETMASK, &signals, nullptr);
    std::vector<char*> words;
    words.reserve(chosen.command.size() + 1);
    for (const std::string& each : chosen.command)
        words.push_back(const_cast<char*>(each.c_str()));
    words.push_back(nullptr);
    ::execv(path.c_str(), words.data());
    if (errno == ENOEXEC) { // a script without "#!"
        words.insert(words.begin(), const_cast<char*>("sh"));
        words[1] = const_cast<char*>(path.c_str());
        ::execv("/bin/sh", words.data());
    }
    const int reason = errno;
    (void)!::write(report, &reason, sizeof reason);
    ::_exit(1);
}

// Passes on the signals of other processes. A terminal sends its signals to the program itself.
void pass_on(int signals, pid_t program) {
    signalfd_siginfo received;
    if (::read(signals, &received, sizeof received) == sizeof received && received.ssi_code <= 0 &&
        received.ssi_signo != SIGCHLD)
        ::kill(program, static_cast<int>(received.ssi_signo));
}

int wait_for(pid_t program, int signals) {
    for (;;) {
        int status = 0;
        const pid_t ended = ::waitpid(program, &status, WNOHANG);
        if (ended == program)
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        if (ended < 0)
            return 1;
        pass_on(signals, program);
    }
}

// The preload asks the C library for the module of an address, which older ones cannot tell.
bool has_new_c_library() {
    int major = 0, minor = 0;
    const char* const version = ::gnu_get_libc_version();
    const bool is_read = std::sscanf(version, "%d.%d", &major, &minor) == 2;
    if (is_read && std::pair(major, minor) >= std::pair(2, 35))
        return true;
    say(message::old_c_library, {version});
    return false;
}

int record(const options& chosen) {
    if (!has_new_c_library())
        return 1;
    const std::string path = find_program(chosen.command[0]);
    if (path.empty()) {
        say(message::program_not_found, {chosen.command[0]});
        return 1;
    }
    program_facts facts;
    log_names names;
    const std::string preload = find_preload();
    if (preload.empty() || !look_at_program(path, facts) ||
        !names.set(chosen.prefix, path.substr(path.rfind('/') + 1), chosen.kind))
        return 1;
    qor::compression::compressor trial;
    if (chosen.kind != qor::compression::format::none && !trial.start(chosen.kind, output_file::level)) {
        say(message::compressor_missing, {qor::compression::name_of(chosen.kind), trial.reason()});
        return 1;
    }
    recorder recording(chosen, names);
    char* const real_path = ::realpath(path.c_str(), nullptr);
    const bool is_ready =
        recording.prepare(real_path != nullptr ? real_path : path, facts) && names.clear(chosen.replaces_anything);
    std::free(real_path);
    int ends[2];
    if (!is_ready || ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        return 1;

    sigset_t watched, before;
    sigemptyset(&watched);
    sigaddset(&watched, SIGCHLD);
    for (const int each : passed_on)
        sigaddset(&watched, each);
    ::pthread_sigmask(SIG_BLOCK, &watched, &before);
    const int signals = ::signalfd(-1, &watched, SFD_CLOEXEC);

    const pid_t writer = ::fork();
    if (writer == 0) {
        ::close(ends[0]);
        std::signal(SIGTSTP, SIG_IGN);
        std::signal(SIGPIPE, SIG_IGN);
        std::signal(SIGXFSZ, SIG_IGN);
        recording.run(ends[1]);
        ::_exit(0);
    }
    ::close(ends[1]);
    char offer[512];
    const ssize_t size = writer > 0 ? ::recv(ends[0], offer, sizeof offer, 0) : -1;
    if (size <= 0)
        return 1;
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0)
        return 1;
    const std::string list = preload_list(preload);
    const pid_t program = ::fork();
    if (program == 0)
        become_program(chosen, path, recording, std::string(offer, static_cast<std::size_t>(size)), names, list,
                       report[1], before);
    ::close(report[1]);
    int reason = 0;
    const bool has_failed = ::read(report[0], &reason, sizeof reason) == sizeof reason || program < 0;
    if (has_failed) {
        say(message::cannot_start, {path, std::strerror(program < 0 ? errno : reason)});
        return 1;
    }
    (void)::send(ends[0], &program, sizeof program, MSG_NOSIGNAL);
    const std::int32_t code = wait_for(program, signals);
    (void)::send(ends[0], &code, sizeof code, MSG_NOSIGNAL);
    char has_nothing = 0;
    if (::recv(ends[0], &has_nothing, 1, 0) != 1)
        say(message::recorder_ended, {names.prefix()});
    return has_nothing != 0 && code == 0 ? 1 : code;
}

} // namespace

int main(int argc, char** argv) {
#define QOR_ACTION(name, usage, arguments)                                                                             \
    if (argc >= 2 && std::strcmp(argv[1], #name) == 0)                                                                 \
        return name(argc - 2, argv + 2);
#include "command_line.def"
    options chosen;
    const int code = read_options(argc, argv, chosen);
    return code != no_exit_code ? code : record(chosen);
}
