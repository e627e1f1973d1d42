// Files. The line reader is the first of the family.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/String.h"

// Reads a text file line by line. The last Release closes the file. Not thread-safe.
class IQORSimpleFileReader : public IQORInterface {
public:
    // Opens a file for reading, in place of one that may be open already. `flags` must be 0. Pipes and devices will
    // do, a folder will not. False: the last error names the path and the reason.
    virtual bool Open(const char* path, uint32 flags) noexcept = 0;

    // Reads the next line, of any length, without its end (LF or CR LF); what follows the last line end is a line
    // too unless it is empty. False at the end of the file or on a read error, which is then the last error.
    virtual bool ReadLine(qorString& line) noexcept = 0;

protected:
    ~IQORSimpleFileReader() = default;
};

inline void create_IQORSimpleFileReader(IQORSimpleFileReader** out) noexcept {
    qor::glue::create_IQORSimpleFileReader(out);
}
