// simd-test with a library that only records calls: the real one would move 700 GB.
#include "qortool_app.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

extern "C" void* __real_memset(void* destination, int value, std::size_t length);
extern "C" void* __real_memcpy(void* destination, const void* source, std::size_t length);

namespace {

constexpr uint64 size = 67'108'864;

// A buffer is only an address: no call of the action may access it.
char* buffer(int number) { return reinterpret_cast<char*>(uint64{0x2000'0000'0000} + number * size); }

std::string name(const void* address) {
    for (int i = 0; i < 8; ++i)
        if (address == buffer(i) || address == buffer(i) + 1)
            return std::to_string(i) + (address == buffer(i) ? "" : "+1");
    return "elsewhere";
}

std::vector<std::string> s_calls;
int s_buffers = 0;
uint64 s_now = 0;
uint64 s_elapsed = 0;

void note(const char* op, const void* to, const std::string& what, uint64 length) {
    s_calls.push_back(std::string(op) + " " + name(to) + " " + what + " " + std::to_string(length));
}

uint64 get_alignment() noexcept {
    s_calls.push_back("alignment");
    return 4096;
}
void* do_malloc(uint64 alignment, uint64 length, bool must_succeed, const char* file, int line) noexcept {
    s_calls.push_back("malloc " + std::to_string(alignment) + " " + std::to_string(length) + " " +
                      std::to_string(must_succeed) + " " + file + " " + std::to_string(line));
    return buffer(s_buffers++);
}
void zero(void* to, uint64 length) noexcept { note("zero", to, "0", length); }
void set_u8(void* to, uint8 value, uint64 length) noexcept { note("u8", to, std::to_string(value), length); }
void set_u16(void* to, uint16 value, uint64 length) noexcept { note("u16", to, std::to_string(value), length); }
void set_u32(void* to, uint32 value, uint64 length) noexcept { note("u32", to, std::to_string(value), length); }
void set_u64(void* to, uint64 value, uint64 length) noexcept { note("u64", to, std::to_string(value), length); }
void aligned(void* to, const void* from, uint64 length) noexcept { note("aligned", to, name(from), length); }
void safe(void* to, const void* from, uint64 length) noexcept { note("safe", to, name(from), length); }

// Every second reading ends a test.
uint64 tick_counter() noexcept {
    s_calls.push_back("tick");
    return s_now += s_elapsed;
}

// Returns the calls of each test, in the recorded form: the numbers follow the list of tests.
std::vector<std::string> expected_calls() {
    std::vector<std::string> calls{"tick"};
    for (int i = 0; i < 8; ++i) {
        calls.push_back("alignment");
        calls.push_back("malloc 4096 67108864 0 util/qortool/main 818");
    }
    const std::string whole = " 67108864", less = " 67108863";
    const auto add = [&](int first, auto&& call) {
        calls.push_back("tick");
        for (int i = first; i < first + 1000; ++i)
            calls.push_back(call(i, std::to_string(i % 8), std::to_string((i + 7) % 8)));
        calls.push_back("tick");
    };
    using text = std::string;
    add(0, [&](int, const text& at, const text&) { return "memset " + at + " 0" + whole; });
    add(0, [&](int, const text& at, const text&) { return "zero " + at + " 0" + whole; });
    add(0, [&](int i, const text& at, const text&) { return "u8 " + at + " " + std::to_string(i % 256) + whole; });
    add(0, [&](int i, const text& at, const text&) { return "u16 " + at + " " + std::to_string(i) + whole; });
    add(0, [&](int i, const text& at, const text&) { return "u32 " + at + " " + std::to_string(i * 65537) + whole; });
    add(0, [&](int i, const text& at, const text&) { return "u64 " + at + " " + std::to_string(i * 65537) + whole; });
    for (const text op : {"memcpy ", "aligned ", "safe "})
        add(1, [&](int, const text& from, const text& to) { return op + to + " " + from + whole; });
    for (const text op : {"memcpy ", "safe "})
        add(1, [&](int, const text& from, const text& to) { return op + to + " " + from + "+1" + less; });
    return calls;
}

const char* const labels[] = {
    "Testing memset() ...                                   ",
    "Testing simd_zero() ...                                ",
    "Testing simd_memset_u8() ...                           ",
    "Testing simd_memset_u16() ...                          ",
    "Testing simd_memset_u32() ...                          ",
    "Testing simd_memset_u64() ...                          ",
    "Testing memcpy() with aligned data ...                 ",
    "Testing simd_memcpy_aligned() ...                      ",
    "Testing simd_memcpy_safe() with aligned buffers ...    ",
    "Testing memcpy() with unaligned data ...               ",
    "Testing simd_memcpy_safe() with unaligned data ...     ",
};

class simd_test : public testing::Test {
protected:
    simd_test() : m_real(qor::glue::table()), m_table(*m_real) {
        m_table.qor_get_simd_alignment = get_alignment;
        m_table.simd_zero = zero;
        m_table.simd_memset_u8 = set_u8;
        m_table.simd_memset_u16 = set_u16;
        m_table.simd_memset_u32 = set_u32;
        m_table.simd_memset_u64 = set_u64;
        m_table.simd_memcpy_aligned = aligned;
        m_table.simd_memcpy_safe = safe;
        m_table.qorGetTickCounter = tick_counter;
        s_calls.clear();
        s_buffers = 0;
        s_now = 0;
    }
    ~simd_test() override { qor::glue::s_funcs = m_real; }

    // Returns the output of the action when each test takes this number of ticks.
    std::string run(uint64 elapsed, int& result, const char* word = nullptr) {
        s_elapsed = elapsed;
        zetSmartPointer<qortool_app> app;
        app.AttachNew(new ("tests/tool/simd_test_test", __LINE__) qortool_app);
        qorStringArray args;
        args.Append("--quiet");
        args.Append("simd-test");
        if (word != nullptr)
            args.Append(word);
        m_table.qor_do_malloc = do_malloc;
        qor::glue::s_funcs = &m_table;
        testing::internal::CaptureStdout();
        result = app->Main(args);
        qor::glue::s_funcs = m_real;
        return testing::internal::GetCapturedStdout();
    }

    const qor::glue::binding_table* m_real;
    qor::glue::binding_table m_table;
};

} // namespace

// Small calls of the library itself go to the C library.
extern "C" void* __wrap_memset(void* destination, int value, std::size_t length) {
    if (length < size - 1)
        return __real_memset(destination, value, length);
    note("memset", destination, std::to_string(value), length);
    return destination;
}

extern "C" void* __wrap_memcpy(void* destination, const void* source, std::size_t length) {
    if (length < size - 1)
        return __real_memcpy(destination, source, length);
    note("memcpy", destination, name(source), length);
    return destination;
}

TEST_F(simd_test, calls_every_routine_a_thousand_times) {
    int result = -1;
    run(1000, result);
    EXPECT_EQ(result, 0);
    const std::vector<std::string> expected = expected_calls();
    ASSERT_EQ(s_calls.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
        ASSERT_EQ(s_calls[i], expected[i]) << i;
}

TEST_F(simd_test, prints_times_and_rates) {
    struct {
        uint64 elapsed;
        const char* figures;
    } const cases[] = {
        {12'345'678, "elapsed: 1.234 sec, 434865 MB/sec\n"},        {10, "elapsed: 0.000 sec, 536870912000 MB/sec\n"},
        {19, "elapsed: 0.000 sec, 536870912000 MB/sec\n"},          {10'009'999, "elapsed: 1.000 sec, 536335 MB/sec\n"},
        {6'000'000'000'000, "elapsed: 600000.000 sec, 0 MB/sec\n"},
    };
    for (const auto& one : cases) {
        std::string expected;
        for (const char* const label : labels)
            expected += std::string(label) + one.figures;
        int result = -1;
        EXPECT_EQ(run(one.elapsed, result), expected);
        s_buffers = 0;
    }
}

TEST_F(simd_test, allocates_nothing_for_a_wrong_word) {
    for (const char* const word : {"word", "--option"}) {
        int result = -1;
        testing::internal::CaptureStderr();
        EXPECT_EQ(run(1000, result, word), "");
        EXPECT_NE(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(result, 1);
        EXPECT_EQ(s_calls, std::vector<std::string>{});
    }
}
