// The removable disks of hosts that are recorded in a folder.
#include "folder/removable_disks.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

class recorded_host {
public:
    recorded_host() { fs::create_directories(m_folder / "sys/block"); }

    void file(const std::string& path, std::string_view text) const {
        fs::create_directories(fs::path(m_folder / path).parent_path());
        m_folder.file(path, text);
    }

    // A block device below a folder of /sys/devices, whole or a part of another one.
    void device(const std::string& place, const char* number, const char* sectors, const char* removable) const {
        const std::string folder = "sys/devices/" + place;
        file(folder + "/dev", std::string(number) + '\n');
        file(folder + "/size", std::string(sectors) + '\n');
        file(folder + "/ro", "0\n");
        if (removable == nullptr) {
            file(folder + "/partition", "1\n");
            return;
        }
        file(folder + "/removable", std::string(removable) + '\n');
        const fs::path name = fs::path(place).filename();
        fs::create_directory_symlink("../devices/" + place, fs::path(m_folder / "sys/block") / name);
    }

    void label(const std::string& label, const std::string& device) const {
        fs::create_directories(m_folder / "dev/disk/by-label");
        fs::create_symlink("../../" + device, m_folder / ("dev/disk/by-label/" + label));
    }

    std::vector<qorRemovableDisk> disks() const {
        std::vector<qorRemovableDisk> found;
        std::string failed;
        EXPECT_EQ(qor::folder::read_removable_disks(m_folder.path(), found, failed), 0) << failed;
        return found;
    }

    const std::string& path() const { return m_folder.path(); }

private:
    qor::test::temp_folder m_folder;
};

constexpr char usb[] = "pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host6/target6:0:0/6:0:0:0/block/sdb";

TEST(removable_disks, of_a_host_without_any) {
    const recorded_host host;
    host.device("pci0000:00/0000:00:1f.2/ata1/host0/target0:0:0/0:0:0:0/block/sda", "8:0", "1000215216", "0");
    host.device("pci0000:00/0000:00:1f.2/ata1/host0/target0:0:0/0:0:0:0/block/sda/sda1", "8:1", "1000213168", nullptr);
    host.device("virtual/block/loop0", "7:0", "8192", "0");
    EXPECT_TRUE(host.disks().empty());
}

TEST(removable_disks, a_stick_with_two_partitions) {
    const recorded_host host;
    const std::string disk = usb;
    host.device(disk, "8:16", "60437492", "1");
    host.file("sys/devices/" + disk + "/device/vendor", "Kingston\n");
    host.file("sys/devices/" + disk + "/device/model", "DataTraveler 3.0\n");
    host.device(disk + "/sdb1", "8:17", "60000000", nullptr);
    host.device(disk + "/sdb2", "8:18", "400000", nullptr);
    host.label("My\\x20photos", "sdb1");
    host.file(
        "proc/self/mountinfo",
        "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
        "90 22 8:17 /below /mnt/part rw,nosuid - vfat /dev/sdb1 rw\n"
        "91 22 8:17 / /media/ann/My\\040photos rw,nosuid,nodev shared:50 master:2 - vfat /dev/sdb1 ro,uid=1000\n");
    const auto found = host.disks();
    ASSERT_EQ(found.size(), 2u);
    EXPECT_STREQ(found[0].device, "/dev/sdb1");
    EXPECT_STREQ(found[0].mount_point, "/media/ann/My photos");
    EXPECT_STREQ(found[0].file_system, "vfat");
    EXPECT_STREQ(found[0].label, "My photos");
    EXPECT_STREQ(found[0].model, "Kingston DataTraveler 3.0");
    EXPECT_EQ(found[0].size, 60000000ull * 512);
    EXPECT_TRUE(found[0].is_read_only);
    EXPECT_STREQ(found[1].device, "/dev/sdb2");
    EXPECT_STREQ(found[1].mount_point, "");
    EXPECT_STREQ(found[1].label, "");
    EXPECT_FALSE(found[1].is_read_only);
}

// A disk in a case of its own says that it is fixed; the bus tells.
TEST(removable_disks, a_disk_behind_usb_that_is_encrypted) {
    const recorded_host host;
    const std::string disk = usb;
    host.device(disk, "8:16", "3907029168", "0");
    host.device(disk + "/sdb1", "8:17", "3907027120", nullptr);
    host.device("virtual/block/dm-0", "253:0", "3907023024", "0");
    host.file("sys/devices/" + disk + "/sdb1/holders/dm-0/dev", "253:0\n");
    host.file("proc/self/mountinfo", "91 22 253:0 / /media/backup rw - ext4 /dev/mapper/luks-1 rw\n");
    const auto found = host.disks();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_STREQ(found[0].device, "/dev/sdb1");
    EXPECT_STREQ(found[0].mount_point, "/media/backup");
}

TEST(removable_disks, cards_and_drives_only_with_a_medium) {
    const recorded_host host;
    const std::string card = "pci0000:00/0000:00:1c.0/mmc_host/mmc0/mmc0:aaaa/block/mmcblk0";
    const std::string soldered = "pci0000:00/0000:00:1d.0/mmc_host/mmc1/mmc1:0001/block/mmcblk1";
    const std::string reader = "pci0000:00/0000:00:14.0/usb2/2-2/2-2:1.0/host7/target7:0:0/7:0:0:0/block/sdc";
    const std::string optical = "pci0000:00/0000:00:1f.2/ata2/host1/target1:0:0/1:0:0:0/block/sr0";
    host.device(card, "179:0", "62333952", "0");
    host.file("sys/devices/" + card + "/device/type", "SD\n");
    host.file("sys/devices/" + card + "/device/name", "SC32G\n");
    host.device(soldered, "179:8", "30535680", "0");
    host.file("sys/devices/" + soldered + "/device/type", "MMC\n");
    host.device(reader, "8:32", "0", "1");
    host.device(optical, "11:0", "2097151", "1");
    const auto found = host.disks();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_STREQ(found[0].device, "/dev/mmcblk0");
    EXPECT_STREQ(found[0].model, "SC32G");
    EXPECT_EQ(found[0].size, 62333952ull * 512);
}

// btrfs mounts have numbers of their own, so the name of the device decides.
TEST(removable_disks, a_file_system_with_numbers_of_its_own) {
    const recorded_host host;
    host.device(usb, "8:16", "3907029168", "0");
    host.file("proc/self/mountinfo", "91 22 0:45 / /media/b rw - btrfs /dev/sdb rw\nsenseless\n- - - -\n\n");
    const auto found = host.disks();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_STREQ(found[0].mount_point, "/media/b");
    EXPECT_STREQ(found[0].file_system, "btrfs");
}

TEST(removable_disks, without_sysfs_are_an_error) {
    const qor::test::temp_folder empty;
    std::vector<qorRemovableDisk> found;
    std::string failed;
    EXPECT_NE(qor::folder::read_removable_disks(empty.path(), found, failed), 0);
    EXPECT_EQ(failed, empty.path() + "/sys/block");
}

TEST(removable_disks, of_this_host_are_a_list) {
    zetSmartPointer<IQORRemovableDiskList> list;
    qorString reason;
    const bool is_done = qorGetRemovableDiskList(list.Out());
    qorGetLastError(reason);
    ASSERT_TRUE(is_done) << reason.Text();
    for (const qorRemovableDisk& each : list->Disks())
        EXPECT_GT(each.size, 0u) << each.device.Text();
}

} // namespace
