// Files: a file object for reads at any position, and a line reader.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/Memory.h"
#include "qor/system/String.h"

// Flags for opening a file, combined with `|`. So far the only valid combination is all three (21): read an existing
// file that others may write at the same time. A mode converts to the number that Open takes.
enum qorFileMode : uint32 {
    qorFileReading = 1,
    qorFileExisting = 4,
    qorFileShared = 16,
};

// Combines two flags.
constexpr qorFileMode operator|(qorFileMode left, qorFileMode right) noexcept {
    return static_cast<qorFileMode>(uint32{left} | uint32{right});
}

// A file on a disk that can be read at any position. The destructor closes the file. Operations that fail set the last
// error, which names the path. Only one thread may open and close it; several threads may read at once.
class qorFile {
public:
    qorFile() noexcept { qor::glue::qorFile_Init(this); }
    qorFile(const qorFile&) = delete;
    qorFile& operator=(const qorFile&) = delete;
    ~qorFile() { qor::glue::qorFile_Destroy(this); }

    // Opens a file and closes the one opened before. Folders, pipes and devices are refused. Opening never blocks.
    // Returns false on failure (last error).
    [[nodiscard]] bool Open(const char* path, uint32 mode) noexcept {
        return qor::glue::qorFile_Open(this, path, mode);
    }
    void Close() noexcept { qor::glue::qorFile_Close(this); }

    // The current size in bytes, or 0 if it is unknown.
    uint64 GetSize() const noexcept { return qor::glue::qorFile_GetSize(this); }

    // Reads exactly `length` bytes at `offset`. Returns false if the file ends before that or cannot be read (last
    // error); the content of the buffer is then undefined.
    [[nodiscard]] bool ReadAt(uint64 offset, void* buffer, uint32 length) const noexcept {
        return qor::glue::qorFile_ReadAt(this, offset, buffer, length);
    }

    // Part of the contract.
    struct {
        void* file; // the library's; null is closed
    } m_data;
};

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
