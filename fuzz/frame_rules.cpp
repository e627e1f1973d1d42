// Tables of stack frames that are damaged: .eh_frame_hdr with .eh_frame behind it, cut from libraries. They lie once
// just below memory that cannot be touched and once just above such, so that a byte outside ends the run, and have to
// mean the same in both places. The first four bytes of an input are the distance from the tables to a program counter.
#include "qor-record/preload/unwind_cfi.h"
#include "support/fenced_memory.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <tuple>
#include <vector>

namespace {

using namespace qor::record;

constexpr std::size_t max_size = 1 << 16;

void require(bool agreed) {
    if (!agreed)
        std::abort();
}

// Memory in which every other word is missing.
bool read_made_up(memory_reader&, std::uintptr_t address, std::uintptr_t& value) noexcept {
    value = address * 0x9e3779b97f4a7c15u;
    return address % 16 == 0;
}

bool same_rule(const register_rule& a, const register_rule& b) { return a.kind == b.kind && a.value == b.value; }

bool same_row(const frame_row& a, const frame_row& b) {
    bool same = same_rule(a.cfa, b.cfa) && a.cfa_register == b.cfa_register && a.is_signal == b.is_signal;
    for (unsigned i = 0; i < column::count; ++i)
        same = same && same_rule(a.registers[i], b.registers[i]);
    return same;
}

// The rules of the tables for a program counter.
struct meaning {
    bool is_found = false;
    frame_row row{};
    bool is_left = false;
    register_set caller{};
    std::int64_t offset = 0;
    bool is_offset = false;
    bool is_read = false;
};

meaning meaning_of(const frame_tables& tables, std::int32_t distance) {
    meaning result;
    result.is_found = find_row(tables, tables.begin + static_cast<std::uintptr_t>(std::int64_t{distance}), result.row);
    if (!result.is_found)
        return result;
    for (unsigned i = 0; i < column::count; ++i)
        result.caller.set(i, 0x7f0000001000 + 64 * i);
    memory_reader memory{&read_made_up};
    result.is_left = step(tables, result.row, result.caller, memory);
    if (result.row.cfa.kind == how::expression)
        result.is_offset =
            is_register_and_offset(tables, result.row.cfa.value, column::rbp, result.offset, result.is_read);
    return result;
}

void require_same(const meaning& a, const meaning& b) {
    require(std::tie(a.is_found, a.is_left, a.is_offset) == std::tie(b.is_found, b.is_left, b.is_offset));
    require(!a.is_found || same_row(a.row, b.row));
    require(!a.is_offset || std::tie(a.offset, a.is_read) == std::tie(b.offset, b.is_read));
    require(!a.is_left || a.caller.known == b.caller.known);
    for (unsigned i = 0; a.is_left && i < column::count; ++i)
        require(!a.caller.knows(i) || a.caller.values[i] == b.caller.values[i]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const qor::test::fenced_memory low(max_size);
    static const qor::test::fenced_memory high(max_size);
    std::int32_t distance;
    if (size < sizeof distance || size - sizeof distance > max_size)
        return 0;
    std::memcpy(&distance, data, sizeof distance);
    data += sizeof distance;
    size -= sizeof distance;
    const auto address = [](const unsigned char* at) { return reinterpret_cast<std::uintptr_t>(at); };
    std::memcpy(low.begin(), data, size);
    std::memcpy(high.end() - size, data, size);
    const frame_tables below{address(low.begin()), address(low.begin()) + size, address(low.begin())};
    const frame_tables above{address(high.end()) - size, address(high.end()), address(high.end()) - size};

    // Besides, where the functions begin that the header names, and somewhat behind.
    std::vector<std::int32_t> distances{distance};
    for (std::size_t at = 12; at + 8 <= size && distances.size() < 40; at += 8) {
        std::int32_t begin;
        std::memcpy(&begin, data + at, sizeof begin);
        distances.push_back(begin);
        distances.push_back(static_cast<std::int32_t>(static_cast<std::uint32_t>(begin) + size % 61));
    }
    for (const std::int32_t each : distances)
        require_same(meaning_of(below, each), meaning_of(above, each));
    return 0;
}
