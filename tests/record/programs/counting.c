/* Preloaded behind the recorder: counts the calls that allocate, reallocate and release blocks. The counts are in the
   mapped file $COUNTING.<pid>, so they survive however the process ends. Calls without an effect do not count: failed
   ones, and releases of null. A forked child begins with counts of zero in a file of its own. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

struct counts {
    atomic_ulong allocations;
    atomic_ulong reallocations;
    atomic_ulong releases;
};

static struct counts early;
static struct counts* counts = &early;

#define COUNT(what) atomic_fetch_add_explicit(&counts->what, 1, memory_order_relaxed)

/* The next library's function. dlsym allocates nothing where it finds one. */
#define NEXT(function)                                                                                                 \
    static __typeof__(function)* next;                                                                                 \
    if (next == NULL) {                                                                                                \
        *(void**)&next = dlsym(RTLD_NEXT, #function);                                                                  \
    }

static void open_counts(void) {
    const char* name = getenv("COUNTING");
    if (name == NULL) {
        return;
    }
    char path[4096];
    int file = -1;
    for (int n = 1; file < 0 && n < 100; ++n) {
        snprintf(path, sizeof path, "%s.%d.%d", name, (int)getpid(), n);
        file = open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    }
    if (file < 0 || ftruncate(file, sizeof *counts) != 0) {
        return;
    }
    struct counts* mapped = mmap(NULL, sizeof *mapped, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (mapped == MAP_FAILED) {
        return;
    }
    mapped->allocations = early.allocations;
    mapped->reallocations = early.reallocations;
    mapped->releases = early.releases;
    counts = mapped;
}

static void count_anew(void) {
    early.allocations = early.reallocations = early.releases = 0;
    counts = &early;
    open_counts();
}

__attribute__((constructor)) static void begin(void) {
    pthread_atfork(NULL, NULL, count_anew);
    open_counts();
}

void* malloc(size_t size) {
    NEXT(malloc)
    void* block = next(size);
    if (block != NULL) {
        COUNT(allocations);
    }
    return block;
}

void* calloc(size_t count, size_t size) {
    NEXT(calloc)
    void* block = next(count, size);
    if (block != NULL) {
        COUNT(allocations);
    }
    return block;
}

void* realloc(void* old, size_t size) {
    NEXT(realloc)
    void* block = next(old, size);
    if (old == NULL) {
        if (block != NULL) {
            COUNT(allocations);
        }
    } else if (size == 0 && block == NULL) {
        COUNT(releases);
    } else {
        COUNT(reallocations);
    }
    return block;
}

void free(void* block) {
    NEXT(free)
    if (block != NULL) {
        COUNT(releases);
    }
    next(block);
}

int posix_memalign(void** place, size_t alignment, size_t size) {
    NEXT(posix_memalign)
    int error = next(place, alignment, size);
    if (error == 0 && *place != NULL) {
        COUNT(allocations);
    }
    return error;
}

void* aligned_alloc(size_t alignment, size_t size) {
    NEXT(aligned_alloc)
    void* block = next(alignment, size);
    if (block != NULL) {
        COUNT(allocations);
    }
    return block;
}

void* memalign(size_t alignment, size_t size);
void* memalign(size_t alignment, size_t size) {
    NEXT(memalign)
    void* block = next(alignment, size);
    if (block != NULL) {
        COUNT(allocations);
    }
    return block;
}

void* valloc(size_t size) {
    NEXT(valloc)
    void* block = next(size);
    if (block != NULL) {
        COUNT(allocations);
    }
    return block;
}

void* pvalloc(size_t size);
void* pvalloc(size_t size) {
    NEXT(pvalloc)
    void* block = next(size);
    if (block != NULL) {
        COUNT(allocations);
    }
    return block;
}
