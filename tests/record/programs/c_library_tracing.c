/* Preloaded between the recorder and the C library's own tracing (libc_malloc_debug.so.0). It begins that tracing in a
   process, in the file $TRACED.<pid>, with a block whose size marks the same place in another log of the process. The
   tracing library exports old symbol versions only, which a search by name does not find, so the calls of the recorder
   are passed on here. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <mcheck.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

enum { marker = 79123 };

static void* volatile marked;

static void* next_function(const char* name, const char* version) {
    void* found = dlvsym(RTLD_NEXT, name, version);
    return found != NULL ? found : dlsym(RTLD_NEXT, name);
}

#define NEXT(function, version)                                                                                        \
    static __typeof__(function)* next;                                                                                 \
    if (next == NULL) {                                                                                                \
        *(void**)&next = next_function(#function, version);                                                            \
    }

void* malloc(size_t size) {
    NEXT(malloc, "GLIBC_2.2.5")
    return next(size);
}

void* calloc(size_t count, size_t size) {
    NEXT(calloc, "GLIBC_2.2.5")
    return next(count, size);
}

void* realloc(void* block, size_t size) {
    NEXT(realloc, "GLIBC_2.2.5")
    return next(block, size);
}

void free(void* block) {
    NEXT(free, "GLIBC_2.2.5")
    next(block);
}

int posix_memalign(void** place, size_t alignment, size_t size) {
    NEXT(posix_memalign, "GLIBC_2.2.5")
    return next(place, alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    NEXT(aligned_alloc, "GLIBC_2.16")
    return next(alignment, size);
}

__attribute__((constructor)) static void begin(void) {
    const char* name = getenv("TRACED");
    if (name == NULL) {
        return;
    }
    char path[4096];
    snprintf(path, sizeof path, "%s.%d", name, (int)getpid());
    setenv("MALLOC_TRACE", path, 1);
    mtrace();
    marked = malloc(marker);
}
