// The replacement of a whole file in one operation.
#include "file/file_mode.h"
#include "platform/replacement.h"

bool qor::glue::qorReplaceFile(const char* path, const void* bytes, uint64 size, uint32 flags) noexcept {
    if ((flags & ~uint32{qorReplacePrivate}) != 0) {
        error::set(qorError_invalid_argument, {"qorReplaceFile", "flags"});
        return false;
    }
    platform::replacement made;
    int reason = made.begin(path, (flags & qorReplacePrivate) != 0);
    if (reason == platform::raw_file::not_regular) {
        error::set(qorError_no_disk_file, {path});
        return false;
    }
    if (reason == 0)
        reason = made.file().write(bytes, static_cast<std::size_t>(size));
    if (reason == 0)
        reason = made.commit();
    if (reason != 0)
        error::set_with_reason(qorError_cannot_write_file, path, reason);
    return reason == 0;
}
