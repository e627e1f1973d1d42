// The removable disks of the host: USB disks and sticks, memory cards, optical disks.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/String.h"

#include <span>

// One volume of a removable disk: a partition, or the whole disk if it has none. Texts that are not known are empty.
struct qorRemovableDisk {
    qorString device;          // "/dev/sdb1"; on Windows "E:", or the volume's name if it has no letter
    qorString mount_point;     // the folder that shows its content; empty if it is not mounted
    qorString file_system;     // "vfat", "NTFS"; on Linux only of a mounted volume
    qorString label;           // the name that the user gave it
    qorString model;           // maker and model of the disk; on Linux only
    uint64 size = 0;           // in bytes
    bool is_read_only = false; // the volume, or the way in which it is mounted
};

// A list of disks, ordered by device. The object is immutable; any thread may use it.
class IQORRemovableDiskList : public IQORInterface {
public:
    // The number of volumes, and the first of them; they stand one behind the other and live as long as the list.
    virtual uint32 GetCount() noexcept = 0;
    virtual const qorRemovableDisk* GetDisks() noexcept = 0;

    // All volumes, for range-for.
    std::span<const qorRemovableDisk> Disks() noexcept { return {GetDisks(), GetCount()}; }

protected:
    ~IQORRemovableDiskList() = default;
};

// Lists the removable disks that are connected now and have a medium. Returns false and leaves *out unchanged on
// failure (last error); a host without such disks is not an error. Any thread.
[[nodiscard]] inline bool qorGetRemovableDiskList(IQORRemovableDiskList** out) noexcept {
    return qor::glue::qorGetRemovableDiskList(out);
}
