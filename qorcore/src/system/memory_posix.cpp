// The memory of the host and of the control groups that contain this process.
#include "system/linux_host.h"

#include <algorithm>
#include <vector>

namespace {

using namespace std::string_view_literals;

// The file names of one of the two generations of control groups.
struct generation {
    std::string_view file_system, limit, usage, file_pages[3];
};

constexpr generation first = {
    "cgroup", "memory.limit_in_bytes", "memory.usage_in_bytes", {"total_inactive_file", "total_active_file", ""}};
constexpr generation second = {
    "cgroup2", "memory.max", "memory.current", {"inactive_file", "active_file", "slab_reclaimable"}};

bool lists(std::string_view commas, std::string_view word) {
    while (!commas.empty()) {
        const std::size_t end = std::min(commas.find(','), commas.size());
        if (commas.substr(0, end) == word)
            return true;
        commas.remove_prefix(std::min(end + 1, commas.size()));
    }
    return false;
}

// Blanks and other special characters are written as a backslash and three octal digits.
std::string decode(std::string_view path) {
    std::string text;
    for (std::size_t i = 0; i < path.size(); ++i)
        if (path[i] == '\\' && i + 3 < path.size()) {
            text += static_cast<char>((path[i + 1] - '0') << 6 | (path[i + 2] - '0') << 3 | (path[i + 3] - '0'));
            i += 3;
        } else {
            text += path[i];
        }
    return text;
}

// Returns the path of this process's group in the kernel's notation; for the first generation, the path of its memory
// group. A host need not have both generations.
std::optional<std::string> group_path(std::string_view groups, const generation& which) {
    std::string_view line;
    while (qor::system::take_line(groups, line)) {
        const std::size_t begin = line.find(':'), end = line.find(':', begin + 1);
        if (end == std::string_view::npos)
            continue;
        const std::string_view controllers = line.substr(begin + 1, end - begin - 1);
        if (which.file_system == second.file_system ? line.starts_with("0::") : lists(controllers, "memory"))
            return std::string(line.substr(end + 1));
    }
    return {};
}

struct mount {
    std::string top;   // the group that is visible there
    std::string point; // the folder where it is visible
};

// A line has the form "id parent device TOP POINT options [tags] - TYPE source OPTIONS".
std::vector<mount> find_mounts(std::string_view table, const generation& which) {
    std::vector<mount> mounts;
    std::string_view line, word;
    while (qor::system::take_line(table, line)) {
        std::string_view top, point, type, options;
        for (int i = 0; i < 3; ++i)
            qor::system::take_word(line, word);
        qor::system::take_word(line, top);
        qor::system::take_word(line, point);
        while (qor::system::take_word(line, word) && word != "-") {
        }
        if (!qor::system::take_word(line, type) || type != which.file_system)
            continue;
        qor::system::take_word(line, word);
        qor::system::take_word(line, options);
        if (type == second.file_system || lists(options, "memory"))
            mounts.push_back({decode(top), decode(point)});
    }
    return mounts;
}

// Returns the path of the group below its mount; empty for the mount's top. Also empty for a group that lies outside
// the mount, as in a container without a cgroup namespace: only the top is visible then.
std::string path_in(const mount& where, const std::string& path) {
    if (path.starts_with("/.."))
        return {};
    if (where.top == "/")
        return path == "/" ? std::string() : path;
    if (path.starts_with(where.top) && path[where.top.size()] == '/')
        return path.substr(where.top.size());
    return {};
}

// Applies the limits of a group and of all groups around it. Each group counts the memory of all groups below it.
void tighten(const qor::system::linux_host& host, const generation& which, const mount& where, std::string path,
             uint64 total, qor::system::group_memory& memory) {
    for (;;) {
        const std::string folder = where.point + path + "/";
        const std::string limit_text = host.read(folder + std::string(which.limit));
        const uint64 limit = limit_text.empty() || limit_text == "max" ? total : qor::system::number_of(limit_text);
        if (limit < total) {
            // The page cache can be reclaimed, so it counts as free, as in the kernel's MemAvailable.
            uint64 used = qor::system::number_of(host.read(folder + std::string(which.usage)));
            const std::string statistics = host.read(folder + "memory.stat");
            for (const std::string_view key : which.file_pages)
                used -= std::min(used, qor::system::find_number(statistics, key).value_or(0));
            memory.limit = std::min(memory.limit, limit);
            memory.free = std::min(memory.free, limit - std::min(limit, used));
        }
        if (path.empty())
            return;
        path.resize(path.rfind('/'));
    }
}

} // namespace

qor::system::group_memory qor::system::read_group_memory(const linux_host& host, uint64 total) {
    group_memory memory;
    const std::string groups = host.read("/proc/self/cgroup");
    const std::string mounts = host.read("/proc/self/mountinfo");
    for (const generation& which : {first, second})
        if (const std::optional<std::string> path = group_path(groups, which))
            for (const mount& where : find_mounts(mounts, which))
                tighten(host, which, where, path_in(where, *path), total, memory);
    return memory;
}

bool qor::system::read_memory(const linux_host& host, qorMemoryInfo& info) {
    const std::string table = host.read("/proc/meminfo");
    const auto bytes = [&table](std::string_view key) {
        const std::optional<uint64> kibibytes = find_number(table, key);
        return kibibytes ? std::optional<uint64>(*kibibytes * 1024) : std::optional<uint64>();
    };
    const std::optional<uint64> total = bytes("MemTotal");
    if (!total)
        return false;
    std::optional<uint64> available = bytes("MemAvailable");
    if (!available) {
        // Kernels before 3.14 lack MemAvailable: add the free memory and the caches, without the shared memory, which
        // cannot be reclaimed.
        uint64 sum = 0;
        for (const std::string_view key : {"MemFree"sv, "Buffers"sv, "Cached"sv, "SReclaimable"sv})
            sum += bytes(key).value_or(0);
        available = sum - std::min(sum, bytes("Shmem").value_or(0));
    }
    const group_memory group = read_group_memory(host, *total);
    info.total = std::min(*total, group.limit);
    info.free = std::min({*available, group.free, info.total});
    info.used = info.total - info.free;
    return true;
}
