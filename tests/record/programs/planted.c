/* Leaks of C; the environment variable PLANTED chooses one. The line of a leak ends with its word as a comment.
   Compiled with optimisation and without frame pointers. */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define OWN_FRAME __attribute__((noinline))

/* Keeps the compiler from removing unused allocations and from turning calls into jumps. */
void* volatile planted;

typedef void* allocator(size_t, size_t);

OWN_FRAME static void call(allocator* allocate) {
    planted = allocate(3, 1001); /* function_pointer */
    planted = NULL;
}

static void function_pointer(void) {
    call(calloc);
    planted = NULL;
}

/* Each round may move the block; only the last block is left. */
OWN_FRAME static void* grow(void* block, size_t size) {
    void* grown = realloc(block, size); /* realloc_chain */
    if (grown == NULL) {
        abort();
    }
    return grown;
}

static void realloc_chain(void) {
    void* block = NULL;
    for (size_t size = 16; size <= 16384; size *= 4) {
        block = grow(block, size);
        planted = malloc(100);
        free(planted);
    }
    planted = block;
    planted = NULL;
}

OWN_FRAME static void copy(const char* text, int depth) {
    if (depth > 0) {
        copy(text, depth - 1); /* the frames of a recursion */
        planted = NULL;
        return;
    }
    planted = strdup(text); /* strdup */
    planted = NULL;
}

OWN_FRAME static void print(int number) {
    char* text = NULL;
    if (asprintf(&text, "%01000d", number) < 0) { /* asprintf */
        abort();
    }
    planted = text;
    planted = NULL;
}

int main(void) {
    const char* word = getenv("PLANTED");
    if (word == NULL) {
        return 2;
    }
    if (strcmp(word, "function_pointer") == 0) {
        function_pointer();
    } else if (strcmp(word, "realloc_chain") == 0) {
        realloc_chain();
    } else if (strcmp(word, "strdup") == 0) {
        copy("a text that is copied", 10);
    } else if (strcmp(word, "asprintf") == 0) {
        print(7);
    } else {
        return 2;
    }
    return 0;
}
