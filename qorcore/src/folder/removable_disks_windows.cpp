// The removable disks on Windows: the volumes with a drive letter, as the system and the drivers describe them.
#include "folder/removable_disks.h"

#include "platform/wide_windows.h"

#include <windows.h>
#include <winioctl.h>

namespace {

// Keeps the system from asking the user for a medium.
class no_questions {
public:
    no_questions() noexcept { SetThreadErrorMode(SEM_FAILCRITICALERRORS, &m_before); }
    no_questions(const no_questions&) = delete;
    no_questions& operator=(const no_questions&) = delete;
    ~no_questions() { SetThreadErrorMode(m_before, nullptr); }

private:
    DWORD m_before = 0;
};

// A disk in a case of its own calls itself fixed; its bus tells it from one inside.
bool is_on_removable_bus(wchar_t letter) noexcept {
    const wchar_t path[] = {L'\\', L'\\', L'.', L'\\', letter, L':', L'\0'};
    const HANDLE volume = CreateFileW(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (volume == INVALID_HANDLE_VALUE)
        return false;
    STORAGE_PROPERTY_QUERY query{};
    query.PropertyId = StorageDeviceProperty;
    query.QueryType = PropertyStandardQuery;
    STORAGE_DEVICE_DESCRIPTOR device{};
    DWORD size = 0;
    const bool is_known = DeviceIoControl(volume, IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof query, &device,
                                          sizeof device, &size, nullptr);
    CloseHandle(volume);
    return is_known && (device.BusType == BusTypeUsb || device.BusType == BusType1394 || device.BusType == BusTypeSd);
}

bool is_removable(wchar_t letter, const wchar_t* root) noexcept {
    switch (GetDriveTypeW(root)) {
    case DRIVE_REMOVABLE:
    case DRIVE_CDROM:
        return true;
    case DRIVE_FIXED:
        return is_on_removable_bus(letter);
    default:
        return false;
    }
}

} // namespace

int qor::folder::read_removable_disks(const std::string&, std::vector<qorRemovableDisk>& out, std::string& failed) {
    const no_questions quiet;
    const DWORD letters = GetLogicalDrives();
    if (letters == 0) {
        failed = "GetLogicalDrives";
        return static_cast<int>(GetLastError());
    }
    for (wchar_t letter = L'A'; letter <= L'Z'; ++letter) {
        const wchar_t root[] = {letter, L':', L'\\', L'\0'};
        if (((letters >> (letter - L'A')) & 1) == 0 || !is_removable(letter, root))
            continue;
        wchar_t label[MAX_PATH + 1], file_system[MAX_PATH + 1];
        DWORD flags = 0;
        ULARGE_INTEGER size{};
        if (!GetVolumeInformationW(root, label, MAX_PATH + 1, nullptr, nullptr, &flags, file_system, MAX_PATH + 1))
            continue; // there is no medium
        GetDiskFreeSpaceExW(root, nullptr, &size, nullptr);
        qorRemovableDisk& volume = out.emplace_back();
        volume.device = platform::from_wide({root, 2});
        volume.mount_point = platform::from_wide({root, 3});
        volume.label = platform::from_wide(label);
        volume.file_system = platform::from_wide(file_system);
        volume.size = size.QuadPart;
        volume.is_read_only = (flags & FILE_READ_ONLY_VOLUME) != 0;
    }
    return 0;
}
