// The line reader: large blocks from the system, lines handed out of them.
#include "error/error.h"
#include "file/raw_file.h"
#include "memory/allocator.h"
#include "qor/system/template/Object.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

namespace {

constexpr char source[] = "qorcore/src/file/simple_file_reader";

// Large enough that the system call does not count, small enough to stay in the second-level cache.
constexpr std::size_t block_size = 256 * 1024;

// What has no line ends, a device for instance, must not take all memory.
constexpr std::size_t longest_line = std::size_t{256} << 20;

class simple_file_reader final : public qor::object<IQORSimpleFileReader> {
public:
    simple_file_reader() noexcept : object("qorcore.simple_file_reader", "IQORSimpleFileReader") {}

    ~simple_file_reader() override { qor::glue::qor_do_free(m_block, source, __LINE__); }

    bool Open(const char* path, uint32 flags) noexcept override {
        if (flags != 0) {
            qor::error::set(qorError_invalid_argument, {"IQORSimpleFileReader::Open", "flags"});
            return false;
        }
        m_next = m_lines_end = m_end = 0;
        m_path = path;
        if (const int reason = m_file.open(path, qor::file::raw_file::access::read)) {
            qor::error::set_with_reason(qorError_cannot_open_file, path, reason);
            return false;
        }
        return true;
    }

    bool ReadLine(qorString& line) noexcept override {
        if (m_next == m_lines_end && !load_lines("IQORSimpleFileReader::ReadLine"))
            return false;
        const char* const text = m_block + m_next;
        const char* end = static_cast<const char*>(std::memchr(text, '\n', m_lines_end - m_next));
        m_next = static_cast<std::size_t>(end - m_block) + 1;
        if (end != text && end[-1] == '\r' && !(m_ended_by_us && m_next == m_lines_end))
            --end;
        qor::glue::qorString_Set(&line, text, static_cast<uint32>(std::min<std::size_t>(static_cast<std::size_t>(end - text), 0xffffffff)));
        return true;
    }

    bool ReadLines(const char** text, uint64* size) noexcept override {
        if (m_next == m_lines_end && !load_lines("IQORSimpleFileReader::ReadLines"))
            return false;
        *text = m_block + m_next;
        *size = m_lines_end - m_next;
        m_next = m_lines_end;
        return true;
    }

private:
    // Reads until the block holds at least one whole line.
    bool load_lines(const char* operation) {
        if (!m_file.is_open()) {
            qor::error::set(qorError_not_open, {operation});
            return false;
        }
        // What follows the last whole line is the beginning of the next.
        m_end -= m_lines_end;
        if (m_end != 0)
            std::memmove(m_block, m_block + m_lines_end, m_end);
        m_next = m_lines_end = 0;
        for (;;) {
            if (m_end == longest_line) {
                qor::error::set(qorError_line_too_long, {m_path.c_str(), std::to_string(longest_line >> 20).c_str()});
                return false;
            }
            if (m_end == m_size)
                enlarge();
            std::size_t count = 0;
            // A huge line leaves a huge block behind; what comes next still goes through the cache.
            const std::size_t wanted = std::min(m_size - m_end, block_size);
            if (const int reason = m_file.read(m_block + m_end, wanted, &count))
                qor::error::set_with_reason(qorError_cannot_read_file, m_path.c_str(), reason);
            m_ended_by_us = count == 0;
            if (m_ended_by_us) {
                if (m_end == 0)
                    return false;
                // There is room: the padding follows.
                m_block[m_end++] = '\n';
                m_lines_end = m_end;
                return true;
            }
            const std::size_t last = std::string_view(m_block + m_end, count).rfind('\n');
            const std::size_t begin = m_end;
            m_end += count;
            if (last != std::string_view::npos) {
                m_lines_end = begin + last + 1;
                return true;
            }
        }
    }

    // A line longer than the block makes it grow.
    void enlarge() {
        const std::size_t wanted = m_size != 0 ? m_size * 2 : block_size;
        void* const moved = qor::glue::qor_do_realloc(m_block, wanted + 1 + qorReadLinesPadding, source, __LINE__);
        if (moved == nullptr)
            qor::memory::exhausted(wanted, source, __LINE__);
        m_block = static_cast<char*>(moved);
        m_size = wanted;
        std::memset(m_block + m_size, 0, 1 + qorReadLinesPadding);
    }

    qor::file::raw_file m_file;
    std::string m_path;
    char* m_block = nullptr;
    std::size_t m_size = 0;      // of the block, without room for a line end and the padding
    std::size_t m_next = 0;      // the next line to hand out
    std::size_t m_lines_end = 0; // behind the last whole line
    std::size_t m_end = 0;       // behind what was read
    bool m_ended_by_us = false;  // the last line end in the block is not in the file
};

} // namespace

void qor::glue::create_IQORSimpleFileReader(IQORSimpleFileReader** out) noexcept {
    *out = new (source, __LINE__) simple_file_reader;
}
