#include "system/linux_host.h"

#include "memory/allocator.h"
#include "platform/whole_file.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <sched.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace {

constexpr std::size_t max_file = 16 << 20; // the /proc/cpuinfo of the largest hosts has some megabytes

constexpr bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\0'; }

// Enlarges the set until it has room for the kernel's number of processors: a set of fixed size would fail on larger
// hosts.
std::set<uint32> usable_processors() {
    std::set<uint32> usable;
    for (int count = 1024; count <= 1 << 20; count *= 2) {
        cpu_set_t* const set = qor::memory::found(CPU_ALLOC(count));
        const std::size_t size = CPU_ALLOC_SIZE(count);
        const bool done = set != nullptr && sched_getaffinity(0, size, set) == 0;
        const bool is_too_small = set != nullptr && !done && errno == EINVAL;
        for (int i = 0; done && i < count; ++i)
            if (CPU_ISSET_S(i, size, set))
                usable.insert(static_cast<uint32>(i));
        CPU_FREE(set);
        if (!is_too_small)
            break;
    }
    return usable;
}

} // namespace

std::string qor::system::linux_host::read(const std::string& path) const {
    std::string content;
    if (!platform::read_whole((root + path).c_str(), max_file, content))
        return {};
    while (!content.empty() && is_blank(content.back()))
        content.pop_back();
    return content;
}

bool qor::system::linux_host::has(const std::string& path) const { return access((root + path).c_str(), F_OK) == 0; }

qor::system::linux_host qor::system::this_host() {
    utsname name{};
    uname(&name);
    return {.root = {},
            .processor = &this_cpuid(),
            .kernel = name.sysname,
            .release = name.release,
            .build = name.version,
            .machine = name.machine,
            .processors = usable_processors()};
}

qor::system::facts qor::system::read_facts(const linux_host& host) {
    const os_release system = read_os_release(host);
    const processor by_cpuid = read_processor(*host.processor);
    const processor cpu = by_cpuid.type.empty() ? read_cpuinfo(host) : by_cpuid;
    facts found;
    found.hypervisor = find_hypervisor(host);
    found.platform = host.kernel + " " + host.release + " " + host.build + " " + host.machine;
    found.type = system.name.empty() ? host.kernel : system.name;
    found.version = system.version.empty() ? host.release : system.version;
    found.description = system.description.empty() ? host.kernel + " " + host.release : system.description;
    found.enhanced_platform =
        join({system.description, find_wsl(host), find_container(host), guest_of(found.hypervisor)});
    found.processor_type = cpu.type.empty() ? host.machine : cpu.type;
    found.processor_extended = cpu.extended;
    return found;
}

uint32 qor::system::count_cores(const linux_host& host) {
    // Identifies each core by the list of its logical processors, whose file has a newer and an older name.
    std::set<std::string> cores;
    for (const uint32 number : host.processors) {
        const std::string folder = "/sys/devices/system/cpu/cpu" + std::to_string(number) + "/topology/";
        std::string siblings = host.read(folder + "core_cpus_list");
        if (siblings.empty())
            siblings = host.read(folder + "thread_siblings_list");
        cores.insert(siblings.empty() ? std::to_string(number) : siblings);
    }
    return std::max<uint32>(1, static_cast<uint32>(cores.size()));
}

bool qor::system::take_line(std::string_view& text, std::string_view& line) {
    if (text.empty())
        return false;
    const std::size_t end = std::min(text.find('\n'), text.size());
    line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return true;
}

bool qor::system::take_word(std::string_view& text, std::string_view& word) {
    text.remove_prefix(static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), is_blank) - text.begin()));
    const auto end = static_cast<std::size_t>(std::find_if(text.begin(), text.end(), is_blank) - text.begin());
    word = text.substr(0, end);
    text.remove_prefix(end);
    return !word.empty();
}

uint64 qor::system::number_of(std::string_view text) {
    uint64 number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

std::optional<uint64> qor::system::find_number(std::string_view text, std::string_view key) {
    std::string_view line, word;
    while (take_line(text, line)) {
        if (!take_word(line, word))
            continue;
        if (word.ends_with(':'))
            word.remove_suffix(1);
        if (word == key && take_word(line, word))
            return number_of(word);
    }
    return {};
}

qor::system::facts qor::system::read_facts() { return read_facts(this_host()); }
bool qor::system::read_memory(qorMemoryInfo& info) { return read_memory(this_host(), info); }
uint32 qor::system::page_size() noexcept { return static_cast<uint32>(sysconf(_SC_PAGESIZE)); }
uint32 qor::system::count_processors() { return std::max<uint32>(1, static_cast<uint32>(usable_processors().size())); }
uint32 qor::system::count_cores() { return count_cores(this_host()); }
