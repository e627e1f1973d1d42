// The POSIX part of the code that every client compiles in: the binding to libqor, and the critical section and the
// event behind the synchronisation primitives (primitives.h).
#pragma once

#include "qor/glue/binding.h"
#include "qor/glue/library_file_posix.h"
#include "qor/glue/library_folder.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <stdio_ext.h>
#include <sys/auxv.h>
#include <unistd.h>

// Declared here because <syslog.h> would bring its macros (LOG_ERR, LOG_DEBUG ...) into every client.
extern "C" void syslog(int priority, const char* format, ...);

namespace qor::glue {

// Gets the path of the executable, in which no link is left; returns false if it is unknown. Without /proc, uses the
// path that the program was started with, unless the process has more rights than its user: that user chose the path.
using own_path = char[8192 + 32 + sizeof QOR_LIBRARY_FOLDER]; // with room for the name of a library
inline bool get_own_path(own_path& path) noexcept {
    static_assert(sizeof path >= PATH_MAX);
    const ssize_t length = readlink("/proc/self/exe", path, 8192);
    if (length > 0) {
        path[length] = '\0';
        return true;
    }
    const auto* const started_by = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
    return getauxval(AT_SECURE) == 0 && started_by != nullptr && realpath(started_by, path) != nullptr;
}

#ifndef QOR_INSIDE

// The debugger channel of a POSIX system is the system log. A failed binding never writes to the console, unless the
// host program asked for that with openlog.
inline void debugger_message(const char* text) noexcept {
    constexpr int debug_of_user = 1 << 3 | 7; // LOG_USER | LOG_DEBUG
    syslog(debug_of_user, "%s", text);
}

// Writes out what was printed before the first bound call; destructors and atexit routines do not run. Flushes only the
// two output streams, because another thread may be reading from standard input and hold its lock.
[[noreturn]] inline void end_process() noexcept {
    std::fflush(stdout);
    std::fflush(stderr);
    _exit(100);
}

// The two places where libqor.so is looked for first: the folder of the program, and that of an installation
// (library_folder.h), seen from there.
inline constexpr const char* library_places[] = {"libqor.so", QOR_LIBRARY_FOLDER "/libqor.so"};

// Makes the path of a place from that of the executable, whose last slash is given. Each ".." takes a folder away, so
// that names of files made from it are short; the path has no links. Returns false if there are not so many folders.
inline bool make_library_path(char* path, char* slash, const char* place) noexcept {
    for (; std::strncmp(place, "../", 3) == 0; place += 3) {
        while (slash > path && *--slash != '/')
            ;
        if (*slash != '/')
            return false;
    }
    std::strcpy(slash + 1, place);
    return true;
}

// Loads libqor.so from the executable's own folder or, in an installation, from the private folder beside its bin
// folder. Returns null if it is in neither. A run path would find it as well, but the loader then searches that folder
// for every library of the program: 22 failed look-ups at every start. RTLD_NOW makes a damaged library fail here, not
// later.
inline void* load_beside_executable() noexcept {
    own_path path;
    if (!get_own_path(path))
        return nullptr;
    char name[sizeof path];
    for (const char* const place : library_places) {
        std::strcpy(name, path);
        char* const slash = std::strrchr(name, '/');
        if (slash == nullptr || !make_library_path(name, slash, place) || !is_whole(name))
            continue;
        if (void* const library = dlopen(name, RTLD_NOW | RTLD_LOCAL))
            return library;
    }
    return nullptr;
}

// Loads libqor.so by its bare name, which follows the executable's run path, if it has one. Asks the loader where it
// will look and checks the file there first, because the loader does not make the checks of is_whole. A library that
// the loader finds in its cache is not checked.
inline void* load_by_name() noexcept {
    void* const self = dlopen(nullptr, RTLD_LAZY);
    Dl_serinfo measure;
    if (self == nullptr || dlinfo(self, RTLD_DI_SERINFOSIZE, &measure) != 0)
        return nullptr;
    auto* const places = static_cast<Dl_serinfo*>(std::malloc(measure.dls_size));
    if (places == nullptr)
        return nullptr;
    *places = measure;
    bool usable = dlinfo(self, RTLD_DI_SERINFO, places) == 0;
    for (unsigned i = 0; usable && i < places->dls_cnt; ++i) {
        char path[8192];
        const int length = std::snprintf(path, sizeof path, "%s/libqor.so", places->dls_serpath[i].dls_name);
        if (length < static_cast<int>(sizeof path) && access(path, R_OK) == 0) {
            usable = is_whole(path);
            break;
        }
    }
    std::free(places);
    return usable ? dlopen("libqor.so", RTLD_NOW | RTLD_LOCAL) : nullptr;
}

QOR_COLD inline const binding_table* bind() noexcept {
    void* library = load_beside_executable();
    if (library == nullptr) {
        debugger_message("FAILED dlopen() of libqor.so\n");
        library = load_by_name();
        if (library == nullptr) {
            debugger_message("FAILED path-base dlopen() of libqor.so\n");
            assert_failed("false", bind_function, impl_file, 77);
            end_process();
        }
        debugger_message("WARNING Loaded libqor.so using name only\n");
    }
    auto* const entry = reinterpret_cast<binding_point*>(dlsym(library, "glue_binding_point"));
    if (!is_function(reinterpret_cast<void*>(entry))) {
        debugger_message("FAILED dlsym() on libqor.so for main entry point\n");
        assert_failed("false", bind_function, impl_file, 92);
        end_process();
    }
    return store_table(entry(), [](bool is_incomplete) {
        if (is_incomplete)
            debugger_message("FAILED libqor.so lacks operations that this program needs\n");
        end_process();
    });
}

#endif

// ---- what c_stream.h needs

inline int64 stream_terminal(std::FILE* stream) noexcept {
    const int before = errno;
    const int file = fileno(stream);
    const bool is_terminal = file >= 0 && isatty(file) != 0;
    errno = before;
    return is_terminal ? file : -1;
}

inline void flush_standard_output() noexcept {
    // If the host gave standard error a buffer, its text is not written yet, so the host is responsible for the order.
    if (__fbufsize(stderr) > 1)
        return;
    // Another thread may be writing, and may be blocked because nobody reads. The order with its text cannot be kept.
    const int before = errno;
    if (ftrylockfile(stdout) == 0) {
        std::fflush(stdout);
        funlockfile(stdout);
    }
    errno = before;
}

// It has no buffer here.
inline void set_up_standard_error() noexcept {}

// Here, a terminal is read like any other file.
inline int64 input_terminal(std::FILE*) noexcept { return -1; }

inline void lock_stream(std::FILE* stream) noexcept { flockfile(stream); }
inline void unlock_stream(std::FILE* stream) noexcept { funlockfile(stream); }
inline int32 stream_failure() noexcept { return errno; }

// A recursive mutex.
class critical_section {
public:
    static critical_section* create() noexcept {
        auto* const made = static_cast<critical_section*>(std::malloc(sizeof(critical_section)));
        if (made == nullptr)
            return nullptr;
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&made->m_mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
        return made;
    }

    static void destroy(critical_section* self) noexcept {
        if (self != nullptr)
            pthread_mutex_destroy(&self->m_mutex);
        std::free(self);
    }

    static void enter(critical_section* self) noexcept {
        if (self != nullptr)
            pthread_mutex_lock(&self->m_mutex);
    }

    static void leave(critical_section* self) noexcept {
        if (self != nullptr)
            pthread_mutex_unlock(&self->m_mutex);
    }

private:
    pthread_mutex_t m_mutex;
};

// An event with the semantics of an event object of Windows: it is set or not, and is reset manually or automatically
// by the one waiter that it releases. Setting it releases the threads that wait at that moment, in the order of their
// arrival. They count as released even before they run, and no later thread can take their place. Once all are
// released, the event may be destroyed although they have not returned yet: the last of them frees it.
class event {
public:
    static event* create(bool manual_reset, bool set) noexcept {
        auto* const made = static_cast<event*>(std::malloc(sizeof(event)));
        if (made == nullptr)
            return nullptr;
        if (pthread_mutex_init(&made->m_lock, nullptr) != 0) {
            std::free(made);
            return nullptr;
        }
        made->m_first = nullptr;
        made->m_last = nullptr;
        made->m_leaving = 0;
        made->m_process = 0;
        made->m_destroyed = false;
        made->m_manual_reset = manual_reset;
        made->m_set = set;
        return made;
    }

    static void destroy(event* self) noexcept {
        if (self == nullptr)
            return;
        // No thread of this process has ever waited in line. In a forked child, the lock may be held by a thread that
        // exists only in the parent, so it is not taken here.
        if (self->m_process != getpid())
            return end(self);
        pthread_mutex_lock(&self->m_lock);
        self->m_destroyed = true;
        unlock(self);
    }

    static void set(event* self) noexcept {
        if (self == nullptr)
            return;
        pthread_mutex_lock(&self->m_lock);
        if (self->m_first != nullptr)
            self->forget_other_process();
        // An auto-reset event that releases a waiter is not set in addition.
        self->m_set = self->m_manual_reset || self->m_first == nullptr;
        if (self->m_manual_reset)
            while (self->m_first != nullptr)
                self->release_first();
        else if (self->m_first != nullptr)
            self->release_first();
        pthread_mutex_unlock(&self->m_lock);
    }

    static void reset(event* self) noexcept {
        if (self == nullptr)
            return;
        pthread_mutex_lock(&self->m_lock);
        self->m_set = false;
        pthread_mutex_unlock(&self->m_lock);
    }

    enum class outcome { signalled, timed_out, failed };

    // A limit of 0 means an infinite wait, as does 0xFFFFFFFF.
    static outcome wait(event* self, uint32 ms) noexcept {
        if (self == nullptr)
            return outcome::failed;
        const bool limited = ms != 0 && ms != UINT_MAX;
        timespec until{};
        if (limited) {
            clock_gettime(CLOCK_MONOTONIC, &until);
            until.tv_sec += static_cast<time_t>(ms / 1000);
            until.tv_nsec += static_cast<long>(ms % 1000) * 1'000'000;
            if (until.tv_nsec >= 1'000'000'000) {
                until.tv_nsec -= 1'000'000'000;
                ++until.tv_sec;
            }
        }
        if (pthread_mutex_lock(&self->m_lock) != 0)
            return outcome::failed;
        outcome result = outcome::signalled;
        if (!self->m_set)
            result = self->wait_in_line(limited ? &until : nullptr);
        else if (!self->m_manual_reset)
            self->m_set = false;
        unlock(self);
        return result;
    }

private:
    // A waiting thread's entry in the line, on its own stack. The thread continues once it has been released, whatever
    // has happened to the event since.
    struct waiter {
        pthread_cond_t released;
        bool is_released;
        waiter* before;
        waiter* behind;
    };

    static void end(event* self) noexcept {
        pthread_mutex_destroy(&self->m_lock);
        std::free(self);
    }

    // Unlocks, and frees a destroyed event if no other thread can do so any more.
    static void unlock(event* self) noexcept {
        const bool is_last = self->m_destroyed && self->m_leaving == 0;
        pthread_mutex_unlock(&self->m_lock);
        if (is_last)
            end(self);
    }

    // The functions below are called with the lock held.
    outcome wait_in_line(const timespec* until) noexcept {
        waiter here{};
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        // Setting the system's clock must not change the length of a wait.
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        int result = pthread_cond_init(&here.released, &attributes);
        pthread_condattr_destroy(&attributes);
        if (result != 0)
            return outcome::failed;
        forget_other_process();
        add(here);
        // A thread cancelled here would leave its entry in the line and keep the lock. Waits do not throw, so
        // cancellation is deferred.
        int cancellation;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancellation);
        while (!here.is_released && result == 0)
            result = until != nullptr ? pthread_cond_timedwait(&here.released, &m_lock, until)
                                      : pthread_cond_wait(&here.released, &m_lock);
        pthread_setcancelstate(cancellation, &cancellation);
        // A release that comes together with the time-out counts: the thread that set the event has given it to this
        // one.
        if (here.is_released)
            --m_leaving;
        else
            remove(here);
        pthread_cond_destroy(&here.released);
        if (here.is_released)
            return outcome::signalled;
        return result == ETIMEDOUT ? outcome::timed_out : outcome::failed;
    }

    // Signalling under the lock lets a waiter destroy the event as soon as it has been released.
    void release_first() noexcept {
        waiter& first = *m_first;
        remove(first);
        first.is_released = true;
        ++m_leaving;
        pthread_cond_signal(&first.released);
    }

    void add(waiter& last) noexcept {
        last.before = m_last;
        (m_last != nullptr ? m_last->behind : m_first) = &last;
        m_last = &last;
    }

    void remove(waiter& one) noexcept {
        (one.before != nullptr ? one.before->behind : m_first) = one.behind;
        (one.behind != nullptr ? one.behind->before : m_last) = one.before;
    }

    // A forked child has a copy of the line, but not its threads.
    void forget_other_process() noexcept {
        const pid_t process = getpid();
        if (m_process != process) {
            m_first = m_last = nullptr;
            m_leaving = 0;
        }
        m_process = process;
    }

    pthread_mutex_t m_lock;
    waiter* m_first;
    waiter* m_last;
    unsigned m_leaving; // released, but still inside wait()
    pid_t m_process;    // the process whose threads stand in the line
    bool m_manual_reset;
    bool m_set;
    bool m_destroyed;
};

} // namespace qor::glue
