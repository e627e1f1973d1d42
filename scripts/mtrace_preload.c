/* scripts/record preloads this into the program to be recorded, before libc_malloc_debug.so.0, whose mtrace() writes
   the log. This file supplies the stream for mtrace(), so that

   - each line reaches the file complete and at once: a part of the file is mapped, and data written to it survives
     the process. So a signal, an abort or _exit loses no lines, a fork duplicates none, and no line needs a system
     call;
   - the log survives a program that closes descriptors that it does not know;
   - a forked child continues in a file of its own, PREFIX.mtrace.<pid>, which begins with the blocks that it
     inherited;
   - a blank in the name of a caller becomes "_", because a blank ends a word of the log;
   - failed calls leave no lines: neither "!", a realloc that failed and kept its block, nor an allocation that
     failed, whose address is "(nil)";
   - a full disk ends the log after a complete line, with one message, and does not end the program.

   Environment: MALLOC_TRACE is the path of the log, QOR_RECORD_MEMCHECK that of the framework's log. QOR_RECORD_PID is
   the process to record; if it executes another program in its place, the logs start again, so that a launcher script
   can be recorded. QOR_RECORD_PRELOAD is the earlier value of LD_PRELOAD, for processes that are not recorded.

   This code runs inside malloc, so it must not allocate. */

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#define EXPORT __attribute__((visibility("default")))

enum {
    WINDOW = 64 * 1024,          /* size of the mapped part of the file; its unused part consists of empty lines */
    LOWEST_LOG_DESCRIPTOR = 900, /* shells and daemons use low descriptors without checking */
    LONGEST_PATH = 4096,
    LONGEST_LINE = 16384,
    LOCK_TRIES = 1000,
    LOCK_WAIT_MICROSECONDS = 50,
};

int __cxa_atexit(void (*function)(void*), void* argument, void* dso);

/* Declared here because <mcheck.h> declares that mtrace() never calls back into its caller, but it does, through
   fopen(). */
void mtrace(void);

struct place { /* identifies the file behind a descriptor */
    dev_t device;
    ino_t file;
};

static char first_path[LONGEST_PATH]; /* the log of the first recorded process; its children's paths begin with it */
static char path[LONGEST_PATH];
static FILE* stream;
static char stream_buffer[LONGEST_LINE];
static char line[LONGEST_LINE]; /* the incomplete current line */
static size_t line_length;
static bool has_ended;

/* The process that writes the log, and a flag in a page that fork clears. A child makes its file with its first line,
   so a child that only executes a program leaves no file. */
static pid_t writer;
static bool* is_writer;

static int descriptor = -1;
static struct place log_place;
static struct place message_place;
static off_t written;
static char* window;
static off_t window_begin;

static bool place_of(int file, struct place* result) {
    struct stat status;
    if (fstat(file, &status) != 0)
        return false;
    *result = (struct place){status.st_dev, status.st_ino};
    return true;
}

static bool is_at(int file, const struct place* wanted) {
    struct place found;
    return place_of(file, &found) && found.device == wanted->device && found.file == wanted->file;
}

/* Prints a message to the program's standard error, unless that has become another file. */
static void end_log(int reason) {
    has_ended = true;
    if (is_at(STDERR_FILENO, &message_place))
        dprintf(STDERR_FILENO, "record: the log %s ends here: %s\n", path, strerror(reason));
}

static bool open_log(int flags) {
    int low = open(path, O_RDWR | O_CLOEXEC | flags, 0666);
    if (low < 0)
        return false;
    descriptor = fcntl(low, F_DUPFD_CLOEXEC, LOWEST_LOG_DESCRIPTOR);
    if (descriptor >= 0)
        close(low);
    else
        descriptor = low;
    return place_of(descriptor, &log_place);
}

/* Opens the log again if the program has closed the descriptor or opened another file under its number. */
static bool find_log(void) { return is_at(descriptor, &log_place) || open_log(0); }

static void close_window(void) {
    if (window)
        munmap(window, WINDOW);
    window = NULL;
}

/* Returns 0 or an errno. Reserves disk blocks, because writing to a mapped page without one would end the program. */
static int move_window(void) {
    if (!find_log())
        return errno;
    off_t begin = written & ~(off_t)(sysconf(_SC_PAGESIZE) - 1);
    int reason = posix_fallocate(descriptor, written, begin + WINDOW - written);
    if (reason != 0)
        return reason;
    char* place = mmap(NULL, WINDOW, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, begin);
    if (place == MAP_FAILED)
        return errno;
    close_window();
    window = place;
    window_begin = begin;
    memset(window + (written - begin), '\n', (size_t)(begin + WINDOW - written));
    return 0;
}

/* Blocks the signal for exceeding a file-size limit: the growing log must not signal the program. */
static bool make_room(size_t size) {
    if (window && written + (off_t)size <= window_begin + WINDOW)
        return true;
    sigset_t signals, before;
    sigemptyset(&signals);
    sigaddset(&signals, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    int reason = move_window();
    if (reason != 0) {
        sigtimedwait(&signals, NULL, &(struct timespec){0, 0});
        close_window();
        if (is_at(descriptor, &log_place))
            (void)!ftruncate(descriptor, written);
        end_log(reason);
    }
    pthread_sigmask(SIG_SETMASK, &before, NULL);
    return reason == 0;
}

/* Writes the first byte last, so that a line that is cut off in the middle does not count as a line. */
static void write_out(const char* text, size_t size) {
    if (!make_room(size))
        return;
    char* place = window + (written - window_begin);
    memcpy(place + 1, text + 1, size - 1);
    __atomic_signal_fence(__ATOMIC_RELEASE);
    *(volatile char*)place = *text;
    written += (off_t)size;
}

/* Returns the position of the code in "@ CALLER CODE ADDRESS[ SIZE]", or null; `end` is the end of the line. The
   caller may contain blanks, so the words are counted from the end. */
static const char* find_code(const char* begin, const char* end) {
    if (*begin != '@')
        return NULL;
    for (int words = 1; words <= 2; ++words) {
        end = memrchr(begin, ' ', (size_t)(end - begin));
        if (!end || end - begin < 4)
            return NULL;
        if (end[-2] == ' ' && strchr("+-<>!", end[-1]))
            return end - 1;
    }
    return NULL;
}

#include "mtrace_live_blocks.h"

static void begin_log_of_child(void) {
    off_t inherited = written;
    char parent[LONGEST_PATH];
    memcpy(parent, path, sizeof path);
    close_window();
    if (is_at(descriptor, &log_place))
        close(descriptor);
    *is_writer = true;
    writer = getpid();
    written = 0;
    /* Process ids may be reused. */
    int length = snprintf(path, sizeof path, "%s.%d", first_path, (int)writer);
    for (int i = 2; !open_log(O_CREAT | O_EXCL) && !has_ended; ++i) {
        if (errno != EEXIST)
            end_log(errno);
        snprintf(path + length, sizeof path - (size_t)length, ".%d", i);
    }
    if (!has_ended)
        copy_live_blocks(parent, inherited);
}

/* The name of the main program is its current argv[0], where servers write their status. A blank in the name would
   split it into two words. */
static void join_caller(const char* code) {
    for (char* at = line + 2; at < code - 1; ++at)
        if (*at == ' ')
            *at = '_';
}

/* For a failed realloc, the C library writes "!" instead of "<" and ">". */
static bool has_failed(const char* code) { return *code == '!' || code[2] == '('; }

static void end_line(void) {
    size_t length = line_length;
    line_length = 0;
    const char* code = find_code(line, line + length - 1);
    if (code && has_failed(code))
        return;
    if (code)
        join_caller(code);
    if (!*is_writer)
        begin_log_of_child();
    if (!has_ended)
        write_out(line, length);
}

/* mtrace() writes in pieces. Lines that are too long are cut. */
static ssize_t take_text(void* unused, const char* text, size_t size) {
    (void)unused;
    int kept = errno;
    for (size_t i = 0; i < size; ++i) {
        if (line_length < sizeof line - 1 || text[i] == '\n')
            line[line_length++] = text[i];
        if (text[i] == '\n')
            end_line();
    }
    errno = kept;
    return (ssize_t)size;
}

/* mtrace() opens its log with this function before it starts tracing. All other calls go to the C library. */
EXPORT FILE* fopen(const char* name, const char* mode) {
    if (!*path || stream || strcmp(name, path) != 0) {
        FILE* (*next)(const char*, const char*);
        *(void**)&next = dlsym(RTLD_NEXT, "fopen");
        return next(name, mode);
    }
    if (!open_log(O_CREAT | O_TRUNC))
        return NULL;
    stream = fopencookie(NULL, "w", (cookie_io_functions_t){.write = take_text});
    return stream;
}

/* Another thread may have been in the middle of a line at the fork. */
static void after_fork_in_child(void) {
    __fpurge(stream);
    line_length = 0;
}

/* Removes the empty lines. Other threads may be writing, or may never release the stream, so the wait is limited. */
static void finish_log(void) {
    if (!stream || writer != getpid())
        return;
    int tries = 0;
    while (tries < LOCK_TRIES && ftrylockfile(stream) != 0) {
        ++tries;
        usleep(LOCK_WAIT_MICROSECONDS);
    }
    if (tries == LOCK_TRIES)
        return;
    if (!has_ended && find_log()) {
        has_ended = true;
        close_window();
        (void)!ftruncate(descriptor, written);
    }
    funlockfile(stream);
}

/* Registered first, so it runs after everything else in exit(). */
static void finish_log_at_exit(void* unused) {
    (void)unused;
    finish_log();
}

EXPORT void _exit(int status) {
    finish_log();
    void (*next)(int);
    *(void**)&next = dlsym(RTLD_NEXT, "_exit");
    next(status);
    __builtin_unreachable();
}

EXPORT void _Exit(int status) { _exit(status); }

static void stay_out(void) {
    const char* before = getenv("QOR_RECORD_PRELOAD");
    if (before && *before)
        setenv("LD_PRELOAD", before, 1);
    else
        unsetenv("LD_PRELOAD");
    unsetenv("MALLOC_TRACE");
    unsetenv("QOR_MEMCHECK");
}

/* The linker flag initfirst makes this run before the constructors of all other libraries, so that the log has their
   allocations, and a later release is not one of an unknown block. The C library has not set `environ` yet. */
__attribute__((constructor)) static void begin_log(int argc, char** argv, char** environment) {
    (void)argc;
    (void)argv;
    if (!environ)
        environ = environment;
    const char* process = getenv("QOR_RECORD_PID");
    const char* log = getenv("MALLOC_TRACE");
    if (!process || atoi(process) != getpid() || !log || strlen(log) >= sizeof path) {
        stay_out();
        return;
    }
    is_writer = mmap(NULL, (size_t)sysconf(_SC_PAGESIZE), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (is_writer == MAP_FAILED || madvise(is_writer, (size_t)sysconf(_SC_PAGESIZE), MADV_WIPEONFORK) != 0)
        return;
    *is_writer = true;
    writer = getpid();
    __cxa_atexit(finish_log_at_exit, NULL, NULL);
    strcpy(first_path, log);
    strcpy(path, log);
    place_of(STDERR_FILENO, &message_place);
    mtrace();
    /* A launcher may have set QOR_MEMCHECK for the programs that it starts. */
    const char* memcheck_log = getenv("QOR_RECORD_MEMCHECK");
    const char* memcheck_log_now = getenv("QOR_MEMCHECK");
    if (memcheck_log && (!memcheck_log_now || strcmp(memcheck_log, memcheck_log_now) != 0))
        setenv("QOR_MEMCHECK", memcheck_log, 1);
    if (stream) {
        setvbuf(stream, stream_buffer, _IOLBF, sizeof stream_buffer);
        pthread_atfork(NULL, NULL, after_fork_in_child);
    }
}
