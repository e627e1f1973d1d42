/* Preloaded by scripts/record into the program to be recorded, before libc_malloc_debug.so.0, whose mtrace() writes
   the log. This file gives mtrace() a stream of its own making, so that

   - each line reaches the file whole and at once: nothing waits in memory that a signal, an abort or _exit would lose
     or a fork would double;
   - the log survives a program that closes descriptors it does not know;
   - a forked child goes on in a file of its own, PREFIX.mtrace.<pid>, which begins with the blocks that it inherited;
   - a blank in the name of a caller is "_": a blank ends a word of the log;
   - a disk that is full ends the log after a whole line, with one message, and not the program.

   Environment: MALLOC_TRACE names the log, QOR_RECORD_MEMCHECK the framework's. QOR_RECORD_PID is the process to record;
   a program that it executes in its own place starts the logs anew, so that a launcher script may be recorded.
   QOR_RECORD_PRELOAD is what LD_PRELOAD was before, for the processes that are not recorded.

   Nothing here may allocate: it runs inside malloc. */

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
    LOWEST_LOG_DESCRIPTOR = 900, /* shells and daemons use the low ones without asking */
    LONGEST_PATH = 4096,
    LONGEST_LINE = 16384,
};

/* Declared here because <mcheck.h> promises the compiler that mtrace() never calls back into its
   caller, and it does, through fopen(). */
void mtrace(void);

struct place { /* what a descriptor stands for */
    dev_t device;
    ino_t file;
};

static char first_path[LONGEST_PATH]; /* of the process that was told to record; its children's begin with it */
static char path[LONGEST_PATH];
static FILE* stream;
static char stream_buffer[LONGEST_LINE];
static char line[LONGEST_LINE]; /* what there is of the line that is being made */
static size_t line_length;
static bool is_forked; /* the first line of a child makes its file: one that only executes a program leaves none */
static bool has_ended;

static int descriptor = -1;
static struct place log_place;
static struct place message_place;
static off_t written;

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

/* Says it where the program's messages go, unless that has become something else. */
static void end_log(int reason) {
    has_ended = true;
    if (is_at(STDERR_FILENO, &message_place))
        dprintf(STDERR_FILENO, "record: the log %s ends here: %s\n", path, strerror(reason));
}

static bool open_log(int flags) {
    int low = open(path, O_WRONLY | O_APPEND | O_CLOEXEC | flags, 0666);
    if (low < 0)
        return false;
    descriptor = fcntl(low, F_DUPFD_CLOEXEC, LOWEST_LOG_DESCRIPTOR);
    if (descriptor >= 0)
        close(low);
    else
        descriptor = low;
    return place_of(descriptor, &log_place);
}

/* One call for each line. What a program's limits make of a file that grows is no signal for the program. */
static void write_out(const char* text, size_t size) {
    sigset_t signals, before;
    sigemptyset(&signals);
    sigaddset(&signals, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    ssize_t count = 0;
    for (size_t done = 0; done < size; done += (size_t)count) {
        count = write(descriptor, text + done, size - done);
        if (count < 0 && errno == EINTR)
            count = 0;
        else if (count <= 0)
            break;
    }
    if (count <= 0) {
        int reason = errno;
        sigtimedwait(&signals, NULL, &(struct timespec){0, 0});
        (void)!ftruncate(descriptor, written);
        end_log(reason);
    } else {
        written += (off_t)size;
    }
    pthread_sigmask(SIG_SETMASK, &before, NULL);
}

/* Where the code is in "@ CALLER CODE ADDRESS[ SIZE]", or null; `end` is that of the line. The caller may hold blanks, so
   the words are counted from the end. */
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
    if (is_at(descriptor, &log_place))
        close(descriptor);
    is_forked = false;
    written = 0;
    /* A number that a process had before may come again. */
    int length = snprintf(path, sizeof path, "%s.%d", first_path, (int)getpid());
    for (int i = 2; !open_log(O_CREAT | O_EXCL) && !has_ended; ++i) {
        if (errno != EEXIST)
            end_log(errno);
        snprintf(path + length, sizeof path - (size_t)length, ".%d", i);
    }
    if (!has_ended)
        copy_live_blocks(parent, inherited);
}

/* The main program is called what its argv[0] says now, and servers write there what they are doing. A blank in a name
   would part it in two words. */
static void join_caller(void) {
    const char* code = find_code(line, line + line_length - 1);
    for (char* at = line + 2; code && at < code - 1; ++at)
        if (*at == ' ')
            *at = '_';
}

static void end_line(void) {
    join_caller();
    if (is_forked)
        begin_log_of_child();
    if (!has_ended && !is_at(descriptor, &log_place) && !open_log(0))
        end_log(errno);
    if (!has_ended)
        write_out(line, line_length);
    line_length = 0;
}

/* What mtrace() prints comes in pieces; what is longer than any line is cut. */
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

/* mtrace() opens its log through here, before it traces. Every other call goes on to the C library. */
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

/* Another thread may have been in the middle of a line. */
static void after_fork_in_child(void) {
    __fpurge(stream);
    line_length = 0;
    is_forked = true;
}

static void stay_out(void) {
    const char* before = getenv("QOR_RECORD_PRELOAD");
    if (before && *before)
        setenv("LD_PRELOAD", before, 1);
    else
        unsetenv("LD_PRELOAD");
    unsetenv("MALLOC_TRACE");
    unsetenv("QOR_MEMCHECK");
}

/* The linker flag initfirst has this run before every other library's initialisation: what they
   allocate there and release later is in the log, and is no free of an unknown block. The C library
   has not set `environ` by then. */
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
    strcpy(first_path, log);
    strcpy(path, log);
    place_of(STDERR_FILENO, &message_place);
    mtrace();
    /* A launcher has left its own choice for those that it starts. */
    const char* memcheck_log = getenv("QOR_RECORD_MEMCHECK");
    const char* memcheck_log_now = getenv("QOR_MEMCHECK");
    if (memcheck_log && (!memcheck_log_now || strcmp(memcheck_log, memcheck_log_now) != 0))
        setenv("QOR_MEMCHECK", memcheck_log, 1);
    if (stream) {
        setvbuf(stream, stream_buffer, _IOLBF, sizeof stream_buffer);
        pthread_atfork(NULL, NULL, after_fork_in_child);
    }
}
