#include "platform/file_status_windows.h"

namespace {

uint64 clock_of(LARGE_INTEGER time) noexcept { return static_cast<uint64>(time.QuadPart); }

} // namespace

// Only links count as links: a reparse point may also be a file that is kept elsewhere.
qorFileKind qor::platform::kind_of(DWORD attributes, DWORD tag) noexcept {
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
        (tag == IO_REPARSE_TAG_SYMLINK || tag == IO_REPARSE_TAG_MOUNT_POINT))
        return qorFileKind::link;
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? qorFileKind::folder : qorFileKind::file;
}

uint32 qor::platform::rights_of(DWORD attributes) noexcept {
    const bool is_folder = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    // On a folder the attribute has another meaning.
    const bool is_read_only = !is_folder && (attributes & FILE_ATTRIBUTE_READONLY) != 0;
    return (is_read_only ? 0444u : 0666u) | (is_folder ? 0111u : 0u);
}

int qor::platform::get_status(HANDLE file, file_status& out) noexcept {
    FILE_BASIC_INFO basic;
    FILE_STANDARD_INFO standard;
    BY_HANDLE_FILE_INFORMATION identity;
    FILE_ATTRIBUTE_TAG_INFO tag{};
    if (!GetFileInformationByHandleEx(file, FileBasicInfo, &basic, sizeof basic) ||
        !GetFileInformationByHandleEx(file, FileStandardInfo, &standard, sizeof standard) ||
        !GetFileInformationByHandle(file, &identity))
        return static_cast<int>(GetLastError());
    // Not every file system knows tags.
    GetFileInformationByHandleEx(file, FileAttributeTagInfo, &tag, sizeof tag);
    out = {};
    out.info.kind = kind_of(basic.FileAttributes, tag.ReparseTag);
    out.info.rights = rights_of(basic.FileAttributes);
    out.info.size = out.info.kind != qorFileKind::folder ? static_cast<uint64>(standard.EndOfFile.QuadPart) : 0;
    out.info.modified = clock_of(basic.LastWriteTime);
    out.info.accessed = clock_of(basic.LastAccessTime);
    out.info.created = clock_of(basic.CreationTime);
    out.changed = clock_of(basic.ChangeTime);
    out.allocated = static_cast<uint64>(standard.AllocationSize.QuadPart);
    out.links = standard.NumberOfLinks;
    out.device = identity.dwVolumeSerialNumber;
    out.id[0] = identity.nFileIndexLow | static_cast<uint64>(identity.nFileIndexHigh) << 32;
    out.owner = out.group = 0xffffffff;
    return 0;
}
