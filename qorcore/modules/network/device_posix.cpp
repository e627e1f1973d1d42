#include "device_posix.h"

#include "qor/glue/regular_file_posix.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Only the list of PCI names is longer than a few hundred bytes; it has 1.5 MB.
constexpr std::size_t longest_file = 16 * 1024 * 1024;

// Returns a result of the C library, which may be null. Throws std::bad_alloc if the C library ran out of memory.
template <class TYPE>
TYPE* found(TYPE* result) {
    if (result == nullptr && errno == ENOMEM)
        throw std::bad_alloc();
    return result;
}

// Returns an empty text if there is no such file.
std::string read_file(const std::string& path) {
    std::string text;
    struct stat status;
    const int file = qor::glue::open_regular_file(path.c_str(), status);
    if (file < 0)
        return text;
    char block[4096];
    for (ssize_t got; text.size() < longest_file && (got = ::read(file, block, sizeof block)) > 0;)
        text.append(block, static_cast<std::size_t>(got));
    ::close(file);
    return text;
}

std::string read_line(const std::string& path) {
    std::string text = read_file(path);
    text.resize(std::min(text.find('\n'), text.size()));
    return text;
}

std::string real_path(const std::string& path) {
    const std::unique_ptr<char, void (*)(void*)> real(found(::realpath(path.c_str(), nullptr)), std::free);
    return real != nullptr ? real.get() : "";
}

std::string last_part(std::string_view path) { return std::string(path.substr(path.rfind('/') + 1)); }

// Returns the name of a link's target; empty if there is no such link.
std::string target_name(const std::string& link) {
    char target[4096];
    const ssize_t length = ::readlink(link.c_str(), target, sizeof target);
    return length > 0 ? last_part({target, static_cast<std::size_t>(length)}) : "";
}

bool exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

std::string hexadecimal(const std::vector<uint8>& bytes) {
    std::string text;
    for (const uint8 byte : bytes) {
        char digits[4];
        std::snprintf(digits, sizeof digits, ":%02x", byte);
        text += digits + (text.empty() ? 1 : 0);
    }
    return text;
}

// Removes the "0x" of a number like "0x8086".
std::string identifier(const std::string& path) {
    const std::string text = read_line(path);
    return text.starts_with("0x") ? text.substr(2) : text;
}

// Returns the value of a line "KEY=value". If there are several, the last one counts, as for other programs that read
// these files.
std::string value_of(std::string_view text, std::string_view key) {
    std::string value;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        if (const std::string_view line = text.substr(0, end); line.starts_with(key))
            value = line.substr(key.size());
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return value;
}

// The text after the line that begins with `head`. It ends before the next line that begins neither with `inner` nor
// with a comment. Empty if there is no such line.
struct section {
    std::string name;
    std::string_view inside;
};

section find_section(std::string_view text, const std::string& head, std::string_view inner) {
    std::size_t at = text.starts_with(head) ? 0 : text.find("\n" + head);
    if (at == text.npos)
        return {};
    at += text[at] == '\n';
    const std::size_t end = std::min(text.find('\n', at), text.size());
    section found{std::string(text.substr(at + head.size(), end - at - head.size())), {}};
    std::size_t behind = std::min(end + 1, text.size());
    const std::size_t inside = behind;
    while (behind < text.size() && (text.substr(behind).starts_with(inner) || text[behind] == '#'))
        behind = std::min(text.find('\n', behind), text.size() - 1) + 1;
    found.inside = text.substr(inside, behind - inside);
    return found;
}

// The place of a USB device from the kernel's name for it: "1-2.3", or "1-2.3:1.0" for one of its interfaces.
std::string usb_place(const std::string& name) {
    const std::size_t dash = name.find('-');
    return "USB bus " + name.substr(0, dash) + ", port " + name.substr(dash + 1, name.find(':') - dash - 1);
}

} // namespace

namespace network {

std::string device_finder::folder_of(const link_row& link) const {
    if (!link.device.empty())
        return real_path(m_root + "/sys/bus/" + link.bus + "/devices/" + link.device);
    return link.kind.empty() ? folder_by_name(link) : "";
}

// Kernels before 5.14 do not report the device. Accept the folder only if it certainly belongs to this interface.
std::string device_finder::folder_by_name(const link_row& link) const {
    const std::string folder = m_root + "/sys/class/net/" + link.name;
    const bool is_it = read_line(folder + "/ifindex") == std::to_string(link.index) &&
                       read_line(folder + "/address") == hexadecimal(link.hardware_address);
    return is_it ? real_path(folder + "/device") : "";
}

// Distributions keep the list of PCI names in one of these places.
const std::string& device_finder::pci_names() {
    if (!m_pci_names) {
        m_pci_names.emplace();
        for (const char* const path : {"/usr/share/misc/pci.ids", "/usr/share/hwdata/pci.ids", "/usr/share/pci.ids"})
            if (m_pci_names->empty())
                *m_pci_names = read_file(m_root + path);
    }
    return *m_pci_names;
}

void device_finder::describe_pci(const std::string& folder, device_facts& out) {
    // The device manager looked the names up in its hardware database when the device appeared.
    const std::string known = read_file(m_root + "/run/udev/data/+pci:" + last_part(folder));
    out.maker = value_of(known, "E:ID_VENDOR_FROM_DATABASE=");
    out.model = value_of(known, "E:ID_MODEL_FROM_DATABASE=");
    if (!out.maker.empty() && !out.model.empty())
        return;
    const std::string vendor = identifier(folder + "/vendor");
    const std::string device = identifier(folder + "/device");
    if (vendor.empty())
        return;
    const section of_vendor = find_section(pci_names(), vendor + "  ", "\t");
    if (out.maker.empty())
        out.maker = of_vendor.name;
    if (out.model.empty())
        out.model = find_section(of_vendor.inside, "\t" + device + "  ", "\t\t").name;
    if (out.model.empty())
        out.model = (out.maker.empty() ? "PCI device " + vendor + ":" : "device ") + device;
}

std::optional<device_facts> device_finder::find(const link_row& link) {
    std::string folder = folder_of(link);
    if (folder.empty() && link.device.empty())
        return std::nullopt;
    device_facts facts;
    const std::string name = folder.empty() ? link.device : last_part(folder);
    const std::string bus = folder.empty() ? link.bus : target_name(folder + "/subsystem");
    facts.place = bus == "pci" ? "PCI " + name : bus.empty() ? name : bus + " " + name;
    facts.driver = target_name(folder + "/driver");
    facts.is_wireless = exists(folder + "/ieee80211");
    // Describe the USB or PCI device that contains this one, because that is the hardware that a user can find and
    // touch.
    for (; folder.size() > m_root.size(); folder.resize(folder.rfind('/'))) {
        const std::string subsystem = target_name(folder + "/subsystem");
        const std::string part = last_part(folder);
        if (subsystem == "usb" && exists(folder + "/idVendor") && part.find('-') != part.npos) {
            facts.place = usb_place(part);
            facts.maker = read_line(folder + "/manufacturer");
            facts.model = read_line(folder + "/product");
            if (facts.model.empty())
                facts.model = "USB device " + read_line(folder + "/idVendor") + ":" + read_line(folder + "/idProduct");
            break;
        }
        if (subsystem == "pci") {
            facts.place = (part != name ? name + " on " : "") + "PCI " + part;
            describe_pci(folder, facts);
            break;
        }
    }
    return facts;
}

} // namespace network
