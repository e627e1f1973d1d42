#include "serial/device_places.h"

#include "platform/wide_windows.h"

#include <algorithm>
#include <string_view>
#include <windows.h>
// Needs the include above.
#include <setupapi.h>

namespace {

using qor::platform::from_wide;

constexpr DWORD longest = 512; // the longest text of the device manager, in characters

// The device manager's library. It is loaded on first use, because otherwise every process would pay for it.
class device_manager {
public:
    device_manager() noexcept {
        if (m_library == nullptr)
            return;
        find(get_devices, "SetupDiGetClassDevsW");
        find(next_device, "SetupDiEnumDeviceInfo");
        find(open_key, "SetupDiOpenDevRegKey");
        find(get_property, "SetupDiGetDeviceRegistryPropertyW");
        find(get_instance, "SetupDiGetDeviceInstanceIdW");
        find(end, "SetupDiDestroyDeviceInfoList");
    }

    bool is_there() const noexcept { return m_is_whole; }

    decltype(&SetupDiGetClassDevsW) get_devices = nullptr;
    decltype(&SetupDiEnumDeviceInfo) next_device = nullptr;
    decltype(&SetupDiOpenDevRegKey) open_key = nullptr;
    decltype(&SetupDiGetDeviceRegistryPropertyW) get_property = nullptr;
    decltype(&SetupDiGetDeviceInstanceIdW) get_instance = nullptr;
    decltype(&SetupDiDestroyDeviceInfoList) end = nullptr;

private:
    template <class FUNCTION>
    void find(FUNCTION& function, const char* name) noexcept {
        function = reinterpret_cast<FUNCTION>(reinterpret_cast<void*>(GetProcAddress(m_library, name)));
        m_is_whole = m_is_whole && function != nullptr;
    }

    HMODULE m_library = LoadLibraryExW(L"setupapi.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    bool m_is_whole = m_library != nullptr;
};

bool has_name(const device_manager& manager, HDEVINFO devices, SP_DEVINFO_DATA& device, const std::wstring& name) {
    const HKEY key = manager.open_key(devices, &device, DICS_FLAG_GLOBAL, 0, DIREG_DEV, KEY_QUERY_VALUE);
    if (key == INVALID_HANDLE_VALUE)
        return false;
    wchar_t value[MAX_PATH + 1];
    DWORD size = sizeof value - sizeof *value;
    DWORD type = 0;
    const LSTATUS code = RegQueryValueExW(key, L"PortName", nullptr, &type, reinterpret_cast<BYTE*>(value), &size);
    RegCloseKey(key);
    if (code != ERROR_SUCCESS || type != REG_SZ)
        return false;
    value[size / sizeof *value] = L'\0';
    return lstrcmpiW(value, name.c_str()) == 0;
}

std::string property(const device_manager& manager, HDEVINFO devices, SP_DEVINFO_DATA& device, DWORD which) {
    wchar_t text[longest + 1] = L"";
    if (!manager.get_property(devices, &device, which, nullptr, reinterpret_cast<BYTE*>(text),
                              sizeof text - sizeof *text, nullptr))
        return {};
    return from_wide(text);
}

// The instance id of a device contains its serial number: "USB\VID_2341&PID_0043\85531303631351F0B1E1", or in the form
// of the FTDI driver: "FTDIBUS\VID_0403+PID_6001+A50285BIA\0000". A number that contains '&' was made up by the system
// for a device without a serial number.
std::string serial_number(const std::string& instance) {
    std::string_view text = instance;
    if (text.starts_with("FTDIBUS\\")) {
        text = text.substr(0, text.rfind('\\'));
        text = text.substr(text.rfind('+') + 1);
        // The last letter distinguishes the ports of a device.
        if (!text.empty())
            text.remove_suffix(1);
    } else if (text.starts_with("USB\\")) {
        text = text.substr(text.rfind('\\') + 1);
    } else {
        return {};
    }
    return std::ranges::find(text, '&') == text.end() ? std::string(text) : std::string();
}

std::string describe(const device_manager& manager, HDEVINFO devices, SP_DEVINFO_DATA& device) {
    std::string text = property(manager, devices, device, SPDRP_DEVICEDESC);
    const std::string location = property(manager, devices, device, SPDRP_LOCATION_INFORMATION);
    if (!location.empty())
        text.append(text.empty() ? "" : ", ").append(location);
    wchar_t instance[longest + 1] = L"";
    if (manager.get_instance(devices, &device, instance, longest, nullptr)) {
        const std::string number = serial_number(from_wide(instance));
        if (!number.empty())
            text.append(", serial ").append(number);
    }
    return text;
}

} // namespace

std::string qor::serial::device_place(const std::string& port) {
    std::wstring name;
    static const device_manager manager;
    if (!manager.is_there() || !platform::to_wide(port, name))
        return {};
    // Search the devices of all classes, because a modem also has a port.
    const HDEVINFO devices = manager.get_devices(nullptr, nullptr, nullptr, DIGCF_PRESENT | DIGCF_ALLCLASSES);
    if (devices == INVALID_HANDLE_VALUE)
        return {};
    std::string text;
    SP_DEVINFO_DATA device{};
    device.cbSize = sizeof device;
    for (DWORD index = 0; text.empty() && manager.next_device(devices, index, &device); ++index)
        if (has_name(manager, devices, device, name))
            text = describe(manager, devices, device);
    manager.end(devices);
    return text;
}
