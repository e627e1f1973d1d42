// Memory routines that use the widest instructions of the processor, for buffers of any size.
//
// Lengths are in bytes; a length of 0 touches nothing. A process chooses the instruction set once, at the first call:
// the best one that the processor and the operating system support, or the one named by the environment variable
// QOR_SIMD ("avx512", "avx2", "sse2", "plain"; if that set is missing, the next lower one). The routines cannot fail,
// and any thread may call them. Their stores are ordered like normal ones: another thread that sees a later store of
// the caller sees them too, even if a large block was written past the caches.
#pragma once

#include "qor/glue/binding.h"

// The alignment in bytes that simd_memcpy_aligned requires: a power of two, the same on every machine. Pass it to
// qor_do_malloc.
inline uint64 qor_get_simd_alignment() noexcept { return qor::glue::qor_get_simd_alignment(); }

// Fills `length` bytes at any address with zeros.
[[gnu::noinline]] inline void simd_zero(void* dst, uint64 length) noexcept { qor::glue::simd_zero(dst, length); }

// Fill `length` bytes at any address with the repeated value, in the byte order of this machine. The first byte of the
// value comes first; the last repetition is cut off at the end.
[[gnu::noinline]] inline void simd_memset_u8(void* dst, uint8 value, uint64 length) noexcept {
    qor::glue::simd_memset_u8(dst, value, length);
}
[[gnu::noinline]] inline void simd_memset_u16(void* dst, uint16 value, uint64 length) noexcept {
    qor::glue::simd_memset_u16(dst, value, length);
}
[[gnu::noinline]] inline void simd_memset_u32(void* dst, uint32 value, uint64 length) noexcept {
    qor::glue::simd_memset_u32(dst, value, length);
}
[[gnu::noinline]] inline void simd_memset_u64(void* dst, uint64 value, uint64 length) noexcept {
    qor::glue::simd_memset_u64(dst, value, length);
}

// Copy `length` bytes. The buffers must not overlap, but may be identical. simd_memcpy_aligned needs both buffers at
// multiples of qor_get_simd_alignment(); simd_memcpy_safe takes any addresses.
[[gnu::noinline]] inline void simd_memcpy_aligned(void* dst, const void* src, uint64 length) noexcept {
    qor::glue::simd_memcpy_aligned(dst, src, length);
}
[[gnu::noinline]] inline void simd_memcpy_safe(void* dst, const void* src, uint64 length) noexcept {
    qor::glue::simd_memcpy_safe(dst, src, length);
}
