// Files: a file object for reads and writes at any position, the same operations by a handle, the replacement of a
// whole file, and a line reader. docs/files.md has examples. For reading or writing from the beginning to the end,
// see qor/system/FileStream.h.
#pragma once

#include "qor/system/FileInfo.h"
#include "qor/system/Interface.h"
#include "qor/system/Memory.h"
#include "qor/system/String.h"

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

// How a file is opened, combined with `|`. Reading, Writing or both are needed. A mode converts to the number that Open
// takes.
enum qorFileMode : uint32 {
    qorFileReading = 1,
    qorFileWriting = 2,
    qorFileExisting = 4,  // the file must exist; always wanted without Writing
    qorFileNew = 8,       // the file must not exist. Without Existing and New, a missing file is created
    qorFileShared = 16,   // others may have the file open at the same time; see docs/files.md
    qorFileTruncate = 32, // drops what the file holds; needs Writing
    qorFileAppend = 64,   // every Write goes to the end of the file, wherever that is then; needs Writing
    qorFileReplace = 128, // only for IQORFileTarget: a complete file takes the place of the old one when it is closed
};

// Combines two flags.
constexpr qorFileMode operator|(qorFileMode left, qorFileMode right) noexcept {
    return static_cast<qorFileMode>(uint32{left} | uint32{right});
}

// The place from which Seek counts.
enum class qorFileOrigin : uint32 {
    begin,
    position,
    end,
};

// How far Flush takes what was written.
enum class qorFlushTo : uint32 {
    system, // other processes see it, and it survives the end of this one
    disk,   // it also survives a power failure
};

// Flags of qorReplaceFile, combined with `|`.
enum qorReplaceFlags : uint32 {
    qorReplaceUsual = 0,   // rights, access control list and attributes of the old file are kept; see docs/files.md
    qorReplacePrivate = 1, // only the user who runs this process has access
};

// A file on a disk. Folders, pipes and devices are refused, and opening never waits. Child processes that run another
// program do not inherit the file. The destructor closes it.
//
// An operation that fails sets the last error, which names the operation, the path and the system's reason. Only one
// thread at a time may use an object, but while none opens, closes or moves the position, any number may call ReadAt,
// WriteAt, GetSize and GetFileInfo at once.
class qorFile {
public:
    qorFile() noexcept { qor::glue::qorFile_Init(this); }
    qorFile(const qorFile&) = delete;
    // The other object has no open file afterwards.
    qorFile(qorFile&& other) noexcept : qorFile() { std::swap(m_data, other.m_data); }
    qorFile& operator=(qorFile&& other) noexcept {
        std::swap(m_data, other.m_data);
        other.Close();
        return *this;
    }
    ~qorFile() { qor::glue::qorFile_Destroy(this); }

    // Opens a file and closes the one opened before; the position is 0. Without qorFileShared, the open fails if
    // another has the file open, and others cannot open it. On Linux that holds among programs of the framework.
    // Returns false on failure.
    [[nodiscard]] bool Open(const char* path, uint32 mode) noexcept {
        return qor::glue::qorFile_Open(this, path, mode);
    }

    // Creates a file with a name that nothing in `folder` has, and opens it for reading and writing. Only the user who
    // runs this process has access. The name is `begin`, twelve random letters and digits, and `end`; both may be null.
    // A null `folder` means the folder for temporary files. `path` gets the whole path. Nothing deletes the file but
    // CloseAndDelete. Returns false on failure, and empties `path`.
    [[nodiscard]] bool CreateUnique(const char* folder, const char* begin, const char* end, qorString& path) noexcept {
        return qor::glue::qorFile_CreateUnique(this, folder, begin, end, path);
    }

    // Closes the file. A network file system may report only now that earlier writes failed, and Close drops that:
    // Flush to the disk before, or use qorFileClose.
    void Close() noexcept { qor::glue::qorFile_Close(this); }

    // Closes the file and deletes it, if its path still leads to it: a file that has been put there since then is left
    // alone. Returns false if it is not deleted; it is closed in any case.
    bool CloseAndDelete() noexcept { return qor::glue::qorFile_CloseAndDelete(this); }

    // Whether a file is open. Changes nothing, and does not touch the last error.
    bool IsOpen() const noexcept { return m_data.file != nullptr; }

    // Reads at the position, and moves it. *count is less than `length` only at the end of the file, where it is 0.
    // After a failure the position is unchanged.
    [[nodiscard]] bool Read(void* buffer, uint64 length, uint64* count) noexcept {
        return qor::glue::qorFile_Read(this, buffer, length, count);
    }
    // The same: returns the bytes that were read, which are empty at the end of the file, or nothing on failure.
    [[nodiscard]] std::optional<std::span<std::byte>> Read(std::span<std::byte> buffer) noexcept {
        uint64 count = 0;
        if (!Read(buffer.data(), buffer.size(), &count))
            return std::nullopt;
        return buffer.first(static_cast<std::size_t>(count));
    }

    // Reads exactly `length` bytes at the position, and moves it. Returns false if the file ends before that or cannot
    // be read; the position is then unchanged and the content of the buffer undefined.
    [[nodiscard]] bool ReadExact(void* buffer, uint64 length) noexcept {
        return qor::glue::qorFile_ReadExact(this, buffer, length);
    }
    [[nodiscard]] bool ReadExact(std::span<std::byte> buffer) noexcept {
        return ReadExact(buffer.data(), buffer.size());
    }

    // Reads exactly `length` bytes at `offset`. Returns false if the file ends before that or cannot be read; the
    // content of the buffer is then undefined. The position does not count and does not change.
    [[nodiscard]] bool ReadAt(uint64 offset, void* buffer, uint32 length) const noexcept {
        return qor::glue::qorFile_ReadAt(this, offset, buffer, length);
    }

    // Writes all bytes at the position, and moves it. A gap behind the old end reads as zeros. After a failure the
    // position is behind the bytes that were written.
    [[nodiscard]] bool Write(const void* bytes, uint64 length) noexcept {
        return qor::glue::qorFile_Write(this, bytes, length);
    }
    [[nodiscard]] bool Write(std::span<const std::byte> bytes) noexcept { return Write(bytes.data(), bytes.size()); }
    [[nodiscard]] bool Write(std::string_view text) noexcept { return Write(text.data(), text.size()); }

    // Writes all bytes at `offset`. The position does not count and does not change. Not for a file that was opened
    // with qorFileAppend. After a failure it is unknown how many bytes were written.
    [[nodiscard]] bool WriteAt(uint64 offset, const void* bytes, uint64 length) const noexcept {
        return qor::glue::qorFile_WriteAt(this, offset, bytes, length);
    }
    [[nodiscard]] bool WriteAt(uint64 offset, std::span<const std::byte> bytes) const noexcept {
        return WriteAt(offset, bytes.data(), bytes.size());
    }
    [[nodiscard]] bool WriteAt(uint64 offset, std::string_view text) const noexcept {
        return WriteAt(offset, text.data(), text.size());
    }

    // Moves the position, which may lie behind the end of the file but not in front of its beginning. Returns false on
    // failure, and leaves it where it was.
    [[nodiscard]] bool Seek(int64 offset, qorFileOrigin origin = qorFileOrigin::begin) noexcept {
        return qor::glue::qorFile_Seek(this, offset, origin);
    }

    // The position: 0 after opening. After a Write to a file that was opened with qorFileAppend it is the end.
    uint64 Tell() const noexcept { return qor::glue::qorFile_Tell(this); }

    // Takes what was written further. The object has no buffer, so to the system there is nothing to do. If it fails to
    // the disk, what was written since the last success may be lost, whatever a later Flush says.
    [[nodiscard]] bool Flush(qorFlushTo where) const noexcept { return qor::glue::qorFile_Flush(this, where); }

    // The current size in bytes, or 0 if it is unknown.
    uint64 GetSize() const noexcept { return qor::glue::qorFile_GetSize(this); }

    // Cuts the file, or adds zeros at its end. The position does not change.
    [[nodiscard]] bool SetFileSize(uint64 size) const noexcept { return qor::glue::qorFile_SetFileSize(this, size); }

    // What the file system knows about the file. Returns false on failure, and sets all fields to 0.
    [[nodiscard]] bool GetFileInfo(qorFileInfo& info) const noexcept {
        return qor::glue::qorFile_GetFileInfo(this, info);
    }

    // Part of the contract.
    struct {
        void* file; // the library's; null is closed
    } m_data;
};

// An open file as a handle, for code that cannot keep an object. Each operation is that of qorFile; the library owns
// what the handle points to until qorFileClose or qorFileCloseAndDelete. The operations refuse a null handle.
struct qorOpenFile;

// Like qorFile::Open: *out is the handle, or null on failure.
[[nodiscard]] inline bool qorFileOpen(const char* path, uint32 mode, qorOpenFile** out) noexcept {
    return qor::glue::qorFileOpen(path, mode, out);
}

// Like qorFile::CreateUnique.
[[nodiscard]] inline bool qorFileCreateUnique(const char* folder, const char* begin, const char* end, qorString& path,
                                              qorOpenFile** out) noexcept {
    return qor::glue::qorFileCreateUnique(folder, begin, end, path, out);
}

// Closes the file; the handle becomes invalid. Returns false if the system reports that earlier writes failed.
inline bool qorFileClose(qorOpenFile* file) noexcept { return qor::glue::qorFileClose(file); }

// Like qorFile::CloseAndDelete; the handle becomes invalid.
inline bool qorFileCloseAndDelete(qorOpenFile* file) noexcept { return qor::glue::qorFileCloseAndDelete(file); }

// Like the members of qorFile with these names.
[[nodiscard]] inline bool qorFileRead(qorOpenFile* file, void* buffer, uint64 length, uint64* count) noexcept {
    return qor::glue::qorFileRead(file, buffer, length, count);
}
[[nodiscard]] inline bool qorFileReadExact(qorOpenFile* file, void* buffer, uint64 length) noexcept {
    return qor::glue::qorFileReadExact(file, buffer, length);
}
[[nodiscard]] inline bool qorFileReadAt(const qorOpenFile* file, uint64 offset, void* buffer, uint64 length) noexcept {
    return qor::glue::qorFileReadAt(file, offset, buffer, length);
}
[[nodiscard]] inline bool qorFileWrite(qorOpenFile* file, const void* bytes, uint64 length) noexcept {
    return qor::glue::qorFileWrite(file, bytes, length);
}
[[nodiscard]] inline bool qorFileWriteAt(const qorOpenFile* file, uint64 offset, const void* bytes,
                                         uint64 length) noexcept {
    return qor::glue::qorFileWriteAt(file, offset, bytes, length);
}
[[nodiscard]] inline bool qorFileSeek(qorOpenFile* file, int64 offset, qorFileOrigin origin) noexcept {
    return qor::glue::qorFileSeek(file, offset, origin);
}
inline uint64 qorFileTell(const qorOpenFile* file) noexcept { return qor::glue::qorFileTell(file); }
[[nodiscard]] inline bool qorFileFlush(const qorOpenFile* file, qorFlushTo where) noexcept {
    return qor::glue::qorFileFlush(file, where);
}
inline uint64 qorFileGetSize(const qorOpenFile* file) noexcept { return qor::glue::qorFileGetSize(file); }
[[nodiscard]] inline bool qorFileSetFileSize(const qorOpenFile* file, uint64 size) noexcept {
    return qor::glue::qorFileSetFileSize(file, size);
}
[[nodiscard]] inline bool qorFileGetFileInfo(const qorOpenFile* file, qorFileInfo& info) noexcept {
    return qor::glue::qorFileGetFileInfo(file, info);
}

// Gives a file this content, at once or not at all: a reader, a crash or a power failure finds the old content or the
// new one, never a part. The bytes go to a new file beside the old one and to the disk; then the new file takes the
// name. A link is followed: what it leads to is replaced. A missing file is created, in a folder that exists. Returns
// false on failure; the old content is then still there, unless the error comes from the very last step, the folder's
// way to the disk. Any thread.
[[nodiscard]] inline bool qorReplaceFile(const char* path, std::span<const std::byte> bytes,
                                         uint32 flags = qorReplaceUsual) noexcept {
    return qor::glue::qorReplaceFile(path, bytes.data(), bytes.size(), flags);
}
[[nodiscard]] inline bool qorReplaceFile(const char* path, std::string_view text,
                                         uint32 flags = qorReplaceUsual) noexcept {
    return qor::glue::qorReplaceFile(path, text.data(), text.size(), flags);
}

// The number of readable bytes behind the run that IQORSimpleFileReader::ReadLines returns.
inline constexpr uint32 qorReadLinesPadding = 64;

// Makes text of the bytes of a file, a decompressor for instance; IQORSimpleFileReader reads through it. The client
// implements and owns it.
class IQORFileFilter {
public:
    // Whether the file that begins with these bytes is one for this filter. They are as many as the system has handed
    // out at once, then more, as long as the answer is `undecided`; at the end of the file that counts as `no`.
    enum class answer : uint32 { no, yes, undecided };
    virtual answer IsFor(const char* beginning, uint64 size) noexcept = 0;

    // Makes text of the next bytes of the file, [*next, end), and stores it at *out, before `out_end`; moves both
    // pointers behind what it used. It has to use all of the bytes, or all of the room. `is_at_end`: no more bytes
    // follow, unless somebody is still writing the file: then the reader calls again with them. False: no more text
    // can be made, or the file ends too early; the last error says why. What was stored counts all the same.
    [[nodiscard]] virtual bool Convert(const char** next, const char* end, bool is_at_end, char** out,
                                       char* out_end) noexcept = 0;

protected:
    ~IQORFileFilter() = default;
};

// Reads a text file line by line. The last Release closes the file. Not thread-safe.
class IQORSimpleFileReader : public IQORInterface {
public:
    // Opens a file for reading and closes the one opened before. `flags` must be 0. Pipes and devices are accepted,
    // folders are not. Returns false on failure; the last error names the path and the reason.
    [[nodiscard]] virtual bool Open(const char* path, uint32 flags) noexcept = 0;

    // Reads the next line, of at most 256 MiB, without its end (LF or CR LF). Text behind the last line end counts as a
    // line. Returns false at the end of the file, at a line that is too long, or on a read error; the last two set the
    // last error. After a line that is too long, the next call reads the line that follows it. A read error is
    // permanent: the part of a line read before it is returned as a line, and every later call fails with the same
    // error.
    [[nodiscard]] virtual bool ReadLine(qorString& line) noexcept = 0;

    // Returns the next run of whole lines in place: *size bytes at *text, beginning with the next line. Every line ends
    // with '\n'; one is added to a last line without it. At least qorReadLinesPadding readable bytes follow, so that a
    // scan may read in blocks of that size. The text is valid until the next call of any operation. Returns false in
    // the same cases as ReadLine. For a line that is too long, the text is then its first 256 MiB, ended by '\n'; in
    // the other cases *size is 0.
    [[nodiscard]] virtual bool ReadLines(const char** text, uint64* size) noexcept = 0;

    // Sets a callback that the reading thread runs before it has to wait, because a pipe or a device has nothing to
    // read yet; a program can then write out pending output. Null removes it.
    virtual void SetBeforeWait(void (*tell)(void* context), void* context) noexcept = 0;

    // For a file that is not read yet: lines come from what the filter makes of the file, if it is one for it.
    // Otherwise they come from the file itself. The filter has to stay until the reader is destroyed or has opened
    // another file, which is read without it unless it is set again. A failure of the filter is a read error.
    virtual void SetFilter(IQORFileFilter* filter) noexcept = 0;

protected:
    ~IQORSimpleFileReader() = default;
};

// Creates a reader without an open file. Throws std::bad_alloc.
inline void create_IQORSimpleFileReader(IQORSimpleFileReader** out) {
    qor::glue::create_IQORSimpleFileReader(out);
    qor::glue::or_throw(*out);
}
