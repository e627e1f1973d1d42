#include "file/file_mode.h"

bool qor::file::to_terms(uint32 mode, platform::raw_file::terms& out) noexcept {
    constexpr uint32 known = qorFileReading | qorFileWriting | qorFileExisting | qorFileNew | qorFileShared |
                             qorFileTruncate | qorFileAppend;
    const auto has = [mode](uint32 flag) { return (mode & flag) != 0; };
    const bool needs_writing = has(qorFileNew) || has(qorFileTruncate) || has(qorFileAppend) || !has(qorFileExisting);
    if ((mode & ~known) != 0 || !(has(qorFileReading) || has(qorFileWriting)) ||
        (needs_writing && !has(qorFileWriting)) || (has(qorFileExisting) && has(qorFileNew)))
        return false;
    out.reads = has(qorFileReading);
    out.writes = has(qorFileWriting);
    out.creates = !has(qorFileExisting);
    out.is_new = has(qorFileNew);
    out.is_shared = has(qorFileShared);
    out.truncates = has(qorFileTruncate);
    out.appends = has(qorFileAppend);
    return true;
}

void qor::file::set_open_error(const char* path, int reason) noexcept {
    if (reason == platform::raw_file::not_regular)
        error::set(qorError_no_disk_file, {path});
    else if (reason == platform::raw_file::in_use)
        error::set(qorError_file_in_use, {path});
    else
        error::set_with_reason(qorError_cannot_open_file, path, reason);
}
