// RtlCaptureStackBackTrace looks each frame up again, on some systems under the lock of the loader. Here what is known
// of a return address is kept: how far the stack pointer is from the caller's, and where the frame pointer was saved.
// The system's function serves where a frame has no such rule.
#include "walk_windows.h"

#include "image_windows.h"
#include "process.h"

#include <windows.h>

namespace qor::record {

namespace {

constexpr unsigned most_own = 8; // frames of this library
constexpr unsigned frame_pointer = 5;
constexpr unsigned rounds_of_parts = 32; // of a function that is in several parts

// In units of 8 bytes, from a base: the stack pointer, or the frame pointer less `fp_distance`.
struct frame_rule {
    enum kind_type : std::uint64_t { none, plain, unusual };
    std::uint64_t kind : 2;
    std::uint64_t uses_fp : 1;
    std::uint64_t fp_distance : 5;
    std::uint64_t size : 28;     // up to behind the return address
    std::uint64_t fp_place : 28; // of the saved frame pointer, + 1; 0: the function leaves it alone
};
static_assert(sizeof(frame_rule) == 8);

constexpr frame_rule rule_of_kind(frame_rule::kind_type kind) { return {kind, 0, 0, 0, 0}; }

// Address and rule, so that a reader sees whether both belong together.
struct cached_rule {
    std::atomic<std::uint64_t> mixed; // the address ^ the rule
    std::atomic<std::uint64_t> rule;
};
constinit cached_rule cache[8192]{};

// The system's structure, which windows.h does not have.
struct unwind_head {
    std::uint8_t version_and_flags;
    std::uint8_t prologue;
    std::uint8_t codes;
    std::uint8_t frame;
};

// The codes undo what the beginning of the function did, the last step first.
bool add_codes(const loaded_image& image, const unwind_head& head, std::uint32_t codes_at, std::uint64_t& size,
               frame_rule& rule) noexcept {
    const auto* const codes = image.at<const std::uint16_t>(codes_at);
    const auto long_value = [&](unsigned i) { return codes[i] | static_cast<std::uint32_t>(codes[i + 1]) << 16; };
    for (unsigned i = 0; i < head.codes; ++i) {
        const unsigned what = codes[i] >> 8 & 15;
        const unsigned about = codes[i] >> 12;
        switch (what) {
        case 0: // a register was pushed
            if (about == frame_pointer)
                rule.fp_place = size + 1;
            ++size;
            break;
        case 1: // much room was taken
            size += about == 0 ? codes[i + 1] : long_value(i + 1) / 8;
            i += about == 0 ? 1 : 2;
            break;
        case 2: // room was taken
            size += about + 1;
            break;
        case 3: // the frame register was set
            if ((head.frame & 15) != frame_pointer)
                return false;
            rule.uses_fp = 1;
            rule.fp_distance = static_cast<unsigned>(head.frame >> 4) * 2U & 31U;
            size = 0;
            break;
        case 4: // a register was saved
        case 5:
            if (about == frame_pointer)
                rule.fp_place = (what == 4 ? codes[i + 1] : long_value(i + 1) / 8) + 1;
            i += what == 4 ? 1 : 2;
            break;
        case 6: // where the function ends, of no interest here
            break;
        case 8: // a vector register was saved
            i += 1;
            break;
        case 9:
            i += 2;
            break;
        default: // the frame of an interrupt
            return false;
        }
    }
    return true;
}

const RUNTIME_FUNCTION* function_at(const loaded_image& image, std::uint32_t address) noexcept {
    const IMAGE_DATA_DIRECTORY place = image.directory(IMAGE_DIRECTORY_ENTRY_EXCEPTION);
    const auto* const functions = image.at<const RUNTIME_FUNCTION>(place.VirtualAddress);
    std::uint32_t begin = 0;
    for (std::uint32_t end = place.Size / sizeof *functions; begin < end;) {
        const std::uint32_t middle = begin + (end - begin) / 2;
        if (address < functions[middle].BeginAddress)
            end = middle;
        else if (address >= functions[middle].EndAddress)
            begin = middle + 1;
        else
            return &functions[middle];
    }
    return nullptr;
}

// A return address is behind the begin of its function, whose first steps are done.
frame_rule find_rule(std::uintptr_t pc) noexcept {
    const std::uint32_t number = module_of(pc) & ~allocation_code;
    if (number == 0)
        return rule_of_kind(frame_rule::unusual);
    const loaded_image image(reinterpret_cast<const void*>(this_process.shared->modules[number].begin));
    const auto address = static_cast<std::uint32_t>(pc - 1 - image.begin());
    const RUNTIME_FUNCTION* function = function_at(image, address);
    if (function == nullptr)
        return rule_of_kind(frame_rule::unusual);
    frame_rule rule = rule_of_kind(frame_rule::plain);
    std::uint64_t size = 0;
    bool is_first = true;
    for (unsigned part = 0; part < rounds_of_parts; ++part) {
        const std::uint32_t at = function->UnwindData;
        if ((at & 1) != 0)
            return rule_of_kind(frame_rule::unusual);
        const unwind_head& head = *image.at<const unwind_head>(at);
        const std::uint32_t codes_at = at + sizeof head;
        if (is_first && address - function->BeginAddress < head.prologue)
            return rule_of_kind(frame_rule::unusual);
        is_first = false;
        if (!add_codes(image, head, codes_at, size, rule))
            return rule_of_kind(frame_rule::unusual);
        constexpr unsigned is_part = 4 << 3;
        if ((head.version_and_flags & is_part) == 0) {
            rule.size = size + 1;
            return rule;
        }
        function = image.at<const RUNTIME_FUNCTION>(codes_at + (head.codes + 1U) / 2U * 4U);
    }
    return rule_of_kind(frame_rule::unusual);
}

frame_rule rule_at(std::uintptr_t pc) noexcept {
    cached_rule& place = cache[(pc ^ pc >> 13) % (sizeof cache / sizeof *cache)];
    const std::uint64_t known = place.rule.load(std::memory_order_acquire);
    if ((place.mixed.load(std::memory_order_acquire) ^ known) == pc && known != 0) [[likely]]
        return __builtin_bit_cast(frame_rule, known);
    const frame_rule found = find_rule(pc);
    const auto bits = __builtin_bit_cast(std::uint64_t, found);
    place.rule.store(bits, std::memory_order_release);
    place.mixed.store(pc ^ bits, std::memory_order_release);
    return found;
}

// With the system's function. Wine's goes on beyond the first frame of a thread, with a null.
[[gnu::noinline]] unsigned walk_by_system(void* caller, std::uintptr_t* frames, unsigned most) noexcept {
    void* found[most_frames + 16 + most_own];
    const unsigned count = RtlCaptureStackBackTrace(0, most + most_own, found, nullptr);
    unsigned first = 0;
    while (first < count && first < most_own && found[first] != caller)
        ++first;
    if (first == count || found[first] != caller)
        return 0;
    unsigned n = 0;
    for (; n < most && first + n < count && found[first + n] != nullptr; ++n)
        frames[n] = reinterpret_cast<std::uintptr_t>(found[first + n]);
    return n;
}

} // namespace

unsigned walk_stack(void* caller, std::uintptr_t* frames, unsigned most) noexcept {
    std::uintptr_t pc, sp, fp, top; // the thread's block has the top of its stack at 8
    __asm__ volatile("leaq 1f(%%rip), %0\n1:\n\tmovq %%rsp, %1\n\tmovq %%rbp, %2\n\tmovq %%gs:8, %3"
                     : "=&r"(pc), "=&r"(sp), "=&r"(fp), "=&r"(top));
    const std::uintptr_t wanted = reinterpret_cast<std::uintptr_t>(caller);
    unsigned n = 0;
    for (unsigned own = 0; n < most;) {
        if (n == 0 && pc != wanted) {
            if (++own > most_own)
                return walk_by_system(caller, frames, most);
        } else {
            frames[n++] = pc;
        }
        const frame_rule rule = rule_at(pc);
        const std::uintptr_t base = rule.uses_fp != 0 ? fp - rule.fp_distance * 8U : sp;
        const std::uintptr_t next = base + rule.size * 8U;
        // A stack leads up to its top.
        if (rule.kind != frame_rule::plain || base < sp || next > top || next % 8 != 0 || next < base)
            return walk_by_system(caller, frames, most);
        if (rule.fp_place != 0)
            fp = *reinterpret_cast<const std::uintptr_t*>(base + (rule.fp_place - 1U) * 8U);
        pc = *reinterpret_cast<const std::uintptr_t*>(next - 8);
        sp = next;
        if (pc == 0)
            break;
    }
    return n;
}

void forget_rules() noexcept {
    for (cached_rule& each : cache) {
        each.rule.store(0, std::memory_order_relaxed);
        each.mixed.store(0, std::memory_order_relaxed);
    }
}

} // namespace qor::record
