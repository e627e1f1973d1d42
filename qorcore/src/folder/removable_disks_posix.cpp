// The removable disks on Linux: sysfs lists the disks and says which of them are removable, /proc/self/mountinfo where
// they are mounted, and udev's links what their labels are.
#include "folder/removable_disks.h"

#include "folder/contents.h"
#include "memory/allocator.h"
#include "platform/whole_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <memory>
#include <unistd.h>

namespace {

// Both files of /proc and sysfs are far smaller; a host with many mounts has some hundred kilobytes.
constexpr std::size_t longest_file = 16 << 20;

// The size that the kernel reports for an optical drive without a medium, in sectors.
constexpr uint64 no_medium = 0x1fffff;

constexpr uint64 sector_size = 512; // of sysfs, whatever the disk has

struct mount {
    std::string device; // "8:17"
    std::string source; // "/dev/sdb1"
    std::string place, file_system;
    bool is_whole = false; // the root of the file system is mounted, not a folder in it
    bool is_read_only = false;
};

struct host {
    std::string root;
    std::vector<mount> mounts;
    std::map<std::string, std::string> labels; // by device, "sdb1"
};

std::string read(const std::string& path) {
    std::string text;
    if (!qor::platform::read_whole(path.c_str(), longest_file, text))
        return {};
    text.erase(text.find_last_not_of(" \t\n") + 1);
    return text;
}

uint64 read_number(const std::string& path) { return std::strtoull(read(path).c_str(), nullptr, 10); }

// Returns the names in a folder in order, or none if it cannot be read.
std::vector<std::string> names_in(const std::string& path, int* code = nullptr) {
    qor::folder::listing all;
    std::string failed;
    const int result = qor::folder::read_contents(path.c_str(), all, failed);
    if (code != nullptr)
        *code = result;
    all.finish();
    std::vector<std::string> names;
    for (const qorFolderEntry& each : all.entries())
        names.emplace_back(each.Name());
    std::ranges::sort(names);
    return names;
}

bool is_octal(char digit) noexcept { return digit >= '0' && digit <= '7'; }

// The kernel writes blanks, line ends and backslashes as "\040".
std::string unescaped(std::string_view text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size() && std::all_of(&text[i + 1], &text[i + 1] + 3, is_octal)) {
            plain += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
            i += 3;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

// Udev writes bytes that it does not want in a name as "\x20".
std::string label_of(std::string_view name) {
    std::string label;
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (name.substr(i).starts_with("\\x") && i + 3 < name.size()) {
            label += static_cast<char>(std::strtoul(std::string(name.substr(i + 2, 2)).c_str(), nullptr, 16));
            i += 3;
        } else {
            label += name[i];
        }
    }
    return label;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find(separator, begin), text.size());
        parts.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

bool has_option(std::string_view options, std::string_view wanted) {
    const std::vector<std::string_view> all = split(options, ',');
    return std::ranges::find(all, wanted) != all.end();
}

// A line is "36 35 8:17 / /media/stick rw,noatime shared:1 - vfat /dev/sdb1 rw"; the fields before the dash that stands
// alone may be more.
std::vector<mount> read_mounts(const std::string& path) {
    std::vector<mount> mounts;
    const std::string text = read(path);
    for (const std::string_view line : split(text, '\n')) {
        const std::vector<std::string_view> words = split(line, ' ');
        const auto dash = std::ranges::find(words, std::string_view("-"));
        if (dash - words.begin() < 6 || words.end() - dash < 4)
            continue;
        mounts.push_back({std::string(words[2]), unescaped(dash[2]), unescaped(words[4]), std::string(dash[1]),
                          words[3] == "/", has_option(words[5], "ro") || has_option(dash[3], "ro")});
    }
    return mounts;
}

std::map<std::string, std::string> read_labels(const std::string& folder) {
    std::map<std::string, std::string> labels;
    for (const std::string& name : names_in(folder)) {
        char target[4096];
        const ssize_t length = readlink((folder + '/' + name).c_str(), target, sizeof target);
        if (length <= 0)
            continue;
        const std::string_view device(target, static_cast<std::size_t>(length));
        labels.emplace(device.substr(device.rfind('/') + 1), label_of(name));
    }
    return labels;
}

struct free_memory {
    void operator()(char* memory) const noexcept { std::free(memory); }
};

// Disks that the user can pull out call themselves removable, are connected by USB or FireWire, or are memory cards;
// the soldered relatives of these have the type MMC.
bool is_removable(const std::string& disk) {
    if (read(disk + "/removable") == "1" || read(disk + "/device/type") == "SD")
        return true;
    const std::unique_ptr<char, free_memory> real(qor::memory::found(realpath(disk.c_str(), nullptr)));
    if (real == nullptr)
        return false;
    const std::vector<std::string_view> folders = split(real.get(), '/');
    return std::ranges::any_of(folders, [](std::string_view each) {
        const bool is_bus = each.starts_with("usb") || each.starts_with("fw");
        const std::string_view number = each.substr(std::min(each.size(), each.find_first_of("0123456789")));
        return is_bus && !number.empty() && number.find_first_not_of("0123456789") == number.npos;
    });
}

// Returns where a volume is mounted, or null. Where it is mounted as a whole comes first.
const mount* mount_of(const host& from, const std::string& name, const std::string& folder) {
    const std::string device = read(folder + "/dev");
    const mount* found = nullptr;
    for (const mount& each : from.mounts) {
        const bool is_it = each.source == "/dev/" + name || (!device.empty() && each.device == device);
        if (is_it && (found == nullptr || (each.is_whole && !found->is_whole)))
            found = &each;
    }
    // An encrypted volume is mounted as another device, which holds it.
    for (const std::string& holder : found == nullptr ? names_in(folder + "/holders") : std::vector<std::string>())
        if (const mount* const held = mount_of(from, holder, from.root + "/sys/block/" + holder))
            return held;
    return found;
}

void add_volume(const host& from, const std::string& name, const std::string& folder, const std::string& model,
                std::vector<qorRemovableDisk>& out) {
    const uint64 sectors = read_number(folder + "/size");
    const mount* const place = mount_of(from, name, folder);
    if (sectors == 0 || (place == nullptr && name.starts_with("sr") && sectors == no_medium))
        return;
    qorRemovableDisk& volume = out.emplace_back();
    volume.device = ("/dev/" + name).c_str();
    volume.model = model.c_str();
    volume.size = sectors * sector_size;
    volume.is_read_only = read(folder + "/ro") == "1";
    if (const auto label = from.labels.find(name); label != from.labels.end())
        volume.label = label->second.c_str();
    if (place != nullptr) {
        volume.mount_point = place->place.c_str();
        volume.file_system = place->file_system.c_str();
        volume.is_read_only |= place->is_read_only;
    }
}

} // namespace

int qor::folder::read_removable_disks(const std::string& root, std::vector<qorRemovableDisk>& out,
                                      std::string& failed) {
    failed = root + "/sys/block";
    int code = 0;
    const std::vector<std::string> disks = names_in(failed, &code);
    if (code != 0)
        return code;
    const std::string folders = failed + '/';
    const host from{root, read_mounts(root + "/proc/self/mountinfo"), read_labels(root + "/dev/disk/by-label")};
    for (const std::string& name : disks) {
        const std::string disk = folders + name;
        if (!is_removable(disk))
            continue;
        std::string model = read(disk + "/device/vendor");
        const std::string product = read(disk + "/device/model");
        model += model.empty() || product.empty() ? product : ' ' + product;
        if (model.empty())
            model = read(disk + "/device/name"); // of a memory card
        bool has_partitions = false;
        for (const std::string& each : names_in(disk)) {
            if (!each.starts_with(name) || read(disk + '/' + each + "/partition").empty())
                continue;
            has_partitions = true;
            add_volume(from, each, disk + '/' + each, model, out);
        }
        if (!has_partitions)
            add_volume(from, name, disk, model, out);
    }
    return 0;
}
