// Processors without CPUID: the kernel's list of processors describes them.
#include "system/linux_host.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <map>
#include <vector>

namespace {

using section = std::map<std::string, std::string, std::less<>>; // for one logical processor

std::string_view trim(std::string_view text) {
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    return text;
}

// Reads lines of the form "key : value". An empty line ends a section; facts about the whole board have a section of
// their own.
std::vector<section> read_sections(std::string_view text) {
    std::vector<section> sections(1);
    std::string_view line;
    while (qor::system::take_line(text, line)) {
        if (trim(line).empty()) {
            if (!sections.back().empty())
                sections.emplace_back();
            continue;
        }
        const std::size_t colon = line.find(':');
        if (colon != std::string_view::npos)
            sections.back().emplace(trim(line.substr(0, colon)), trim(line.substr(colon + 1)));
    }
    return sections;
}

std::string_view value(const section& from, std::string_view key) {
    const auto found = from.find(key);
    return found != from.end() ? std::string_view(found->second) : std::string_view();
}

uint32 hexadecimal(std::string_view text) {
    if (text.starts_with("0x"))
        text.remove_prefix(2);
    uint32 number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number, 16);
    return number;
}

struct part {
    uint32 maker, number;
    const char* name;
};

constexpr part parts[] = {
    {0x41, 0xb76, "ARM ARM1176"},       {0x41, 0xc05, "ARM Cortex-A5"},      {0x41, 0xc07, "ARM Cortex-A7"},
    {0x41, 0xc08, "ARM Cortex-A8"},     {0x41, 0xc09, "ARM Cortex-A9"},      {0x41, 0xc0f, "ARM Cortex-A15"},
    {0x41, 0xd03, "ARM Cortex-A53"},    {0x41, 0xd04, "ARM Cortex-A35"},     {0x41, 0xd05, "ARM Cortex-A55"},
    {0x41, 0xd07, "ARM Cortex-A57"},    {0x41, 0xd08, "ARM Cortex-A72"},     {0x41, 0xd09, "ARM Cortex-A73"},
    {0x41, 0xd0a, "ARM Cortex-A75"},    {0x41, 0xd0b, "ARM Cortex-A76"},     {0x41, 0xd0c, "ARM Neoverse-N1"},
    {0x41, 0xd0d, "ARM Cortex-A77"},    {0x41, 0xd40, "ARM Neoverse-V1"},    {0x41, 0xd41, "ARM Cortex-A78"},
    {0x41, 0xd44, "ARM Cortex-X1"},     {0x41, 0xd46, "ARM Cortex-A510"},    {0x41, 0xd47, "ARM Cortex-A710"},
    {0x41, 0xd49, "ARM Neoverse-N2"},   {0x41, 0xd4f, "ARM Neoverse-V2"},    {0x42, 0x516, "Broadcom ThunderX2"},
    {0x43, 0x0af, "Cavium ThunderX2"},  {0x46, 0x001, "Fujitsu A64FX"},      {0x48, 0xd01, "HiSilicon Kunpeng-920"},
    {0x61, 0x022, "Apple Icestorm-M1"}, {0x61, 0x023, "Apple Firestorm-M1"}, {0xc0, 0xac3, "Ampere-1"},
};

std::string arm_name(const section& from) {
    const uint32 maker = hexadecimal(value(from, "CPU implementer")), number = hexadecimal(value(from, "CPU part"));
    const auto found = std::find_if(std::begin(parts), std::end(parts),
                                    [&](const part& each) { return each.maker == maker && each.number == number; });
    if (found != std::end(parts))
        return found->name;
    return "implementer " + std::string(value(from, "CPU implementer")) + " part " +
           std::string(value(from, "CPU part"));
}

std::string type_of(const section& from) {
    if (from.contains("CPU part"))
        return arm_name(from);
    for (const char* const key : {"model name", "cpu model", "uarch", "cpu", "Processor"})
        if (from.contains(key))
            return std::string(value(from, key));
    return {};
}

// The vector extensions among the features that the kernel lists for ARM processors.
constexpr std::string_view arm_extensions[] = {"neon", "vfpv4", "asimd", "asimdhp", "asimddp", "i8mm",
                                               "bf16", "sve",   "sve2",  "sme",     "sme2"};

std::string extended_of(const section& from) {
    if (!from.contains("CPU part"))
        return std::string(value(from, from.contains("isa") ? "isa" : "ASEs implemented"));
    std::string text;
    for (const auto& [key, word] : {std::pair{"CPU implementer", "implementer "},
                                    {"CPU architecture", " architecture "},
                                    {"CPU variant", " variant "},
                                    {"CPU part", " part "},
                                    {"CPU revision", " revision "}})
        text.append(word).append(value(from, key));
    std::string extensions;
    std::string_view features = value(from, "Features"), word;
    while (qor::system::take_word(features, word))
        if (std::find(std::begin(arm_extensions), std::end(arm_extensions), word) != std::end(arm_extensions))
            extensions.append(" ").append(word);
    return extensions.empty() ? text : text + ":" + extensions;
}

} // namespace

qor::system::processor qor::system::read_cpuinfo(const linux_host& host) {
    const std::string text = host.read("/proc/cpuinfo");
    // A board may have processors of several kinds; each kind is named only once.
    std::vector<std::string> types, extended;
    for (const section& each : read_sections(text)) {
        if (!each.contains("processor"))
            continue;
        const std::string type = type_of(each);
        if (type.empty() || std::find(types.begin(), types.end(), type) != types.end())
            continue;
        types.push_back(type);
        extended.push_back(extended_of(each));
    }
    return {join(types), join(extended)};
}
