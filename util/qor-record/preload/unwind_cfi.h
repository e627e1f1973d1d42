// The rules of .eh_frame for x86-64, read from tables that may be damaged: nothing outside of them is touched.
#pragma once

#include <cstdint>

namespace qor::record {

// The readable segment that holds both tables of a module, and where in it .eh_frame_hdr begins.
struct frame_tables {
    std::uintptr_t begin;
    std::uintptr_t end;
    std::uintptr_t header; // 0: the module has no such tables
};

namespace column {
constexpr unsigned rax = 0, rdx = 1, rcx = 2, rbx = 3, rsi = 4, rdi = 5, rbp = 6, rsp = 7, r12 = 12, r15 = 15,
                   return_address = 16, count = 17;
}

enum class how : std::uint8_t {
    unspecified, // unchanged where a call keeps the register, otherwise lost
    same,
    undefined,
    at_offset,     // saved at CFA + value
    offset,        // is CFA + value
    in_register,   // is what the register `value` was
    at_expression, // saved where the expression says
    expression,    // is what the expression says
};

// The value for an expression is its distance from the begin of the tables; its length stands there.
struct register_rule {
    how kind;
    std::int32_t value;
};

// The rules for a frame at one program counter.
struct frame_row {
    register_rule cfa; // offset: `cfa_register` + value; expression
    std::uint8_t cfa_register;
    bool is_signal;          // the frame below was interrupted, and did not call
    std::uintptr_t function; // where the code begins that the tables describe together
    register_rule registers[column::count];
};

// Returns false if the tables have no rule for this program counter, or one that is not understood.
bool find_row(const frame_tables& tables, std::uintptr_t pc, frame_row& row) noexcept;

// Memory of a thread, which may be unmapped. A function pointer replaces a virtual function, because the C++ library is
// not available here.
struct memory_reader {
    bool (*read_word)(memory_reader& self, std::uintptr_t address, std::uintptr_t& value) noexcept;

    bool read(std::uintptr_t address, std::uintptr_t& value) noexcept { return read_word(*this, address, value); }
};

struct register_set {
    std::uintptr_t values[column::count];
    std::uint32_t known; // a bit for each register

    bool knows(unsigned number) const noexcept { return (known >> number & 1) != 0; }
    void set(unsigned number, std::uintptr_t value) noexcept {
        values[number] = value;
        known |= 1u << number;
    }
};

// Computes the expression of a rule. Returns false if it needs an unknown register or unmapped memory, or is invalid.
bool evaluate(const frame_tables& tables, std::int32_t expression, const register_set& registers, memory_reader& memory,
              const std::uintptr_t* initial, std::uintptr_t& result) noexcept;

// Whether the expression is the value of `number` plus `offset`, and with `is_read` what stands in memory there.
bool is_register_and_offset(const frame_tables& tables, std::int32_t expression, unsigned number, std::int64_t& offset,
                            bool& is_read) noexcept;

// Turns the registers of a frame into those of its caller. An undefined return address is the end of the stack. Returns
// false if the caller is unknown.
bool step(const frame_tables& tables, const frame_row& row, register_set& registers, memory_reader& memory) noexcept;

} // namespace qor::record
