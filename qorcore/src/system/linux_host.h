// Inside the library on Linux: where facts about the host come from. All of it may be a recording of another host,
// under a folder of its own.
#pragma once

#include "system/facts.h"

#include <optional>
#include <set>
#include <string_view>

namespace qor::system {

struct linux_host {
    std::string root; // the folder that stands for "/"; empty: "/" itself
    const cpuid* processor;
    std::string kernel, release, build, machine; // as uname tells them
    std::set<uint32> processors;                 // those that this process may use

    // The content of a file without white space and NULs at its end; empty: it cannot be read.
    std::string read(const std::string& path) const;
    bool has(const std::string& path) const;
};

linux_host this_host();

facts read_facts(const linux_host& host);
bool read_memory(const linux_host& host, qorMemoryInfo& info);
uint32 count_cores(const linux_host& host);

// The firmware's tables and the kernel's own words on what is under it, with what the processor says.
std::string find_hypervisor(const linux_host& host);

// "docker container"; empty: this is none.
std::string find_container(const linux_host& host);

// "WSL 1", "WSL 2" or empty.
std::string find_wsl(const linux_host& host);

// What /proc/cpuinfo says where there is no CPUID.
processor read_cpuinfo(const linux_host& host);

// How the distribution describes itself.
struct os_release {
    std::string name, version, description;
};
os_release read_os_release(const linux_host& host);

// The tightest limits of memory that this process's control groups set, and what they leave; of any size where there is
// none. `total` is the host's: a limit above it is none.
struct group_memory {
    uint64 limit = ~uint64{0}, free = ~uint64{0};
};
group_memory read_group_memory(const linux_host& host, uint64 total);

// ---- reading texts

// Takes the next line, or the next word, off the front. False: there is none.
bool take_line(std::string_view& text, std::string_view& line);
bool take_word(std::string_view& text, std::string_view& word);

// The number at the front; 0 where there is none.
uint64 number_of(std::string_view text);

// The number in the first line "KEY NUMBER" or "KEY: NUMBER".
std::optional<uint64> find_number(std::string_view text, std::string_view key);

} // namespace qor::system
