/* Preloaded by scripts/record into the program to be recorded, before libc_malloc_debug.so.0, whose
   mtrace() writes the log. This file only sees to it that one process writes the log, that the
   program does not get hold of the log's descriptor, and that the last lines reach the file.

   Environment: MALLOC_TRACE names the log. QOR_RECORD_PID is the process to record; a program that
   it executes in its own place starts the log anew, so that a launcher script may be recorded.
   QOR_RECORD_PRELOAD is what LD_PRELOAD was before, for the processes that are not recorded. */

#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define EXPORT __attribute__((visibility("default")))

/* Shells and daemons use and close the low descriptors without asking. */
enum { LOWEST_LOG_DESCRIPTOR = 900 };

enum { LOCK_TRIES = 1000, LOCK_WAIT_MICROSECONDS = 50 };

int __cxa_atexit(void (*function)(void*), void* argument, void* dso);

/* Declared here because <mcheck.h> promises the compiler that mtrace() never calls back into its
   caller, and it does, through fopen(). */
void mtrace(void);

static const char* log_path; /* set only while mtrace() opens its log */
static FILE* log_file;
static pid_t recorded_process;

/* mtrace() opens its log through here. Every other call goes on to the C library. */
EXPORT FILE* fopen(const char* path, const char* mode) {
    if (!log_path || strcmp(path, log_path) != 0) {
        FILE* (*next)(const char*, const char*);
        *(void**)&next = dlsym(RTLD_NEXT, "fopen");
        return next(path, mode);
    }
    int low = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (low < 0)
        return NULL;
    int high = fcntl(low, F_DUPFD_CLOEXEC, LOWEST_LOG_DESCRIPTOR);
    if (high >= 0)
        close(low);
    log_file = fdopen(high >= 0 ? high : low, "w");
    return log_file;
}

/* A forked child holds a copy of the unwritten lines and would write them a second time. */
static void silence_child(void) {
    int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere >= 0) {
        dup3(nowhere, fileno(log_file), O_CLOEXEC);
        close(nowhere);
    }
}

/* The stream is left open and its lock is released: other threads may still be allocating. */
static void write_end(void) {
    fputs_unlocked("= End\n", log_file);
    fflush_unlocked(log_file);
    funlockfile(log_file);
}

/* Runs after everything else that exit() runs, because it was registered first. */
static void end_at_exit(void* unused) {
    (void)unused;
    if (getpid() == recorded_process) {
        flockfile(log_file);
        write_end();
    }
}

/* A process that leaves this way would lose the lines that are still in memory. Other threads may
   be writing theirs, or may hold the stream for ever: it waits, but not for long. */
EXPORT void _exit(int status) {
    if (log_file && getpid() == recorded_process) {
        int tries = 0;
        while (tries < LOCK_TRIES && ftrylockfile(log_file) != 0) {
            ++tries;
            usleep(LOCK_WAIT_MICROSECONDS);
        }
        if (tries < LOCK_TRIES)
            write_end();
    }
    void (*next)(int);
    *(void**)&next = dlsym(RTLD_NEXT, "_exit");
    next(status);
    __builtin_unreachable();
}

EXPORT void _Exit(int status) {
    _exit(status);
}

static void stay_out(void) {
    const char* before = getenv("QOR_RECORD_PRELOAD");
    if (before && *before)
        setenv("LD_PRELOAD", before, 1);
    else
        unsetenv("LD_PRELOAD");
    unsetenv("MALLOC_TRACE");
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
    if (!process || atoi(process) != getpid()) {
        stay_out();
        return;
    }
    recorded_process = getpid();
    __cxa_atexit(end_at_exit, NULL, NULL);
    log_path = getenv("MALLOC_TRACE");
    mtrace();
    log_path = NULL;
    if (log_file)
        pthread_atfork(NULL, NULL, silence_child);
    else
        recorded_process = 0;
}
