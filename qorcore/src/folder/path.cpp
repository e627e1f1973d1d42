// Named folders inside a path, and the folder for temporary files.
#include "error/error.h"
#include "folder/folder.h"
#include "platform/file_info.h"

namespace {

// Returns the folder with this tag, or qorFolderCount.
uint32 id_of(std::string_view tag) noexcept {
    uint32 id = 0;
    while (id < qorFolderCount && tag != qor::folder::tag(static_cast<qorFolderId>(id)))
        ++id;
    return id;
}

// Takes "tag}" off the front of `text` and adds the path of that folder.
bool add_folder(const char* path, std::string_view& text, std::string& out) {
    const std::size_t end = text.find('}');
    if (end == text.npos) {
        qor::error::set(qorError_folder_tag_without_end, {path});
        return false;
    }
    const std::string tag(text.substr(0, end));
    text.remove_prefix(end + 1);
    const uint32 id = id_of(tag);
    if (id == qorFolderCount) {
        qor::error::set(qorError_unknown_folder_tag, {path, tag.c_str()});
        return false;
    }
    const std::string folder = qor::folder::find(static_cast<qorFolderId>(id));
    out += folder;
    return !folder.empty();
}

bool translate(const char* path, std::string& out) {
    constexpr std::string_view begin = "${";
    std::string_view text = path;
    for (std::size_t at; (at = text.find(begin)) != text.npos;) {
        out += text.substr(0, at);
        text.remove_prefix(at + begin.size());
        if (at != 0 && out.back() == '$')
            out += '{'; // the first '$' said so
        else if (!add_folder(path, text, out))
            return false;
    }
    out += text;
    return true;
}

} // namespace

bool qor::glue::qorTranslatePath(const char* path, qorString& out) noexcept {
    std::string translated;
    const bool is_done = translate(path, translated);
    out = is_done ? translated.c_str() : "";
    return is_done;
}

bool qor::glue::qorIsAbsolutePath(const char* path) noexcept { return folder::is_absolute(path); }

bool qor::glue::qorGetTempFolder(qorString& path) noexcept {
    const std::string found = folder::find(qorFolder_user_temporary);
    path = found.c_str();
    if (found.empty())
        return false;
    qorFileInfo info;
    int code = platform::file_info(found.c_str(), true, info);
    if (code == 0 && info.kind != qorFileKind::folder)
        code = folder::is_no_folder;
    if (code != 0) {
        error::set_with_reason(qorError_no_temp_folder, found.c_str(), code);
        path.Empty();
    }
    return code == 0;
}
