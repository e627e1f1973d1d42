// Inside the library on Linux: the sources of facts about the host. All of them may be a recording of another host in a
// folder of its own.
#pragma once

#include "system/facts.h"

#include <optional>
#include <set>
#include <string_view>

namespace qor::system {

struct linux_host {
    std::string root; // the folder in place of "/"; empty for "/" itself
    const cpuid* processor;
    std::string kernel, release, build, machine; // as reported by uname
    std::set<uint32> processors;                 // the processors that this process may use

    // Returns the content of a file without white space and NULs at its end; empty if it cannot be read.
    std::string read(const std::string& path) const;
    bool has(const std::string& path) const;
};

linux_host this_host();

facts read_facts(const linux_host& host);
bool read_memory(const linux_host& host, qorMemoryInfo& info);
uint32 count_cores(const linux_host& host);

// Names the hypervisor from the data of the processor, the firmware and the kernel.
std::string find_hypervisor(const linux_host& host);

// Returns "docker container"; empty if this is not a container.
std::string find_container(const linux_host& host);

// Returns "WSL 1", "WSL 2" or an empty text.
std::string find_wsl(const linux_host& host);

// Reads /proc/cpuinfo, for processors without CPUID.
processor read_cpuinfo(const linux_host& host);

// The distribution's description of itself.
struct os_release {
    std::string name, version, description;
};
os_release read_os_release(const linux_host& host);

// The tightest memory limit in this process's control groups, and the memory that the groups leave free. Both have the
// largest value if there is no limit. `total` is the memory of the host; a limit that is not below it does not count.
struct group_memory {
    uint64 limit = ~uint64{0}, free = ~uint64{0};
};
group_memory read_group_memory(const linux_host& host, uint64 total);

// ---- reading texts

// Takes the next line, or the next word, off the front. Returns false if there is none.
bool take_line(std::string_view& text, std::string_view& line);
bool take_word(std::string_view& text, std::string_view& word);

// Returns the number at the front; 0 if there is none.
uint64 number_of(std::string_view text);

// Returns the number in the first line "KEY NUMBER" or "KEY: NUMBER".
std::optional<uint64> find_number(std::string_view text, std::string_view key);

} // namespace qor::system
