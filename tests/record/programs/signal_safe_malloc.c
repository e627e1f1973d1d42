/* An allocator that signal handlers may call at any time, which the C library does not allow.
   With it, a program can put the recorder to the test there. Each class of sizes is a row of slots and a map of bits of
   those in use; no lock is involved. A release of what is not in use ends the process. */
#define _GNU_SOURCE
#include <errno.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

enum { classes = 20, smallest = 64, most_slots = 1 << 16, word_bits = 64, smallest_alignment = 16 };
static const size_t row_bytes = (size_t)1 << 28;

struct header { /* in front of the block */
    uint64_t magic;
    uint32_t slot;
    uint32_t class;
    uint64_t size;
    uint64_t unused;
};
static const uint64_t magic = 0x626c6f636b696e75;

static _Atomic(char*) rows[classes];
static atomic_uint_fast64_t used[classes][most_slots / word_bits];
static atomic_uint hints[classes];

static size_t slot_bytes(unsigned class) { return (size_t)smallest << class; }

static unsigned slots_of(unsigned class) {
    size_t slots = row_bytes / slot_bytes(class);
    return slots < most_slots ? (unsigned)slots : most_slots;
}

static char* row_of(unsigned class) {
    char* row = atomic_load(&rows[class]);
    if (row == NULL) {
        char* fresh = mmap(NULL, row_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (fresh == MAP_FAILED) {
            return NULL;
        }
        if (atomic_compare_exchange_strong(&rows[class], &row, fresh)) {
            return fresh;
        }
        munmap(fresh, row_bytes);
    }
    return row;
}

static void* take(size_t size, size_t alignment) {
    size_t spare = alignment > sizeof(struct header) ? alignment : 0;
    if (size > row_bytes || alignment > row_bytes) {
        return NULL;
    }
    size_t needed = size + sizeof(struct header) + spare;
    unsigned class = 0;
    while (class < classes && slot_bytes(class) < needed) {
        ++class;
    }
    char* row = class < classes ? row_of(class) : NULL;
    if (row == NULL) {
        return NULL;
    }
    unsigned words = (slots_of(class) + word_bits - 1) / word_bits;
    unsigned first = atomic_load_explicit(&hints[class], memory_order_relaxed);
    for (unsigned i = 0; i < words; ++i) {
        unsigned index = (first + i) % words;
        uint64_t bits = atomic_load(&used[class][index]);
        while (~bits != 0) {
            unsigned bit = (unsigned)__builtin_ctzll(~bits);
            unsigned slot = index * word_bits + bit;
            if (slot >= slots_of(class)) {
                break;
            }
            bits = atomic_fetch_or(&used[class][index], (uint64_t)1 << bit);
            if ((bits >> bit & 1) == 0) {
                atomic_store_explicit(&hints[class], index, memory_order_relaxed);
                uintptr_t block = (uintptr_t)(row + slot * slot_bytes(class)) + sizeof(struct header);
                if (spare != 0) {
                    block = (block + alignment - 1) / alignment * alignment;
                }
                struct header* header = (struct header*)block - 1;
                *header = (struct header){magic, slot, class, size, 0};
                return (void*)block;
            }
        }
    }
    return NULL;
}

static struct header* header_of(void* block) {
    struct header* header = (struct header*)block - 1;
    if (header->magic != magic) {
        abort();
    }
    return header;
}

static void give(void* block) {
    struct header* header = header_of(block);
    unsigned index = header->slot / word_bits;
    uint64_t bit = (uint64_t)1 << header->slot % word_bits;
    unsigned class = header->class;
    header->magic = 0;
    if ((atomic_fetch_and(&used[class][index], ~bit) & bit) == 0) {
        abort();
    }
}

static void* take_or_fail(size_t size, size_t alignment) {
    void* block = take(size, alignment);
    if (block == NULL) {
        errno = ENOMEM;
    }
    return block;
}

/* ---- the functions; they do not call each other, so a library in front sees the calls of the program alone */

void* malloc(size_t size) { return take_or_fail(size, smallest_alignment); }

void free(void* block) {
    if (block != NULL) {
        give(block);
    }
}

void* calloc(size_t count, size_t size) {
    size_t bytes;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        errno = ENOMEM;
        return NULL;
    }
    void* block = take_or_fail(bytes, smallest_alignment);
    return block != NULL ? memset(block, 0, bytes) : NULL;
}

void* realloc(void* old, size_t size) {
    if (old != NULL && size == 0) {
        give(old);
        return NULL;
    }
    void* block = take_or_fail(size, smallest_alignment);
    if (block != NULL && old != NULL) {
        size_t before = header_of(old)->size;
        memcpy(block, old, before < size ? before : size);
        give(old);
    }
    return block;
}

void* memalign(size_t alignment, size_t size);
void* memalign(size_t alignment, size_t size) { return take_or_fail(size, alignment); }

void* aligned_alloc(size_t alignment, size_t size) { return take_or_fail(size, alignment); }

int posix_memalign(void** place, size_t alignment, size_t size) {
    void* block = take(size, alignment);
    if (block == NULL) {
        return ENOMEM;
    }
    *place = block;
    return 0;
}

size_t malloc_usable_size(void* block);
size_t malloc_usable_size(void* block) { return block != NULL ? header_of(block)->size : 0; }
