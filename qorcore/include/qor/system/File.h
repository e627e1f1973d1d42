// Files. The line reader is the first of the family.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/String.h"

inline constexpr uint32 qorReadLinesPadding = 64;

// Reads a text file line by line. The last Release closes the file. Not thread-safe.
class IQORSimpleFileReader : public IQORInterface {
public:
    // Opens a file for reading, in place of one that may be open already. `flags` must be 0. Pipes and devices will
    // do, a folder will not. False: the last error names the path and the reason.
    virtual bool Open(const char* path, uint32 flags) noexcept = 0;

    // Reads the next line, of any length, without its end (LF or CR LF); what follows the last line end is a line
    // too unless it is empty. False at the end of the file or on a read error, which is then the last error.
    virtual bool ReadLine(qorString& line) noexcept = 0;

    // Hands out the next run of whole lines in place: *size bytes at *text, the next line first. Every line ends with
    // its '\n'; a last line that has none is given one. At least qorReadLinesPadding readable bytes follow, so that
    // a scan may look at blocks of so many. The text is valid until the next call of any operation. False as for
    // ReadLine.
    virtual bool ReadLines(const char** text, uint64* size) noexcept = 0;

protected:
    ~IQORSimpleFileReader() = default;
};

inline void create_IQORSimpleFileReader(IQORSimpleFileReader** out) noexcept {
    qor::glue::create_IQORSimpleFileReader(out);
}
