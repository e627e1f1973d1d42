// The line reader: large blocks from the system, lines cut out of them.
#include "error/error.h"
#include "file/raw_file.h"
#include "object.h"

#include <cstring>
#include <memory>
#include <string>

namespace {

// Large enough that the system call does not count, small enough to stay in the second-level cache.
constexpr std::size_t block_size = 256 * 1024;

class simple_file_reader final : public qor::object<IQORSimpleFileReader> {
public:
    simple_file_reader() noexcept : object("qorcore.simple_file_reader", "IQORSimpleFileReader") {}

    bool Open(const char* path, uint32 flags) noexcept override {
        if (flags != 0) {
            qor::error::set(qorError_invalid_argument, {"IQORSimpleFileReader::Open", "flags"});
            return false;
        }
        m_begin = m_end = 0;
        m_path = path;
        if (const int reason = m_file.open(path, qor::file::raw_file::access::read)) {
            qor::error::set_with_reason(qorError_cannot_open_file, path, reason);
            return false;
        }
        return true;
    }

    bool ReadLine(qorString& line) noexcept override {
        if (!m_file.is_open()) {
            qor::error::set(qorError_not_open, {"IQORSimpleFileReader::ReadLine"});
            return false;
        }
        // A line usually lies whole in the block and is copied once.
        bool whole = true;
        for (;;) {
            const char* const text = m_block.get() + m_begin;
            const std::size_t available = m_end - m_begin;
            if (const void* const found = available != 0 ? std::memchr(text, '\n', available) : nullptr) {
                const std::size_t length = static_cast<std::size_t>(static_cast<const char*>(found) - text);
                take(line, text, length, whole);
                m_begin += length + 1;
                cut_carriage_return(line);
                return true;
            }
            if (available != 0) {
                take(line, text, available, whole);
                whole = false;
            }
            if (!fill())
                return !whole;
        }
    }

private:
    static void take(qorString& line, const char* text, std::size_t length, bool whole) noexcept {
        if (whole)
            line.Set(text, static_cast<int32>(length));
        else
            line.Append(text, static_cast<int32>(length));
    }

    static void cut_carriage_return(qorString& line) noexcept {
        const uint32 length = line.Length();
        if (length != 0 && line.Text()[length - 1] == '\r')
            line.Remove(length - 1, 1);
    }

    bool fill() noexcept {
        if (m_block == nullptr)
            m_block = std::make_unique<char[]>(block_size);
        m_begin = m_end = 0;
        if (const int reason = m_file.read(m_block.get(), block_size, &m_end)) {
            qor::error::set_with_reason(qorError_cannot_read_file, m_path.c_str(), reason);
            return false;
        }
        return m_end != 0;
    }

    qor::file::raw_file m_file;
    std::string m_path;
    std::unique_ptr<char[]> m_block;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
};

} // namespace

void qor::glue::create_IQORSimpleFileReader(IQORSimpleFileReader** out) noexcept {
    *out = new ("qorcore/src/file/simple_file_reader", __LINE__) simple_file_reader;
}
