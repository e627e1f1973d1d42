// Strings: the parts of a file name.
#include "string/file_names.h"
#include "string/string_data.h"

using qor::string::assign;
using qor::string::view;

namespace {

struct parts {
    std::string_view path; // with the trailing separator
    std::string_view name;
    std::string_view extension; // without the dot
    std::string_view name_and_extension;
};

parts split(std::string_view text) noexcept {
    const std::size_t separator = text.find_last_of(qor::string::path_separators);
    const std::size_t begin = separator == text.npos ? 0 : separator + 1;
    const std::string_view whole = text.substr(begin);
    // Leading dots are part of the name: ".profile", "..".
    const std::size_t first = whole.find_first_not_of('.');
    const std::size_t dot = first == whole.npos ? whole.npos : whole.find_last_of('.');
    if (dot == whole.npos || dot < first)
        return {text.substr(0, begin), whole, whole.substr(whole.size()), whole};
    return {text.substr(0, begin), whole.substr(0, dot), whole.substr(dot + 1), whole};
}

} // namespace

// `out` may be the string itself in the functions for a single part: assign() accepts a source within its target.

void qor::glue::qorString_FileName(const qorString* self, qorString& out) noexcept {
    assign(out, split(view(*self)).name);
}

void qor::glue::qorString_FilePath(const qorString* self, qorString& out) noexcept {
    assign(out, split(view(*self)).path);
}

void qor::glue::qorString_FileExtension(const qorString* self, qorString& out) noexcept {
    assign(out, split(view(*self)).extension);
}

void qor::glue::qorString_FileNameAndExt(const qorString* self, qorString& out) noexcept {
    assign(out, split(view(*self)).name_and_extension);
}

void qor::glue::qorString_FileSplitName(const qorString* self, qorString& path, qorString& name,
                                        qorString& extension) noexcept {
    if (&path == self || &name == self || &extension == self) {
        const qorString copy(*self);
        qorString_FileSplitName(&copy, path, name, extension);
        return;
    }
    const parts all = split(view(*self));
    assign(path, all.path);
    assign(name, all.name);
    assign(extension, all.extension);
}
