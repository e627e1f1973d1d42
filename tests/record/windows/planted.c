/* Leaks of C. The line of a leak ends with its word as a comment, and each is told on standard output. */
#include <direct.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define OWN_FRAME __attribute__((noinline))

/* Keeps the compiler from removing unused allocations and from turning calls into jumps. */
static void* volatile place;

OWN_FRAME static void lose(const char* name, void* block, size_t size) {
    place = block;
    place = NULL;
    printf("%s %p %u\n", name, block, (unsigned)size);
}

OWN_FRAME static void zeroed(void) {
    void* block = calloc(3, 23701); /* zeroed */
    lose("zeroed", block, 71103);
}

OWN_FRAME static void* grow(void* block, size_t size) {
    void* grown = realloc(block, size); /* grown */
    if (grown == NULL)
        abort();
    return grown;
}

static void grown(void) {
    void* block = NULL;
    for (size_t size = 16; size <= 71104; size = size * 4 < 71104 ? size * 4 : size == 71104 ? size + 1 : 71104)
        block = grow(block, size);
    lose("grown", block, 71104);
}

/* A realloc that must fail leaves the block as it is, and is its place from then on. */
OWN_FRAME static void kept(void) {
    void* block = malloc(71105);
    volatile size_t much = (size_t)1 << 62;
    if (realloc(block, much) != NULL) /* kept */
        abort();
    lose("kept", block, 71105);
}

OWN_FRAME static void aligned(void) {
    void* block = _aligned_malloc(100, 64);
    block = _aligned_realloc(block, 71106, 64); /* aligned */
    lose("aligned", block, 71106);
}

OWN_FRAME static void copied(void) {
    static char text[71107];
    memset(text, 'x', sizeof text - 1);
    lose("copied", _strdup(text), 71107); /* copied */
    wchar_t* wide = _wcsdup(L"a text");
    free(wide);
}

OWN_FRAME static void of_system(void) {
    free(_getcwd(NULL, 0));
    free(_fullpath(NULL, ".", 0));
    free(_tempnam(NULL, "a"));
    _aligned_free(_aligned_offset_realloc(_aligned_offset_malloc(100, 64, 8), 200, 64, 8));
#ifdef _UCRT
    free(_recalloc(NULL, 10, 10));
#endif
    void* block = malloc(1000);
    place = _expand(block, 100);
    free(realloc(block, 0) == NULL ? NULL : place);
    free(NULL);
}

int main(void) {
    zeroed();
    grown();
    kept();
    aligned();
    copied();
    of_system();
    return 7;
}
