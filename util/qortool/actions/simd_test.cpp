// simd-test: compares the framework's memory routines with those of the C library.
#include "action_arguments.h"
#include "message_names.h"
#include "qortool_app.h"

#include <array>
#include <cstring>

namespace message = qor::messages::tool;

namespace {

constexpr char source[] = "util/qortool/main";

constexpr uint64 buffer_size = 67'108'864;
constexpr uint32 calls = 1000;

// Used in turn, so that no call finds the previous call's buffer in a cache. They live until the process ends.
struct buffers {
    std::array<char*, 8> all;
    char* operator[](uint32 number) const { return all[number % all.size()]; }
};

struct timed_test {
    const char* name;
    uint32 first; // number of the first call
    void (*call)(const buffers& buffer, uint32 i);
};

constexpr uint32 doubled(uint32 i) { return i << 16 | i; }

// The order is that of the output. Copies form a chain through the buffers: each reads the buffer that the next one
// overwrites.
constexpr timed_test tests[] = {
    {"memset()", 0, [](const buffers& buffer, uint32 i) { std::memset(buffer[i], 0, buffer_size); }},
    {"simd_zero()", 0, [](const buffers& buffer, uint32 i) { simd_zero(buffer[i], buffer_size); }},
    {"simd_memset_u8()", 0,
     [](const buffers& buffer, uint32 i) { simd_memset_u8(buffer[i], static_cast<uint8>(i), buffer_size); }},
    {"simd_memset_u16()", 0,
     [](const buffers& buffer, uint32 i) { simd_memset_u16(buffer[i], static_cast<uint16>(i), buffer_size); }},
    {"simd_memset_u32()", 0,
     [](const buffers& buffer, uint32 i) { simd_memset_u32(buffer[i], doubled(i), buffer_size); }},
    {"simd_memset_u64()", 0,
     [](const buffers& buffer, uint32 i) { simd_memset_u64(buffer[i], doubled(i), buffer_size); }},
    {"memcpy() with aligned data", 1,
     [](const buffers& buffer, uint32 i) { std::memcpy(buffer[i - 1], buffer[i], buffer_size); }},
    {"simd_memcpy_aligned()", 1,
     [](const buffers& buffer, uint32 i) { simd_memcpy_aligned(buffer[i - 1], buffer[i], buffer_size); }},
    {"simd_memcpy_safe() with aligned buffers", 1,
     [](const buffers& buffer, uint32 i) { simd_memcpy_safe(buffer[i - 1], buffer[i], buffer_size); }},
    {"memcpy() with unaligned data", 1,
     [](const buffers& buffer, uint32 i) { std::memcpy(buffer[i - 1], buffer[i] + 1, buffer_size - 1); }},
    {"simd_memcpy_safe() with unaligned data", 1,
     [](const buffers& buffer, uint32 i) { simd_memcpy_safe(buffer[i - 1], buffer[i] + 1, buffer_size - 1); }},
};

// The label is visible while the test runs; nothing is printed between the two readings of the clock.
void run(const timed_test& test, const buffers& buffer) {
    qorString label;
    label.Printf("Testing %s ... ", test.name);
    fixed_fprintf(stdout, "%-55s", label.Text());
    std::fflush(stdout);

    const uint64 start = qorGetTickCounter();
    for (uint32 i = test.first; i < test.first + calls; ++i)
        test.call(buffer, i);
    const uint64 elapsed = qorGetTickCounter() - start;

    // Bits of the nominal volume for each microsecond; tests that move a byte less count as much.
    constexpr uint64 bits = calls * buffer_size * 8;
    fixed_fprintf(stdout, "elapsed: %llu.%03llu sec, %llu MB/sec\n", elapsed / 10'000'000, elapsed / 10'000 % 1000,
                  bits / (elapsed / 10));
    std::fflush(stdout);
}

} // namespace

int qortool_app::func_simd_test(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "func_simd_test");
    if (!m_quiet)
        fputmsg(stdout, message::catalog, message::simd_test_heading, true);
    if (!check_arguments(args, "simd-test", 0))
        return 1;
    qorGetTickCounter(); // the first reading may cost more than the others
    buffers buffer;
    for (char*& one : buffer.all)
        one = static_cast<char*>(qor_do_malloc(qor_get_simd_alignment(), buffer_size, false, source, 818));
    for (const timed_test& test : tests)
        run(test, buffer);
    return 0;
}
