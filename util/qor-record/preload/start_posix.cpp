// How a process finds its arena: by the descriptor that the first program is given, by the recorder's socket, or, where
// that is out of reach, in the recorder's folder of /proc. It runs before any library of the program is initialised.
#include "process.h"
#include "raw_calls.h"
#include "recording.h"
#include "shared/offer_posix.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/mman.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace qor::record {

void put_early_records() noexcept;
void end_of_start() noexcept;
void find_allocator() noexcept;
void find_operators_of_program() noexcept;
void follow_forks() noexcept;
void prepare_executions() noexcept;

namespace {

struct offer { // the content of the variable
    int descriptor = -1;
    int recorder = 0;
    int spare = -1;
    const char* token = nullptr;
    const char* socket = nullptr;
};

// Reads a number up to the next colon. Returns -1 if the text is not a number.
int take_number(const char*& text) noexcept {
    int number = 0;
    if (*text < '0' || *text > '9')
        return -1;
    for (; *text >= '0' && *text <= '9'; ++text)
        number = 10 * number + (*text - '0');
    if (*text != ':')
        return -1;
    ++text;
    return number;
}

bool read_offer(const char* text, offer& found) noexcept {
    found.descriptor = take_number(text);
    found.recorder = take_number(text);
    found.spare = take_number(text);
    const char* const end = strchr(text, ':');
    if (found.recorder <= 0 || end == nullptr || end - text != token_size)
        return false;
    found.token = text;
    found.socket = end + 1;
    return true;
}

// A filter of system calls stays in force in the programs that a process executes. The loader's own calls
// are allowed at least; a socket may not be.
bool is_filtered() noexcept {
    const long file = raw_call(SYS_openat, AT_FDCWD, as_word("/proc/self/status"), O_RDONLY | O_CLOEXEC);
    if (has_failed(file))
        return true;
    char text[4096];
    const long size = raw_call(SYS_read, file, as_word(text), sizeof text - 1);
    raw_call(SYS_close, file);
    if (size <= 0)
        return true;
    text[size] = '\0';
    const char* const mode = strstr(text, "\nSeccomp:");
    return mode == nullptr || mode[10] != '0';
}

// Maps the arena of a descriptor and closes the descriptor. Returns null if it is not an arena or is already taken.
arena* map_arena(long descriptor, bool is_ours) noexcept {
    const long mapped = raw_call(SYS_mmap, 0, sizeof(arena), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (has_failed(mapped))
        return nullptr;
    auto* const shared = as_pointer<arena>(mapped);
    std::uint32_t nobody = 0;
    if (shared->magic == arena_magic && shared->version == arena_version &&
        shared->taken.compare_exchange_strong(nobody, 1)) {
        raw_call(SYS_close, descriptor);
        return shared;
    }
    raw_call(SYS_munmap, mapped, sizeof(arena));
    if (is_ours)
        raw_call(SYS_close, descriptor);
    return nullptr;
}

// The first program's: a file of that number may also be the program's own by now, and too short to be read.
arena* map_inherited(int descriptor) noexcept {
    const long size = raw_call(SYS_lseek, descriptor, 0, SEEK_END);
    return descriptor >= 0 && size >= static_cast<long>(sizeof(arena)) ? map_arena(descriptor, false) : nullptr;
}

// Sends the token and is sent a descriptor.
long ask_recorder(const offer& made) noexcept {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    const std::size_t length = strlen(made.socket);
    if (length + 1 > sizeof name.sun_path)
        return -1;
    memcpy(name.sun_path + 1, made.socket, length);
    const long connection = raw_call(SYS_socket, AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (has_failed(connection))
        return -1;
    long descriptor = -1;
    const auto name_size = static_cast<long>(offsetof(sockaddr_un, sun_path) + 1 + length);
    constexpr timeval patience = {10, 0};
    raw_call(SYS_setsockopt, connection, SOL_SOCKET, SO_RCVTIMEO, as_word(&patience), sizeof patience);
    raw_call(SYS_setsockopt, connection, SOL_SOCKET, SO_SNDTIMEO, as_word(&patience), sizeof patience);
    if (!has_failed(raw_call(SYS_connect, connection, as_word(&name), name_size)) &&
        raw_call(SYS_sendto, connection, as_word(made.token), token_size, MSG_NOSIGNAL) == token_size) {
        char byte = 0;
        iovec content{&byte, 1};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        msghdr message{};
        message.msg_iov = &content;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const long received = raw_call(SYS_recvmsg, connection, as_word(&message), MSG_CMSG_CLOEXEC);
        const cmsghdr* const head = received > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
        if (head != nullptr && head->cmsg_level == SOL_SOCKET && head->cmsg_type == SCM_RIGHTS) {
            int sent;
            memcpy(&sent, CMSG_DATA(head), sizeof sent);
            descriptor = sent;
        }
    }
    raw_call(SYS_close, connection);
    return descriptor;
}

char* append(char* at, const char* text) noexcept {
    while (*text != '\0')
        *at++ = *text++;
    return at;
}

char* append(char* at, int number) noexcept {
    char digits[12];
    unsigned count = 0;
    do
        digits[count++] = static_cast<char>('0' + number % 10);
    while ((number /= 10) != 0);
    while (count > 0)
        *at++ = digits[--count];
    return at;
}

arena* map_spare(const offer& made) noexcept {
    char path[64];
    *append(append(append(append(path, "/proc/"), made.recorder), "/fd/"), made.spare) = '\0';
    // Another process may take it first; the recorder soon has the next one there.
    for (int attempt = 0; attempt < 200; ++attempt) {
        const long file = raw_call(SYS_openat, AT_FDCWD, as_word(path), O_RDWR | O_CLOEXEC);
        if (has_failed(file))
            return nullptr;
        if (arena* const mapped = map_arena(file, true))
            return mapped;
        constexpr timespec moment = {0, 5'000'000};
        raw_call(SYS_nanosleep, as_word(&moment), 0);
    }
    return nullptr;
}

// The framework's log of the first program has the name that the recorder has chosen, also where a launcher has left
// its own choice for those that it starts. Others have a number in the name. No memory is allocated for this.
void choose_memcheck_log(bool is_first) noexcept {
    const char* const wanted = getenv(memcheck_variable);
    const char* const now = getenv("QOR_MEMCHECK");
    static char variable[4096 + 32];
    if (wanted == nullptr || strlen(wanted) > 4096 || (now == nullptr && !is_first))
        return;
    *append(append(append(variable, "QOR_MEMCHECK="), wanted), is_first ? "" : ".%p") = '\0';
    const char* const value = strchr(variable, '=') + 1;
    if (now != nullptr && (strcmp(now, value) == 0 || (!is_first && strcmp(now, wanted) != 0)))
        return;
    for (char** each = environ; *each != nullptr; ++each)
        if (strncmp(*each, variable, static_cast<std::size_t>(value - variable)) == 0) {
            *each = variable;
            return;
        }
    putenv(variable);
}

void leave_unrecorded() noexcept {
    if (const char* const before = getenv(preload_variable)) {
        if (*before != '\0')
            setenv("LD_PRELOAD", before, 1);
        else
            unsetenv("LD_PRELOAD");
    }
    unsetenv(record_variable);
    unsetenv(preload_variable);
    unsetenv(memcheck_variable);
}

} // namespace

void start_recording(char** environment) noexcept {
    if (environ == nullptr)
        environ = environment;
    const char* const text = getenv(record_variable);
    offer made;
    arena* shared = nullptr;
    if (text != nullptr && read_offer(text, made)) {
        shared = map_inherited(made.descriptor);
        if (shared == nullptr && !is_filtered()) {
            const long descriptor = ask_recorder(made);
            shared = descriptor >= 0 ? map_arena(descriptor, true) : nullptr;
        }
        if (shared == nullptr)
            shared = map_spare(made);
    }
    const long page = shared != nullptr
                          ? raw_call(SYS_mmap, 0, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)
                          : -1;
    const auto process = static_cast<std::int32_t>(raw_call(SYS_getpid));
    if (has_failed(page) || has_failed(raw_call(SYS_madvise, page, 4096, MADV_WIPEONFORK)) ||
        (shared->followed_process != 0 && shared->followed_process != process)) {
        leave_unrecorded();
        end_of_start();
        return;
    }
    choose_memcheck_log(shared->is_first != 0);
    this_process.shared = shared;
    this_process.owner = as_pointer<process_state::owner_page>(page);
    this_process.depth = shared->depth < most_frames ? shared->depth : most_frames;
    this_process.own = &shared->sessions[0];
    this_process.ring = shared->first_ring;
    shared->image = {getauxval(AT_ENTRY), getauxval(AT_RANDOM), getauxval(AT_SYSINFO_EHDR)};
    session& own = *this_process.own;
    own.process = process;
    own.number = 1;
    prepare_unwinder();
    find_allocator();
    find_operators_of_program();
    add_allocation_code_of_program();
    follow_forks();
    prepare_executions();
    this_process.owner->phase.store(phase_running, std::memory_order_release);
    put_early_records();
    end_of_start();
    own.state.store(session_state::running, std::memory_order_release);
}

} // namespace qor::record
