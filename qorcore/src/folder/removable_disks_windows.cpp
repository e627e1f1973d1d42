// The removable disks on Windows: the volumes with a medium, as the system and the drivers describe them. A volume
// may have a drive letter, or be mounted in a folder, or neither.
#include "folder/removable_disks.h"

#include "platform/wide_windows.h"

#include <algorithm>
#include <cwchar>
#include <string_view>
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

// A disk in a case of its own calls itself fixed; its bus tells it from one inside. `name` is that of the volume,
// without a separator at its end.
bool is_on_removable_bus(const std::wstring& name) noexcept {
    const HANDLE volume =
        CreateFileW(name.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
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

// Where the system mounts something, paths end with a separator.
std::wstring_view without_end(std::wstring_view path) noexcept { return path.substr(0, path.size() - 1); }

bool is_removable(const wchar_t* root) {
    switch (GetDriveTypeW(root)) {
    case DRIVE_REMOVABLE:
    case DRIVE_CDROM:
        return true;
    case DRIVE_FIXED:
        return is_on_removable_bus(std::wstring(without_end(root)));
    default:
        return false;
    }
}

bool is_letter(std::wstring_view path) noexcept { return path.size() == 3 && path[1] == L':'; }

// Returns "E:\", or the folder where the volume is mounted, or nothing.
std::wstring mount_point_of(const wchar_t* root) {
    std::wstring all(MAX_PATH, L'\0');
    DWORD size = 0;
    while (!GetVolumePathNamesForVolumeNameW(root, all.data(), static_cast<DWORD>(all.size()), &size)) {
        if (GetLastError() != ERROR_MORE_DATA)
            return {};
        all.resize(size);
    }
    std::wstring_view found;
    for (const wchar_t* each = all.c_str(); *each != L'\0'; each += std::wcslen(each) + 1)
        if (found.empty() || is_letter(each))
            found = each;
    return std::wstring(found);
}

// `root` is the name of the volume with a separator at its end: "\\?\Volume{...}\".
void add_volume(const wchar_t* root, std::vector<qorRemovableDisk>& out) {
    wchar_t label[MAX_PATH + 1], file_system[MAX_PATH + 1];
    DWORD flags = 0;
    ULARGE_INTEGER size{};
    if (!is_removable(root) ||
        !GetVolumeInformationW(root, label, MAX_PATH + 1, nullptr, nullptr, &flags, file_system, MAX_PATH + 1))
        return; // or there is no medium
    GetDiskFreeSpaceExW(root, nullptr, &size, nullptr);
    const std::wstring place = mount_point_of(root);
    using qor::platform::from_wide;
    qorRemovableDisk& volume = out.emplace_back();
    volume.device = from_wide(without_end(is_letter(place) ? std::wstring_view(place) : root));
    if (!place.empty())
        volume.mount_point = from_wide(is_letter(place) ? std::wstring_view(place) : without_end(place));
    volume.label = from_wide(label);
    volume.file_system = from_wide(file_system);
    volume.size = size.QuadPart;
    volume.is_read_only = (flags & FILE_READ_ONLY_VOLUME) != 0;
}

} // namespace

int qor::folder::read_removable_disks(const std::string&, std::vector<qorRemovableDisk>& out, std::string& failed) {
    const no_questions quiet;
    wchar_t root[MAX_PATH + 1];
    const HANDLE search = FindFirstVolumeW(root, MAX_PATH + 1);
    if (search != INVALID_HANDLE_VALUE) {
        do
            add_volume(root, out);
        while (FindNextVolumeW(search, root, MAX_PATH + 1));
    }
    const int code = static_cast<int>(GetLastError());
    if (search != INVALID_HANDLE_VALUE)
        FindVolumeClose(search);
    std::ranges::sort(out, {}, [](const qorRemovableDisk& each) { return std::string_view(each.device); });
    failed = "FindNextVolume";
    return code == ERROR_NO_MORE_FILES ? 0 : code;
}
