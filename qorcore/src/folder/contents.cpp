#include "folder/contents.h"

#include "error/error.h"
#include "memory/allocator.h"
#include "platform/file_info.h"
#include "qor/system/template/Object.h"

#include <utility>

namespace {

constexpr char source[] = "qorcore/src/folder/contents";

class folder_contents final : public qor::object<IQORFolderContents> {
public:
    explicit folder_contents(qor::folder::listing&& read) noexcept
        : object("qorcore.folder_contents", "IQORFolderContents"), m_listing(std::move(read)) {
        m_listing.finish();
    }

    uint64 GetCount() noexcept override { return m_listing.entries().size(); }
    const qorFolderEntry* GetEntries() noexcept override { return m_listing.entries().data(); }

private:
    qor::folder::listing m_listing;
};

// Sets the last error for a failure.
bool is_done(int code, const char* path) noexcept {
    if (code != 0)
        qor::error::set_with_reason(qorError_cannot_get_file_info, path, code);
    return code == 0;
}

// Whether a path leads to something, which is a folder or, with `folder` false, something else. Sets the last error if
// the system does not tell.
bool leads_to(const char* path, bool folder) noexcept {
    qorFileInfo info;
    const int code = qor::platform::file_info(path, true, info);
    if (qor::platform::means_no_file(code))
        return false;
    return is_done(code, path) && (info.kind == qorFileKind::folder) == folder;
}

} // namespace

bool qor::glue::qorGetFolderContents(const char* path, IQORFolderContents** out) noexcept {
    folder::listing read;
    std::string failed;
    if (const int code = folder::read_contents(path, read, failed)) {
        error::set_with_reason(failed == path ? qorError_cannot_list_folder : qorError_cannot_get_file_info,
                               failed.c_str(), code);
        return false;
    }
    return memory::make<folder_contents>(source, __LINE__, out, std::move(read));
}

bool qor::glue::qorFileExists(const char* path) noexcept { return leads_to(path, false); }

bool qor::glue::qorDirectoryExists(const char* path) noexcept { return leads_to(path, true); }

bool qor::glue::qorGetFileInfo(const char* path, bool follow, qorFileInfo& out) noexcept {
    return is_done(platform::file_info(path, follow, out), path);
}

bool qor::glue::qorGetFileInfoEx(const char* path, bool follow, qorFileInfoEx& out) noexcept {
    return is_done(platform::file_info_ex(path, follow, out), path);
}
