// Memory routines that use the widest instructions of the processor, for buffers of any size.
//
// Lengths count bytes; 0 touches nothing. The routines of a process choose their instruction set once, at the
// first call: the best one that processor and operating system have, or what the environment variable
// QOR_SIMD names
// ("avx512", "avx2", "sse2", "plain"; where that set is missing, the next one below it). They fail in no way
// and may be called on any thread. What they wrote is visible to another thread as soon as what the caller
// writes afterwards is, also where large blocks were written past the caches.
#pragma once

#include "qor/glue/binding.h"

// The alignment in bytes that simd_memcpy_aligned wants, a power of two; pass it to qor_do_malloc. It is the
// same on every machine.
inline uint64 qor_get_simd_alignment() noexcept { return qor::glue::qor_get_simd_alignment(); }

// Fills `length` bytes at any address with zeroes.
inline void simd_zero(void* dst, uint64 length) noexcept { qor::glue::simd_zero(dst, length); }

// Fill `length` bytes at any address with the repeated value, in the byte order of this machine. The first
// byte of the value is the first byte written; the last repetition is cut where the length ends.
inline void simd_memset_u8(void* dst, uint8 value, uint64 length) noexcept {
    qor::glue::simd_memset_u8(dst, value, length);
}
inline void simd_memset_u16(void* dst, uint16 value, uint64 length) noexcept {
    qor::glue::simd_memset_u16(dst, value, length);
}
inline void simd_memset_u32(void* dst, uint32 value, uint64 length) noexcept {
    qor::glue::simd_memset_u32(dst, value, length);
}
inline void simd_memset_u64(void* dst, uint64 value, uint64 length) noexcept {
    qor::glue::simd_memset_u64(dst, value, length);
}

// Copies `length` bytes. The buffers must not overlap, but may be the same. Of simd_memcpy_aligned both lie
// at multiples of qor_get_simd_alignment(); of simd_memcpy_safe anywhere.
inline void simd_memcpy_aligned(void* dst, const void* src, uint64 length) noexcept {
    qor::glue::simd_memcpy_aligned(dst, src, length);
}
inline void simd_memcpy_safe(void* dst, const void* src, uint64 length) noexcept {
    qor::glue::simd_memcpy_safe(dst, src, length);
}
