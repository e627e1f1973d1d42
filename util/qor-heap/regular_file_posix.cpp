#include "regular_file.h"

std::optional<uint64> qor::heap_tool::size_of_regular_file(const std::string& path) {
    const auto info = qorGetFileInfo(path.c_str());
    return info.has_value() && info->kind == qorFileKind::file ? std::optional(info->size) : std::nullopt;
}
