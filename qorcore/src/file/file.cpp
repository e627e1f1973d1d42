// The file object, which reads files on a disk at any position.
#include "error/error.h"
#include "platform/raw_file.h"

#include <string>

namespace {

struct opened {
    qor::platform::raw_file file;
    std::string path;
};

// Returns null and sets the last error if no file is open.
opened* opened_of(const qorFile* self, const char* operation) noexcept {
    if (self->m_data.file == nullptr)
        qor::error::set(qorError_not_open, {operation});
    return static_cast<opened*>(self->m_data.file);
}

} // namespace

void qor::glue::qorFile_Init(qorFile* self) noexcept { self->m_data.file = nullptr; }

void qor::glue::qorFile_Destroy(qorFile* self) noexcept { qorFile_Close(self); }

void qor::glue::qorFile_Close(qorFile* self) noexcept {
    delete static_cast<opened*>(self->m_data.file);
    self->m_data.file = nullptr;
}

bool qor::glue::qorFile_Open(qorFile* self, const char* path, uint32 mode) noexcept {
    qorFile_Close(self);
    if (mode != (qorFileReading | qorFileExisting | qorFileShared)) {
        error::set(qorError_invalid_argument, {"qorFile::Open", "mode"});
        return false;
    }
    auto* const made = new opened{{}, path};
    const int reason = made->file.open(path, platform::raw_file::access::regular);
    if (reason == 0) {
        self->m_data.file = made;
        return true;
    }
    delete made;
    if (reason == platform::raw_file::not_regular)
        error::set(qorError_no_disk_file, {path});
    else
        error::set_with_reason(qorError_cannot_open_file, path, reason);
    return false;
}

uint64 qor::glue::qorFile_GetSize(const qorFile* self) noexcept {
    opened* const of = opened_of(self, "qorFile::GetSize");
    if (of == nullptr)
        return 0;
    std::uint64_t size = 0;
    if (const int reason = of->file.size(&size))
        error::set_with_reason(qorError_cannot_read_file, of->path.c_str(), reason);
    return size;
}

bool qor::glue::qorFile_ReadAt(const qorFile* self, uint64 offset, void* buffer, uint32 length) noexcept {
    opened* const of = opened_of(self, "qorFile::ReadAt");
    if (of == nullptr)
        return false;
    std::size_t count = 0;
    if (const int reason = of->file.read_at(offset, buffer, length, &count)) {
        error::set_with_reason(qorError_cannot_read_file, of->path.c_str(), reason);
        return false;
    }
    if (count < length)
        error::set(qorError_file_ends, {of->path.c_str(), std::to_string(offset + count).c_str()});
    return count == length;
}
