// Calls each function that allocates or releases at least once, also in ways that fail or do nothing.
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <malloc.h>
#include <new>

namespace {

void* volatile place;

// Volatile, because the compiler would warn of a constant size.
std::size_t volatile huge = SIZE_MAX / 2 - 100;

void release(void* block) {
    place = block;
    std::free(place);
}

char* print(const char* format, ...) {
    va_list words;
    va_start(words, format);
    char* text = nullptr;
    int length = vasprintf(&text, format, words);
    va_end(words);
    return length < 0 ? nullptr : text;
}

void c_functions() {
    release(nullptr);
    release(std::malloc(100));
    release(std::malloc(0));
    release(std::calloc(10, 11));
    release(std::malloc(huge));
    release(std::calloc(huge, 7));
    void* block = std::realloc(nullptr, 120);
    block = std::realloc(block, 100'000);
    block = std::realloc(block, 130);
    void* failed = std::realloc(block, huge);
    place = failed;
    block = reallocarray(block, 7, 20);
    failed = reallocarray(block, huge, huge);
    place = failed;
    place = std::realloc(block, 0);
    release(std::aligned_alloc(64, 640));
    release(memalign(128, 150));
    release(valloc(160));
    release(pvalloc(170));
    void* aligned = nullptr;
    if (posix_memalign(&aligned, 256, 180) == 0) {
        release(aligned);
    }
    if (posix_memalign(&aligned, 3, 180) == 0) {
        std::abort();
    }
    release(strdup("a text"));
    release(strndup("a text", 3));
    release(wcsdup(L"a text"));
    char* text = nullptr;
    if (asprintf(&text, "%d texts", 3) > 0) {
        release(text);
    }
    release(print("%d texts", 4));
    release(realpath("/tmp/..", nullptr));
    char* line = nullptr;
    std::size_t length = 0;
    if (std::FILE* file = std::fopen("/proc/self/status", "r"); file != nullptr) {
        while (getline(&line, &length, file) > 0) {
        }
        std::fclose(file);
    }
    release(line);
    char* written = nullptr;
    if (std::FILE* memory = open_memstream(&written, &length); memory != nullptr) {
        for (int i = 0; i < 1000; ++i) {
            std::fputs("a word ", memory);
        }
        std::fclose(memory);
    }
    release(written);
}

void operators() {
    constexpr std::align_val_t aligned{64};
    ::operator delete(nullptr);
    ::operator delete(::operator new(100));
    ::operator delete(::operator new(100), 100);
    ::operator delete(::operator new(100, std::nothrow), std::nothrow);
    ::operator delete(::operator new(100, aligned), aligned);
    ::operator delete(::operator new(100, aligned), 100, aligned);
    ::operator delete(::operator new(100, aligned, std::nothrow), aligned, std::nothrow);
    ::operator delete[](::operator new[](100));
    ::operator delete[](::operator new[](100), 100);
    ::operator delete[](::operator new[](100, std::nothrow), std::nothrow);
    ::operator delete[](::operator new[](100, aligned), aligned);
    ::operator delete[](::operator new[](100, aligned), 100, aligned);
    ::operator delete[](::operator new[](100, aligned, std::nothrow), aligned, std::nothrow);
    place = ::operator new(huge, std::nothrow);
    try {
        place = ::operator new(huge);
        std::abort();
    } catch (const std::bad_alloc&) {
    }
}

} // namespace

int main() {
    c_functions();
    operators();
}
