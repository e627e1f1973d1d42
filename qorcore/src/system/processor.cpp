#include "system/processor.h"

#include <cstring>
#include <string_view>

namespace {

using registers = qor::system::cpuid::registers;

constexpr bool has(uint32 word, int bit) { return (word >> bit & 1) != 0; }

// Registers hold texts byte by byte, padded with NULs.
std::string text_of(std::initializer_list<uint32> words) {
    std::string text;
    for (const uint32 word : words) {
        char bytes[sizeof word];
        std::memcpy(bytes, &word, sizeof word);
        text.append(bytes, sizeof bytes);
    }
    return text.substr(0, text.find('\0'));
}

// Makers pad their names at both ends and in between.
std::string without_padding(std::string_view text) {
    std::string clean;
    for (const char c : text)
        if (c != ' ' || (!clean.empty() && clean.back() != ' '))
            clean += c;
    if (!clean.empty() && clean.back() == ' ')
        clean.pop_back();
    return clean;
}

std::string brand_of(const qor::system::cpuid& source) {
    std::string brand;
    for (const uint32 number : {0x80000002u, 0x80000003u, 0x80000004u}) {
        const registers part = source.leaf(number);
        brand += text_of({part.a, part.b, part.c, part.d});
    }
    return without_padding(brand);
}

// Vector extensions, under the names that the Linux kernel uses for them.
class extension_list {
public:
    void add_if(bool is_there, const char* name) {
        if (is_there)
            (m_text += ' ') += name;
    }
    const std::string& text() const { return m_text; } // each name follows a blank

private:
    std::string m_text;
};

// Lists the extensions that the processor has and whose registers the operating system saves for each thread. No others
// can be used.
std::string extensions_of(const qor::system::cpuid& source) {
    constexpr int os_uses_xsave = 27;
    constexpr uint64 avx_state = 0x06, avx512_state = 0xe6, tile_state = 0x60000;
    const registers one = source.leaf(1);
    const registers seven = source.leaf(7);
    const registers seven_1 = seven.a >= 1 ? source.leaf(7, 1) : registers();
    const uint64 kept = has(one.c, os_uses_xsave) ? source.kept_registers() : 0;
    const bool avx = (kept & avx_state) == avx_state && has(one.c, 28);
    const bool avx512 = avx && (kept & avx512_state) == avx512_state && has(seven.b, 16);
    const bool tiles = (kept & tile_state) == tile_state && has(seven.d, 24);

    extension_list list;
    list.add_if(has(one.c, 9), "ssse3");
    list.add_if(has(one.c, 19), "sse4_1");
    list.add_if(has(one.c, 20), "sse4_2");
    list.add_if(avx, "avx");
    list.add_if(avx && has(one.c, 29), "f16c");
    list.add_if(avx && has(one.c, 12), "fma");
    list.add_if(avx && has(seven.b, 5), "avx2");
    list.add_if(avx && has(seven_1.a, 4), "avx_vnni");
    list.add_if(avx512, "avx512f");
    list.add_if(avx512 && has(seven.b, 17), "avx512dq");
    list.add_if(avx512 && has(seven.b, 21), "avx512ifma");
    list.add_if(avx512 && has(seven.b, 28), "avx512cd");
    list.add_if(avx512 && has(seven.b, 30), "avx512bw");
    list.add_if(avx512 && has(seven.b, 31), "avx512vl");
    list.add_if(avx512 && has(seven.c, 1), "avx512vbmi");
    list.add_if(avx512 && has(seven.c, 6), "avx512_vbmi2");
    list.add_if(avx512 && has(seven.c, 11), "avx512_vnni");
    list.add_if(avx512 && has(seven.c, 12), "avx512_bitalg");
    list.add_if(avx512 && has(seven.c, 14), "avx512_vpopcntdq");
    list.add_if(avx512 && has(seven_1.a, 5), "avx512_bf16");
    list.add_if(avx512 && has(seven.d, 23), "avx512_fp16");
    list.add_if(tiles, "amx_tile");
    list.add_if(tiles && has(seven.d, 25), "amx_int8");
    list.add_if(tiles && has(seven.d, 22), "amx_bf16");
    return list.text();
}

struct signature {
    const char* text;
    const char* name;
};

constexpr signature hypervisors[] = {
    {"KVMKVMKVM", "KVM"},          {"Linux KVM Hv", "KVM"}, // KVM, with Hyper-V's interface only
    {"Microsoft Hv", "Hyper-V"},   {"VMwareVMware", "VMware"},
    {"XenVMMXenVMM", "Xen"},       {"VBoxVBoxVBox", "VirtualBox"},
    {"TCGTCGTCGTCG", "QEMU"},      {"bhyve bhyve ", "bhyve"},
    {"BHyVE BHyVE ", "bhyve"},     {"prl hyperv  ", "Parallels"},
    {" lrpepyh  vr", "Parallels"}, {"ACRNACRNACRN", "ACRN"},
    {"QNXQVMBSQG", "QNX"},         {"SRESRESRESRE", "LMHS SRE"},
    {"Jailhouse", "Jailhouse"},    {"HAXMHAXMHAXM", "HAXM"},
    {"___ NVMM ___", "NVMM"},      {"OpenBSDVMM58", "OpenBSD VMM"},
};

std::string hypervisor_name(const registers& leaf) {
    const std::string text = text_of({leaf.b, leaf.c, leaf.d});
    for (const signature& each : hypervisors)
        if (text == each.text)
            return each.name;
    return {};
}

} // namespace

qor::system::processor qor::system::read_processor(const cpuid& source) {
    const registers zero = source.leaf(0);
    const std::string maker = text_of({zero.b, zero.d, zero.c});
    if (maker.empty())
        return {};
    const uint32 signature = source.leaf(1).a;
    uint32 family = signature >> 8 & 0xf;
    if (family == 0xf)
        family += signature >> 20 & 0xff;
    uint32 model = signature >> 4 & 0xf;
    if (family >= 6)
        model += signature >> 12 & 0xf0;
    const std::string extensions = extensions_of(source);
    const std::string brand = brand_of(source);
    return {brand.empty() ? maker : brand, maker + " family " + std::to_string(family) + " model " +
                                               std::to_string(model) + " stepping " + std::to_string(signature & 0xf) +
                                               (extensions.empty() ? "" : ":" + extensions)};
}

qor::system::hypervisor qor::system::read_hypervisor(const cpuid& source) {
    constexpr int hypervisor_bit = 31;
    constexpr uint32 first = 0x40000000, step = 0x100;
    hypervisor found;
    if (!has(source.leaf(1).c, hypervisor_bit))
        return found;
    found.is_there = true;
    found.name = hypervisor_name(source.hypervisor_leaf(first));
    if (found.name != "Hyper-V")
        return found;

    // Other hypervisors offer Hyper-V's interface to Windows guests, and their own one after it.
    if (const std::string behind = hypervisor_name(source.hypervisor_leaf(first + step)); !behind.empty()) {
        found.name = behind;
        return found;
    }
    // A partition that controls the processors is the host itself, not a guest. An isolated partition is a guest: a
    // paravisor controls the processors for it.
    constexpr int directs_processors = 12, is_isolated = 22;
    const uint32 rights = source.hypervisor_leaf(first + 3).b;
    found.is_ours = has(rights, directs_processors) && !has(rights, is_isolated);
    return found;
}
