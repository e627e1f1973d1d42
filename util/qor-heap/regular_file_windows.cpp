#include "qor/glue/wide_path_windows.h"
#include "regular_file.h"

#include <windows.h>

// The system opens even a pipe or another device to ask for its attributes.
std::optional<uint64> qor::heap_tool::size_of_regular_file(const std::string& path) {
    const std::wstring name = glue::wide_path(path);
    std::wstring full(GetFullPathNameW(name.c_str(), 0, nullptr, nullptr), L'\0');
    full.resize(GetFullPathNameW(name.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
    if (full.empty() || full.starts_with(L"\\\\.\\") || full.starts_with(L"\\\\?\\GLOBALROOT"))
        return std::nullopt;
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExW(full.c_str(), GetFileExInfoStandard, &data) ||
        (data.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE)) != 0)
        return std::nullopt;
    return uint64{data.nFileSizeHigh} << 32 | data.nFileSizeLow;
}
