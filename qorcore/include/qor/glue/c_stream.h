// C streams of a client, in the form in which they cross the table: as a sink or a source that the client's own code
// makes. The `FILE` of one C run-time means nothing to another, and on Windows client and library may have different
// ones: msvcrt, ucrt, or one that is linked statically.
#pragma once

#include "qor/glue/primitives.h"
#include "qor/system/Stream.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

// A C stream that is written. What fails sets no last error: GetFailure tells the reason.
class IQORStreamSink : public IQORDataSink {
public:
    // Returns the terminal behind the stream: its descriptor, or the handle of a console; -1 without one.
    virtual int64 GetTerminal() noexcept = 0;
    // Writes out what the stream has in its buffer; for standard error, that of standard output first.
    virtual bool Flush() noexcept = 0;
    // Between these two, other threads wait with what they do to the stream.
    virtual void Lock() noexcept = 0;
    virtual void Unlock() noexcept = 0;
    // The system's code for the operation of the stream that has failed last on this thread.
    virtual int32 GetFailure() noexcept = 0;

protected:
    ~IQORStreamSink() = default;
};

// A C stream that is read. What fails sets no last error: GetFailure tells the reason.
class IQORStreamSource : public IQORDataSource {
public:
    // Reads up to `size` bytes, and stops behind a newline. *count is less otherwise only at the end, or on a failure,
    // which returns false.
    [[nodiscard]] virtual bool ReadLine(char* bytes, uint32 size, uint32* count) noexcept = 0;
    // Returns the handle of the console behind the stream; -1 if the lines come from the stream itself.
    virtual int64 GetTerminal() noexcept = 0;
    // Like those of IQORStreamSink.
    virtual void Lock() noexcept = 0;
    virtual void Unlock() noexcept = 0;
    virtual int32 GetFailure() noexcept = 0;

protected:
    ~IQORStreamSource() = default;
};

namespace qor::glue {

// The operations that both have. Objects live on the stack of the caller; references are not counted.
template <class OFFERED>
class c_stream : public OFFERED {
public:
    void AddRef() noexcept override {}
    void Release() noexcept override {}
    int QueryInterface(const char* name, void** out) noexcept override {
        if (std::strcmp(name, "IQORInterface") != 0)
            return 0;
        *out = static_cast<OFFERED*>(this);
        return 1;
    }
    void Lock() noexcept override { lock_stream(m_stream); }
    void Unlock() noexcept override { unlock_stream(m_stream); }
    int32 GetFailure() noexcept override { return stream_failure(); }

protected:
    explicit c_stream(std::FILE* stream) noexcept : m_stream(stream) {}
    ~c_stream() = default;

    std::FILE* m_stream;
};

// Passes text on in one piece. Before standard error it flushes standard output, so that both stay in order if they go
// to the same place.
class stream_sink final : public c_stream<IQORStreamSink> {
public:
    explicit stream_sink(std::FILE* stream) noexcept : c_stream(stream) {}

    bool Write(const void* bytes, uint32 size) noexcept override {
        keep_order();
        return std::fwrite(bytes, 1, size, m_stream) == size;
    }
    bool Flush() noexcept override {
        keep_order();
        return std::fflush(m_stream) == 0;
    }
    int64 GetTerminal() noexcept override { return stream_terminal(m_stream); }

private:
    void keep_order() noexcept {
        if (m_stream == stderr)
            flush_standard_output();
    }
};

// Gives lines. No copy of them stays here: they may be passwords.
class stream_source final : public c_stream<IQORStreamSource> {
public:
    explicit stream_source(std::FILE* stream) noexcept : c_stream(stream) {}

    bool Read(void* bytes, uint32 size) noexcept override { return std::fread(bytes, 1, size, m_stream) == size; }
    int64 GetTerminal() noexcept override { return input_terminal(m_stream); }

    bool ReadLine(char* bytes, uint32 size, uint32* count) noexcept override {
        uint32 used = 0;
        while (used != size) {
            const int byte = std::getc(m_stream);
            if (byte != EOF) {
                bytes[used++] = static_cast<char>(byte);
                if (byte == '\n')
                    break;
            } else if (std::feof(m_stream) || !std::ferror(m_stream) || errno != EINTR) {
                break;
            } else {
                std::clearerr(m_stream); // a signal handler interrupted the read, which is not the end of the stream
            }
        }
        *count = used;
        return used == size || (used != 0 && bytes[used - 1] == '\n') || std::feof(m_stream) != 0;
    }
};

} // namespace qor::glue
