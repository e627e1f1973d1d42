// System calls that bypass the C library: they leave errno alone, call no function that the program may have replaced,
// and are not cancellation points.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/syscall.h>

namespace qor::record {

#if defined(__x86_64__)

inline long raw_call(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0, long f = 0) noexcept {
    long result;
    register long r10 __asm__("r10") = d;
    register long r8 __asm__("r8") = e;
    register long r9 __asm__("r9") = f;
    __asm__ volatile("syscall"
                     : "=a"(result)
                     : "a"(number), "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8), "r"(r9)
                     : "rcx", "r11", "memory");
    return result;
}

inline void pause_briefly() noexcept { __builtin_ia32_pause(); }

#elif defined(__aarch64__)

inline long raw_call(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0, long f = 0) noexcept {
    register long x8 __asm__("x8") = number;
    register long x0 __asm__("x0") = a;
    register long x1 __asm__("x1") = b;
    register long x2 __asm__("x2") = c;
    register long x3 __asm__("x3") = d;
    register long x4 __asm__("x4") = e;
    register long x5 __asm__("x5") = f;
    __asm__ volatile("svc 0" : "+r"(x0) : "r"(x8), "r"(x1), "r"(x2), "r"(x3), "r"(x4), "r"(x5) : "memory");
    return x0;
}

inline void pause_briefly() noexcept { __asm__ volatile("yield"); }

#else
#error "There is no recorder for this processor."
#endif

inline bool has_failed(long result) noexcept { return result < 0 && result > -4096; }

template <class T>
long as_word(T* pointer) noexcept {
    return static_cast<long>(reinterpret_cast<std::uintptr_t>(pointer));
}

template <class T = void>
T* as_pointer(long word) noexcept {
    return reinterpret_cast<T*>(static_cast<std::uintptr_t>(word));
}

} // namespace qor::record
