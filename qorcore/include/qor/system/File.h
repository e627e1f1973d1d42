// Files: the file object with positioned reads, and the line reader.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/Memory.h"
#include "qor/system/String.h"

// The ways to open a file, to be combined with `|`. Reading a file that is there, while others may write to it, is 21:
// all three, and the only combination so far. A mode converts to the number that Open takes.
enum qorFileMode : uint32 {
    qorFileReading = 1,
    qorFileExisting = 4,
    qorFileShared = 16,
};

// Both ways together.
constexpr qorFileMode operator|(qorFileMode left, qorFileMode right) noexcept {
    return static_cast<qorFileMode>(uint32{left} | uint32{right});
}

// A file on a disk, read from any place in it. The object closes its file when it is destroyed. Operations that fail
// set the thread's last error, which names the path. Opening and closing belong to one thread; reads may run on
// several.
class qorFile {
public:
    qorFile() noexcept { qor::glue::qorFile_Init(this); }
    qorFile(const qorFile&) = delete;
    qorFile& operator=(const qorFile&) = delete;
    ~qorFile() { qor::glue::qorFile_Destroy(this); }

    // Opens a file in place of one that may be open already. Folders, pipes and devices cannot be opened, and opening
    // never waits.
    [[nodiscard]] bool Open(const char* path, uint32 mode) noexcept {
        return qor::glue::qorFile_Open(this, path, mode);
    }
    void Close() noexcept { qor::glue::qorFile_Close(this); }

    // In bytes, as it is now. 0 where it cannot be told.
    uint64 GetSize() const noexcept { return qor::glue::qorFile_GetSize(this); }

    // Reads exactly `length` bytes at `offset`. False if the file ends before them: what the buffer holds is then
    // undefined.
    [[nodiscard]] bool ReadAt(uint64 offset, void* buffer, uint32 length) const noexcept {
        return qor::glue::qorFile_ReadAt(this, offset, buffer, length);
    }

    // Part of the contract.
    struct {
        void* file; // the library's; null is closed
    } m_data;
};

// The readable bytes behind what IQORSimpleFileReader::ReadLines hands out.
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
    // Opens a file for reading, in place of one that may be open already. `flags` must be 0. Pipes and devices will
    // do, a folder will not. False: the last error names the path and the reason.
    [[nodiscard]] virtual bool Open(const char* path, uint32 flags) noexcept = 0;

    // Reads the next line, of at most 256 MiB, without its end (LF or CR LF); what follows the last line end is a line
    // too unless it is empty. False at the end of the file, at a longer line, or on a read error; the last two are
    // then the last error. Behind a longer line the next call goes on. After a read error none does: what had come of a
    // line is handed out as a line, and every call after that is false with the same error.
    [[nodiscard]] virtual bool ReadLine(qorString& line) noexcept = 0;

    // Hands out the next run of whole lines in place: *size bytes at *text, the next line first. Every line ends with
    // its '\n'; a last line that has none is given one. At least qorReadLinesPadding readable bytes follow, so that
    // a scan may look at blocks of so many. The text is valid until the next call of any operation. False as for
    // ReadLine: at a longer line with its first 256 MiB, ended in the same way, else with *size 0.
    [[nodiscard]] virtual bool ReadLines(const char** text, uint64* size) noexcept = 0;

    // From now on tell(context) is called, by the thread that reads, before it has to wait because a pipe or a device
    // has nothing to read yet: whoever has something to show shows it then. Null ends that.
    virtual void SetBeforeWait(void (*tell)(void* context), void* context) noexcept = 0;

    // For a file that is not read yet: lines come from what the filter makes of the file, if it is one for it.
    // Otherwise they come from the file itself. The filter has to stay until the reader is destroyed or has opened
    // another file, which is read without it unless it is set again. A failure of the filter is a read error.
    virtual void SetFilter(IQORFileFilter* filter) noexcept = 0;

protected:
    ~IQORSimpleFileReader() = default;
};

// A new object without a file. Throws std::bad_alloc.
inline void create_IQORSimpleFileReader(IQORSimpleFileReader** out) {
    qor::glue::create_IQORSimpleFileReader(out);
    qor::glue::or_throw(*out);
}
