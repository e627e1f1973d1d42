// The functions of memory that the compiler calls by itself: this library is there before any C run-time.
#include <cstddef>

extern "C" {

void* memcpy(void* to, const void* from, std::size_t size) {
    void* const result = to;
    __asm__ volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(size) : : "memory");
    return result;
}

void* memset(void* to, int value, std::size_t size) {
    void* const result = to;
    __asm__ volatile("rep stosb" : "+D"(to), "+c"(size) : "a"(value) : "memory");
    return result;
}

int memcmp(const void* one, const void* other, std::size_t size) {
    const auto* a = static_cast<const unsigned char*>(one);
    const auto* b = static_cast<const unsigned char*>(other);
    for (; size != 0; --size, ++a, ++b)
        if (*a != *b)
            return *a < *b ? -1 : 1;
    return 0;
}

} // extern "C"
