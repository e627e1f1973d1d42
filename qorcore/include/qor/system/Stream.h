// Where the stream forms of the framework's types go to and come from. Numbers are little-endian on the stream.
#pragma once

#include "qor/system/Interface.h"

class IQORDataSink : public IQORInterface {
public:
    // Writes all `size` bytes. False: the thread's last error says why; how much was written is not known.
    virtual bool Write(const void* bytes, uint32 size) noexcept = 0;

protected:
    ~IQORDataSink() = default;
};

class IQORDataSource : public IQORInterface {
public:
    // Reads exactly `size` bytes. False at the end of the data, or on an error, which is the thread's last error.
    virtual bool Read(void* bytes, uint32 size) noexcept = 0;

protected:
    ~IQORDataSource() = default;
};
