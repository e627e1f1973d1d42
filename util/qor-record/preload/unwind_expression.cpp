// The expressions in the tables of stack frames.
#include "unwind_cfi.h"
#include "unwind_cursor.h"

namespace qor::record {

bool evaluate(const frame_tables& tables, std::int32_t expression, const register_set& registers, memory_reader& memory,
              const std::uintptr_t* initial, std::uintptr_t& result) noexcept {
    cursor whole(tables.begin + static_cast<std::uintptr_t>(expression), tables.end);
    const std::uint64_t length = whole.take_uleb();
    const std::uintptr_t begin = whole.position();
    whole.skip(length);
    if (!whole.good())
        return false;
    cursor at(begin, begin + length);

    std::uintptr_t stack[16];
    unsigned depth = 0;
    const auto push = [&](std::uintptr_t value) {
        if (depth == sizeof stack / sizeof *stack)
            at.fail();
        else
            stack[depth++] = value;
    };
    const auto pop = [&]() -> std::uintptr_t {
        if (depth == 0) {
            at.fail();
            return 0;
        }
        return stack[--depth];
    };
    const auto signed_value = [](std::uintptr_t value) { return static_cast<std::int64_t>(value); };
    const auto push_register = [&](std::uint64_t number) {
        const std::uintptr_t offset = static_cast<std::uintptr_t>(at.take_sleb());
        if (number >= column::count || !registers.knows(static_cast<unsigned>(number)))
            at.fail();
        else
            push(registers.values[number] + offset);
    };
    if (initial != nullptr)
        push(*initial);

    // The limit also ends an expression that loops.
    for (unsigned steps = 0; !at.at_end(); ++steps) {
        if (steps == 200)
            return false;
        const std::uint8_t op = at.take<std::uint8_t>();
        if (op >= 0x30 && op <= 0x4f) { // lit
            push(op - 0x30u);
            continue;
        }
        if (op >= 0x70 && op <= 0x8f) { // breg
            push_register(op - 0x70u);
            continue;
        }
        if (op >= 0x1a && op <= 0x2e && op != 0x1f && op != 0x20 && op != 0x23 && op != 0x28) {
            const std::uintptr_t right = pop();
            const std::uintptr_t left = pop();
            const bool shifts_out = right >= 64;
            switch (op) {
            case 0x1a:
                push(left & right);
                break;
            case 0x1b: // div
                // The quotient of the smallest number and -1 cannot be represented.
                if (right == 0 || (right == ~std::uintptr_t{0} && left == std::uintptr_t{1} << 63))
                    return false;
                push(static_cast<std::uintptr_t>(signed_value(left) / signed_value(right)));
                break;
            case 0x1c:
                push(left - right);
                break;
            case 0x1d: // mod
                if (right == 0)
                    return false;
                push(left % right);
                break;
            case 0x1e:
                push(left * right);
                break;
            case 0x21:
                push(left | right);
                break;
            case 0x22:
                push(left + right);
                break;
            case 0x24:
                push(shifts_out ? 0 : left << right);
                break;
            case 0x25:
                push(shifts_out ? 0 : left >> right);
                break;
            case 0x26:
                push(static_cast<std::uintptr_t>(signed_value(left) >> (shifts_out ? 63 : right)));
                break;
            case 0x27:
                push(left ^ right);
                break;
            case 0x29:
                push(left == right);
                break;
            case 0x2a:
                push(signed_value(left) >= signed_value(right));
                break;
            case 0x2b:
                push(signed_value(left) > signed_value(right));
                break;
            case 0x2c:
                push(signed_value(left) <= signed_value(right));
                break;
            case 0x2d:
                push(signed_value(left) < signed_value(right));
                break;
            default:
                push(left != right);
            }
            continue;
        }
        switch (op) {
        case 0x03:
        case 0x0e:
        case 0x0f:
            push(at.take<std::uint64_t>());
            break;
        case 0x06: { // deref
            std::uintptr_t value = 0;
            if (const std::uintptr_t address = pop(); !at.good() || !memory.read(address, value))
                return false;
            push(value);
            break;
        }
        case 0x08:
            push(at.take<std::uint8_t>());
            break;
        case 0x09:
            push(static_cast<std::uintptr_t>(std::int64_t{at.take<std::int8_t>()}));
            break;
        case 0x0a:
            push(at.take<std::uint16_t>());
            break;
        case 0x0b:
            push(static_cast<std::uintptr_t>(std::int64_t{at.take<std::int16_t>()}));
            break;
        case 0x0c:
            push(at.take<std::uint32_t>());
            break;
        case 0x0d:
            push(static_cast<std::uintptr_t>(std::int64_t{at.take<std::int32_t>()}));
            break;
        case 0x10:
            push(at.take_uleb());
            break;
        case 0x11:
            push(static_cast<std::uintptr_t>(at.take_sleb()));
            break;
        case 0x12:   // dup
        case 0x14:   // over
        case 0x15: { // pick
            const unsigned down = op == 0x15 ? at.take<std::uint8_t>() : op == 0x14;
            if (down >= depth)
                return false;
            push(stack[depth - 1 - down]);
            break;
        }
        case 0x13:
            pop();
            break;
        case 0x16: { // swap
            const std::uintptr_t first = pop();
            const std::uintptr_t second = pop();
            push(first);
            push(second);
            break;
        }
        case 0x17: { // rot
            const std::uintptr_t first = pop();
            const std::uintptr_t second = pop();
            const std::uintptr_t third = pop();
            push(first);
            push(third);
            push(second);
            break;
        }
        case 0x19: { // abs
            const std::uintptr_t value = pop();
            push(signed_value(value) < 0 ? std::uintptr_t{0} - value : value);
            break;
        }
        case 0x1f:
            push(std::uintptr_t{0} - pop());
            break;
        case 0x20:
            push(~pop());
            break;
        case 0x23:
            push(pop() + at.take_uleb());
            break;
        case 0x28: { // bra
            const std::int16_t distance = at.take<std::int16_t>();
            if (pop() != 0)
                at.jump(distance, begin);
            break;
        }
        case 0x2f: { // skip
            const std::int16_t distance = at.take<std::int16_t>();
            at.jump(distance, begin);
            break;
        }
        case 0x92: // bregx
            push_register(at.take_uleb());
            break;
        case 0x96: // nop
            break;
        default:
            return false;
        }
    }
    result = pop();
    return at.good();
}

bool is_register_and_offset(const frame_tables& tables, std::int32_t expression, unsigned number, std::int64_t& offset,
                            bool& is_read) noexcept {
    cursor whole(tables.begin + static_cast<std::uintptr_t>(expression), tables.end);
    const std::uint64_t length = whole.take_uleb();
    const std::uintptr_t begin = whole.position();
    whole.skip(length);
    if (!whole.good())
        return false;
    cursor at(begin, begin + length);
    if (at.take<std::uint8_t>() != 0x70 + number)
        return false;
    offset = at.take_sleb();
    is_read = at.good() && !at.at_end();
    return at.good() && (!is_read || at.take<std::uint8_t>() == 0x06) && at.at_end();
}

} // namespace qor::record
