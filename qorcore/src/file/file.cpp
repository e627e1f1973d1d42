// The file object, and the same operations by a handle. The position is kept here, not by the system: reads and writes
// at the position and at an offset are then one thing on every system.
#include "file/file_mode.h"
#include "platform/random_name.h"

#include <cstring>
#include <limits>
#include <string>

struct qorOpenFile {
    qor::platform::raw_file file;
    std::string path;
    uint32 mode;
    uint64 position;
};

namespace {

// A file and the name of the operation that wants it, for errors.
template <class FILE>
struct use {
    FILE* file;
    const char* operation;

    // Sets the last error and returns false if no file is open.
    bool is_open() const noexcept {
        if (file == nullptr)
            qor::error::set(qorError_not_open, {operation});
        return file != nullptr;
    }

    // The same if the file is not open for this.
    bool is_open_for(qorFileMode flag) const noexcept {
        if (!is_open())
            return false;
        if ((file->mode & flag) == 0)
            return wrong_mode();
        return true;
    }

    bool wrong_mode() const noexcept {
        qor::error::set(qorError_file_mode, {operation, file->path.c_str()});
        return false;
    }

    // Sets the last error, unless the reason is 0, and returns whether it is.
    bool succeeded(int reason, qorErrorNumber number) const noexcept {
        if (reason != 0)
            qor::error::set_with_reason(number, file->path.c_str(), reason);
        return reason == 0;
    }
};

using changing = use<qorOpenFile>;
using reading = use<const qorOpenFile>;

changing of(qorFile* self, const char* operation) noexcept {
    return {static_cast<qorOpenFile*>(self->m_data.file), operation};
}
reading of(const qorFile* self, const char* operation) noexcept {
    return {static_cast<const qorOpenFile*>(self->m_data.file), operation};
}

// Several threads may use a file at once, and the system's file has no state of its own here.
qor::platform::raw_file& raw(const qorOpenFile& file) noexcept {
    return const_cast<qor::platform::raw_file&>(file.file);
}

int open_file(const char* path, uint32 mode, const qor::platform::raw_file::terms& terms, qorOpenFile** out) {
    auto* const made = new qorOpenFile{{}, path, mode, 0};
    const int reason = made->file.open(path, terms);
    if (reason == 0)
        *out = made;
    else
        delete made;
    return reason;
}

// The operations of both forms: of the class and by a handle.
namespace work {

bool open(const char* path, uint32 mode, const char* operation, qorOpenFile** out) {
    *out = nullptr;
    qor::platform::raw_file::terms terms;
    if (!qor::file::to_terms(mode, terms)) {
        qor::error::set(qorError_invalid_argument, {operation, "mode"});
        return false;
    }
    const int reason = open_file(path, mode, terms, out);
    if (reason != 0)
        qor::file::set_open_error(path, reason);
    return reason == 0;
}

bool create_unique(const char* folder, const char* begin, const char* end, qorString& path, const char* operation,
                   qorOpenFile** out) {
    constexpr int most_attempts = 1000;
    constexpr uint32 mode = qorFileReading | qorFileWriting | qorFileNew;
    *out = nullptr;
    qor::glue::qorString_Set(&path, "", 0);
    for (const char* const part : {begin, end})
        if (part != nullptr && std::strpbrk(part, "/\\") != nullptr) {
            qor::error::set(qorError_invalid_argument, {operation, part});
            return false;
        }
    qorString temporary;
    if (folder == nullptr && !qor::glue::qorGetFolderPath(qorFolder_user_temporary, temporary))
        return false;
    std::string place = folder != nullptr ? folder : temporary.Text();
    if (!place.empty() && place.back() != '/')
        place += '/';
    qor::platform::raw_file::terms terms;
    qor::file::to_terms(mode, terms);
    terms.is_private = true;
    std::string made;
    int reason = qor::platform::raw_file::is_taken;
    for (int i = 0; reason == qor::platform::raw_file::is_taken && i < most_attempts; ++i) {
        made = place + (begin != nullptr ? begin : "") + qor::platform::random_name() + (end != nullptr ? end : "");
        reason = open_file(made.c_str(), mode, terms, out);
    }
    if (reason != 0) {
        qor::file::set_open_error(made.c_str(), reason);
        return false;
    }
    qor::glue::qorString_Set(&path, made.data(), static_cast<uint32>(made.size()));
    return true;
}

bool close(qorOpenFile* file) {
    const int reason = file->file.close();
    const bool done = changing{file, ""}.succeeded(reason, qorError_cannot_write_file);
    delete file;
    return done;
}

bool close_and_delete(qorOpenFile* file) {
    const int reason = file->file.remove(file->path.c_str());
    if (reason == qor::platform::raw_file::was_replaced)
        qor::error::set(qorError_file_was_replaced, {file->path.c_str()});
    else
        changing{file, ""}.succeeded(reason, qorError_cannot_delete_file);
    delete file;
    return reason == 0;
}

bool read_at(reading from, uint64 offset, void* buffer, uint64 length, uint64* count) {
    if (!from.is_open_for(qorFileReading))
        return false;
    std::size_t got = 0;
    const int reason = raw(*from.file).read_at(offset, buffer, static_cast<std::size_t>(length), &got);
    *count = got;
    return from.succeeded(reason, qorError_cannot_read_file);
}

bool read_exact_at(reading from, uint64 offset, void* buffer, uint64 length) {
    uint64 count = 0;
    if (!read_at(from, offset, buffer, length, &count))
        return false;
    if (count < length)
        qor::error::set(qorError_file_ends, {from.file->path.c_str(), std::to_string(offset + count).c_str()});
    return count == length;
}

bool read(changing from, void* buffer, uint64 length, uint64* count) {
    *count = 0;
    if (!from.is_open_for(qorFileReading))
        return false;
    uint64 got = 0;
    if (!read_at({from.file, from.operation}, from.file->position, buffer, length, &got))
        return false;
    from.file->position += got;
    *count = got;
    return true;
}

bool read_exact(changing from, void* buffer, uint64 length) {
    if (!from.is_open_for(qorFileReading) ||
        !read_exact_at({from.file, from.operation}, from.file->position, buffer, length))
        return false;
    from.file->position += length;
    return true;
}

bool write(changing to, const void* bytes, uint64 length) {
    if (!to.is_open_for(qorFileWriting))
        return false;
    qorOpenFile& file = *to.file;
    int reason = 0;
    if ((file.mode & qorFileAppend) != 0) {
        reason = file.file.write(bytes, static_cast<std::size_t>(length));
        std::uint64_t end = file.position;
        const int size_reason = file.file.size(&end);
        file.position = end;
        reason = reason != 0 ? reason : size_reason;
    } else {
        std::size_t count = 0;
        reason = file.file.write_at(file.position, bytes, static_cast<std::size_t>(length), &count);
        file.position += count;
    }
    return to.succeeded(reason, qorError_cannot_write_file);
}

bool write_at(reading to, uint64 offset, const void* bytes, uint64 length) {
    if (!to.is_open_for(qorFileWriting))
        return false;
    if ((to.file->mode & qorFileAppend) != 0)
        return to.wrong_mode();
    std::size_t count = 0;
    return to.succeeded(raw(*to.file).write_at(offset, bytes, static_cast<std::size_t>(length), &count),
                        qorError_cannot_write_file);
}

bool seek(changing in, int64 offset, qorFileOrigin origin) {
    if (!in.is_open())
        return false;
    std::uint64_t base = 0;
    switch (origin) {
    case qorFileOrigin::begin:
        break;
    case qorFileOrigin::position:
        base = in.file->position;
        break;
    case qorFileOrigin::end:
        if (!in.succeeded(in.file->file.size(&base), qorError_cannot_read_file))
            return false;
        break;
    default:
        qor::error::set(qorError_invalid_argument, {in.operation, "origin"});
        return false;
    }
    constexpr uint64 last = std::numeric_limits<int64>::max();
    // The sum wraps as two's complement does, so a position in front of the beginning is beyond the last one.
    const uint64 position = base + static_cast<uint64>(offset);
    const bool is_in_front = offset < 0 && static_cast<uint64>(-(offset + 1)) >= base;
    if (is_in_front || position > last) {
        qor::error::set(qorError_cannot_seek, {in.operation, in.file->path.c_str(), std::to_string(offset).c_str()});
        return false;
    }
    in.file->position = position;
    return true;
}

uint64 tell(reading in) { return in.is_open() ? in.file->position : 0; }

bool flush(reading of_file, qorFlushTo where) {
    if (!of_file.is_open_for(qorFileWriting))
        return false;
    switch (where) {
    case qorFlushTo::system:
        return true;
    case qorFlushTo::disk:
        return of_file.succeeded(raw(*of_file.file).sync(), qorError_cannot_write_file);
    }
    qor::error::set(qorError_invalid_argument, {of_file.operation, "where"});
    return false;
}

uint64 get_size(reading of_file) {
    std::uint64_t size = 0;
    if (of_file.is_open())
        of_file.succeeded(raw(*of_file.file).size(&size), qorError_cannot_read_file);
    return size;
}

bool set_size(reading of_file, uint64 size) {
    return of_file.is_open_for(qorFileWriting) &&
           of_file.succeeded(raw(*of_file.file).set_size(size), qorError_cannot_write_file);
}

bool get_info(reading of_file, qorFileInfo& out) {
    qor::platform::file_status status{};
    const bool done =
        of_file.is_open() && of_file.succeeded(raw(*of_file.file).status(status), qorError_cannot_read_file);
    out = status.info;
    return done;
}

} // namespace work

} // namespace

void qor::glue::qorFile_Init(qorFile* self) noexcept { self->m_data.file = nullptr; }

void qor::glue::qorFile_Destroy(qorFile* self) noexcept { qorFile_Close(self); }

void qor::glue::qorFile_Close(qorFile* self) noexcept {
    delete static_cast<qorOpenFile*>(self->m_data.file);
    self->m_data.file = nullptr;
}

bool qor::glue::qorFile_Open(qorFile* self, const char* path, uint32 mode) noexcept {
    qorFile_Close(self);
    qorOpenFile* opened = nullptr;
    const bool done = work::open(path, mode, "qorFile::Open", &opened);
    self->m_data.file = opened;
    return done;
}

bool qor::glue::qorFile_CreateUnique(qorFile* self, const char* folder, const char* begin, const char* end,
                                     qorString& path) noexcept {
    qorFile_Close(self);
    qorOpenFile* opened = nullptr;
    const bool done = work::create_unique(folder, begin, end, path, "qorFile::CreateUnique", &opened);
    self->m_data.file = opened;
    return done;
}

bool qor::glue::qorFile_CloseAndDelete(qorFile* self) noexcept {
    const auto what = of(self, "qorFile::CloseAndDelete");
    self->m_data.file = nullptr;
    return what.is_open() && work::close_and_delete(what.file);
}

bool qor::glue::qorFileOpen(const char* path, uint32 mode, qorOpenFile** out) noexcept {
    return work::open(path, mode, "qorFileOpen", out);
}

bool qor::glue::qorFileCreateUnique(const char* folder, const char* begin, const char* end, qorString& path,
                                    qorOpenFile** out) noexcept {
    return work::create_unique(folder, begin, end, path, "qorFileCreateUnique", out);
}

bool qor::glue::qorFileClose(qorOpenFile* file) noexcept {
    return changing{file, "qorFileClose"}.is_open() && work::close(file);
}

bool qor::glue::qorFileCloseAndDelete(qorOpenFile* file) noexcept {
    return changing{file, "qorFileCloseAndDelete"}.is_open() && work::close_and_delete(file);
}

bool qor::glue::qorFile_Read(qorFile* self, void* buffer, uint64 length, uint64* count) noexcept {
    return work::read(of(self, "qorFile::Read"), buffer, length, count);
}
bool qor::glue::qorFileRead(qorOpenFile* file, void* buffer, uint64 length, uint64* count) noexcept {
    return work::read(changing{file, "qorFileRead"}, buffer, length, count);
}

bool qor::glue::qorFile_ReadExact(qorFile* self, void* buffer, uint64 length) noexcept {
    return work::read_exact(of(self, "qorFile::ReadExact"), buffer, length);
}
bool qor::glue::qorFileReadExact(qorOpenFile* file, void* buffer, uint64 length) noexcept {
    return work::read_exact(changing{file, "qorFileReadExact"}, buffer, length);
}

bool qor::glue::qorFile_ReadAt(const qorFile* self, uint64 offset, void* buffer, uint32 length) noexcept {
    return work::read_exact_at(of(self, "qorFile::ReadAt"), offset, buffer, length);
}
bool qor::glue::qorFileReadAt(const qorOpenFile* file, uint64 offset, void* buffer, uint64 length) noexcept {
    return work::read_exact_at(reading{file, "qorFileReadAt"}, offset, buffer, length);
}

bool qor::glue::qorFile_Write(qorFile* self, const void* bytes, uint64 length) noexcept {
    return work::write(of(self, "qorFile::Write"), bytes, length);
}
bool qor::glue::qorFileWrite(qorOpenFile* file, const void* bytes, uint64 length) noexcept {
    return work::write(changing{file, "qorFileWrite"}, bytes, length);
}

bool qor::glue::qorFile_WriteAt(const qorFile* self, uint64 offset, const void* bytes, uint64 length) noexcept {
    return work::write_at(of(self, "qorFile::WriteAt"), offset, bytes, length);
}
bool qor::glue::qorFileWriteAt(const qorOpenFile* file, uint64 offset, const void* bytes, uint64 length) noexcept {
    return work::write_at(reading{file, "qorFileWriteAt"}, offset, bytes, length);
}

bool qor::glue::qorFile_Seek(qorFile* self, int64 offset, qorFileOrigin origin) noexcept {
    return work::seek(of(self, "qorFile::Seek"), offset, origin);
}
bool qor::glue::qorFileSeek(qorOpenFile* file, int64 offset, qorFileOrigin origin) noexcept {
    return work::seek(changing{file, "qorFileSeek"}, offset, origin);
}

uint64 qor::glue::qorFile_Tell(const qorFile* self) noexcept { return work::tell(of(self, "qorFile::Tell")); }
uint64 qor::glue::qorFileTell(const qorOpenFile* file) noexcept { return work::tell(reading{file, "qorFileTell"}); }

bool qor::glue::qorFile_Flush(const qorFile* self, qorFlushTo where) noexcept {
    return work::flush(of(self, "qorFile::Flush"), where);
}
bool qor::glue::qorFileFlush(const qorOpenFile* file, qorFlushTo where) noexcept {
    return work::flush(reading{file, "qorFileFlush"}, where);
}

uint64 qor::glue::qorFile_GetSize(const qorFile* self) noexcept { return work::get_size(of(self, "qorFile::GetSize")); }
uint64 qor::glue::qorFileGetSize(const qorOpenFile* file) noexcept {
    return work::get_size(reading{file, "qorFileGetSize"});
}

bool qor::glue::qorFile_SetFileSize(const qorFile* self, uint64 size) noexcept {
    return work::set_size(of(self, "qorFile::SetFileSize"), size);
}
bool qor::glue::qorFileSetFileSize(const qorOpenFile* file, uint64 size) noexcept {
    return work::set_size(reading{file, "qorFileSetFileSize"}, size);
}

bool qor::glue::qorFile_GetFileInfo(const qorFile* self, qorFileInfo& out) noexcept {
    return work::get_info(of(self, "qorFile::GetFileInfo"), out);
}
bool qor::glue::qorFileGetFileInfo(const qorOpenFile* file, qorFileInfo& out) noexcept {
    return work::get_info(reading{file, "qorFileGetFileInfo"}, out);
}
