// An invented host: its /sys, /dev, /proc and /var/lock, in the shape of recorded hosts.
#pragma once

#include "serial/sysfs.h"
#include "support/temp_folder.h"

#include <algorithm>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace qor::test {

class fake_host {
public:
    using attributes = std::initializer_list<std::pair<const char*, const char*>>;

    fake_host() {
        for (const char* const folder : {"sys/class/tty", "sys/dev/char", "sys/devices", "dev", "proc/tty", "lock"})
            std::filesystem::create_directories(m_folder / folder);
        m_on = {m_folder / "sys", m_folder / "dev", m_folder / "proc", m_folder / "lock"};
    }

    const qor::serial::host& on() const { return m_on; }
    const temp_folder& folder() const { return m_folder; }

    // Makes a device below /sys/devices, with its attributes.
    void device(const std::string& path, const std::string& bus, attributes values = {}) {
        const std::filesystem::path place = m_on.sys + "/devices/" + path;
        std::filesystem::create_directories(place);
        std::filesystem::create_directories(m_on.sys + "/bus/" + bus);
        std::filesystem::create_directory_symlink(m_on.sys + "/bus/" + bus, place / "subsystem");
        write(place, values);
    }

    // Makes a terminal on a device; `number` is major:minor.
    void terminal(const std::string& parent, const std::string& name, const char* number, attributes values = {}) {
        const std::filesystem::path place = m_on.sys + "/devices/" + parent + "/tty/" + name;
        std::filesystem::create_directories(place);
        write(place, values);
        write(place, {{"dev", number}});
        if (parent != "virtual")
            std::filesystem::create_directory_symlink(m_on.sys + "/devices/" + parent, place / "device");
        std::filesystem::create_directory_symlink(m_on.sys + "/class/tty", place / "subsystem");
        std::filesystem::create_directory_symlink(place, m_on.sys + "/class/tty/" + name);
        std::filesystem::create_directory_symlink(place, m_on.sys + "/dev/char/" + number);
        std::string file = m_on.dev + "/" + name;
        std::replace(file.begin(), file.end(), '!', '/');
        std::filesystem::create_directories(std::filesystem::path(file).parent_path());
        std::ofstream(file).flush();
    }

    // Returns texts like "ttyS0 = motherboard UART at 0x3f8", in the order of the list.
    std::vector<std::string> ports() const {
        std::vector<std::string> names;
        std::string path;
        EXPECT_EQ(qor::serial::list_ports(m_on, names, path), 0) << path;
        for (std::string& name : names)
            name += " = " + qor::serial::describe_location(m_on, name);
        std::sort(names.begin(), names.end());
        return names;
    }

private:
    static void write(const std::filesystem::path& place, attributes values) {
        for (const auto& [name, text] : values)
            std::ofstream(place / name) << text << '\n';
    }

    temp_folder m_folder;
    qor::serial::host m_on;
};

} // namespace qor::test
