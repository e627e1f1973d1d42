// The line reader: reads large blocks from the system and hands out lines from them.
#include "error/error.h"
#include "memory/allocator.h"
#include "platform/raw_file.h"
#include "qor/system/template/Object.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr char source[] = "qorcore/src/file/simple_file_reader";

// Large enough to make the system calls cheap, small enough to stay in the second-level cache.
constexpr std::size_t block_size = 256 * 1024;

// A source without line ends, such as a device, must not use up all memory.
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
        m_is_cut = false;
        m_failed = 0;
        m_filter = nullptr;
        m_is_filtered = false;
        m_path = path;
        if (const int reason = m_file.open(path, qor::platform::raw_file::access::read)) {
            qor::error::set_with_reason(qorError_cannot_open_file, path, reason);
            return false;
        }
        return true;
    }

    bool ReadLine(qorString& line) noexcept override {
        if (m_next == m_lines_end && !load_lines("IQORSimpleFileReader::ReadLine")) {
            m_next = m_lines_end;
            return false;
        }
        const char* const text = m_block + m_next;
        const char* end = static_cast<const char*>(std::memchr(text, '\n', m_lines_end - m_next));
        m_next = static_cast<std::size_t>(end - m_block) + 1;
        if (end != text && end[-1] == '\r' && !(m_ended_by_us && m_next == m_lines_end))
            --end;
        qor::glue::qorString_Set(
            &line, text, static_cast<uint32>(std::min<std::size_t>(static_cast<std::size_t>(end - text), 0xffffffff)));
        return true;
    }

    bool ReadLines(const char** text, uint64* size) noexcept override {
        const bool are_whole = m_next != m_lines_end || load_lines("IQORSimpleFileReader::ReadLines");
        *text = m_block + m_next;
        *size = m_lines_end - m_next;
        m_next = m_lines_end;
        return are_whole;
    }

    void SetBeforeWait(void (*tell)(void* context), void* context) noexcept override {
        m_before_wait = tell;
        m_context = context;
    }

    void SetFilter(IQORFileFilter* filter) noexcept override { m_filter = filter; }

private:
    // Reads until the block holds at least one whole line. Returns false if there is none; the block then holds
    // nothing, or the beginning of a line that is too long.
    bool load_lines(const char* operation) {
        if (!m_file.is_open()) {
            qor::error::set(qorError_not_open, {operation});
            return false;
        }
        if (m_is_cut && !skip_rest_of_line())
            return false;
        if (m_next != m_lines_end)
            return true;
        // The bytes behind the last whole line are the beginning of the next line.
        m_end -= m_lines_end;
        if (m_end != 0)
            std::memmove(m_block, m_block + m_lines_end, m_end);
        m_next = m_lines_end = 0;
        for (;;) {
            const std::size_t count = read_more();
            m_ended_by_us = count == 0;
            if (m_ended_by_us) {
                if (m_end == 0)
                    return false;
                // There is room in front of the padding.
                m_block[m_end++] = '\n';
                m_lines_end = m_end;
                return true;
            }
            const std::size_t begin = m_end - count;
            if (const std::size_t last = std::string_view(m_block + begin, count).rfind('\n');
                last != std::string_view::npos) {
                m_lines_end = begin + last + 1;
                return true;
            }
            if (m_end > longest_line) {
                cut_line();
                return false;
            }
        }
    }

    // Replaces the last byte of a line that is too long by a line end.
    void cut_line() {
        m_is_cut = true;
        m_block[m_end - 1] = '\n';
        m_lines_end = m_end;
        qor::error::set(qorError_line_too_long, {m_path.c_str(), std::to_string(longest_line >> 20).c_str()});
    }

    // Frees the memory of the cut line and skips the rest of it. Returns false if the file ends first.
    bool skip_rest_of_line() {
        qor::glue::qor_do_free(m_block, source, __LINE__);
        m_block = nullptr;
        m_size = 0;
        const void* end;
        do {
            m_next = m_lines_end = m_end = 0;
            if (read_more() == 0)
                return false;
            end = std::memchr(m_block, '\n', m_end);
        } while (end == nullptr);
        m_is_cut = false;
        m_next = static_cast<std::size_t>(static_cast<const char*>(end) - m_block) + 1;
        m_lines_end = std::string_view(m_block, m_end).rfind('\n') + 1;
        return true;
    }

    // Reads more text to the end of the block and returns the number of bytes. Returns 0 at the end of the file or on a
    // read error. After an error nothing more is read, because some bytes would be missing.
    std::size_t read_more() {
        if (m_failed != 0) {
            qor::error::set_with_reason(qorError_cannot_read_file, m_path.c_str(), m_failed);
            return 0;
        }
        if (m_end == m_size && m_size != longest_line)
            enlarge();
        // A huge line leaves a huge block behind; small reads still go through the cache. When a line has reached the
        // maximum length, one more byte is read, which may be its line end; there is room for it.
        const std::size_t wanted = std::clamp<std::size_t>(m_size - m_end, 1, block_size);
        char* const out = m_block + m_end;
        std::size_t count = m_is_filtered ? convert(out, wanted) : read_file(out, wanted);
        m_end += count;
        if (m_filter != nullptr && !m_is_filtered && is_for_filter(count == 0)) {
            m_raw.resize(block_size);
            std::memcpy(m_raw.data(), m_block, m_end);
            m_raw_next = m_raw.data();
            m_raw_end = m_raw_next + m_end;
            m_is_filtered = true;
            m_end = count = convert(m_block, block_size);
        }
        return count;
    }

    std::size_t read_file(char* out, std::size_t wanted) {
        if (m_before_wait != nullptr && m_file.has_to_wait())
            m_before_wait(m_context);
        std::size_t count = 0;
        m_failed = m_file.read(out, wanted, &count);
        if (m_failed != 0)
            qor::error::set_with_reason(qorError_cannot_read_file, m_path.c_str(), m_failed);
        return count;
    }

    // Asked as long as the block holds the beginning of the file and nothing has been handed out. What is undecided
    // holds no line end, or else a pipe would have to be waited for that has given a whole line.
    bool is_for_filter(bool is_at_end) {
        if (m_end == 0)
            return false;
        const IQORFileFilter::answer found = is_at_end ? IQORFileFilter::answer::no : m_filter->IsFor(m_block, m_end);
        if (found == IQORFileFilter::answer::no)
            m_filter = nullptr;
        return found == IQORFileFilter::answer::yes;
    }

    // Text that the filter makes of the file.
    std::size_t convert(char* out, std::size_t wanted) {
        char* next = out;
        for (;;) {
            const bool is_good = m_filter->Convert(&m_raw_next, m_raw_end, false, &next, out + wanted);
            if (!is_good || next != out)
                break;
            const std::size_t count = read_file(m_raw.data(), m_raw.size());
            m_raw_next = m_raw.data();
            m_raw_end = m_raw_next + count;
            if (count != 0)
                continue;
            if (m_failed == 0)
                (void)m_filter->Convert(&m_raw_next, m_raw_end, true, &next, out + wanted);
            break;
        }
        return static_cast<std::size_t>(next - out);
    }

    // Makes room for a line that is longer than the block.
    void enlarge() {
        const std::size_t wanted = m_size != 0 ? m_size * 2 : block_size;
        void* const moved = qor::glue::qor_do_realloc(m_block, wanted + 1 + qorReadLinesPadding, source, __LINE__);
        if (moved == nullptr)
            qor::memory::exhausted(wanted, source, __LINE__);
        m_block = static_cast<char*>(moved);
        m_size = wanted;
        std::memset(m_block + m_size, 0, 1 + qorReadLinesPadding);
    }

    qor::platform::raw_file m_file;
    std::string m_path;
    char* m_block = nullptr;
    std::size_t m_size = 0;      // of the block, without the room for a line end and the padding
    std::size_t m_next = 0;      // the next line to hand out
    std::size_t m_lines_end = 0; // behind the last whole line
    std::size_t m_end = 0;       // behind what was read
    bool m_ended_by_us = false;  // the last line end in the block is not in the file
    bool m_is_cut = false;       // the block holds the beginning of a line that is too long, with an added line end
    int m_failed = 0;            // the system's error code of a read; 0: no error
    void (*m_before_wait)(void*) = nullptr;
    void* m_context = nullptr;
    IQORFileFilter* m_filter = nullptr; // null: the file is text
    bool m_is_filtered = false;         // the file is one for the filter
    std::vector<char> m_raw;            // bytes of such a file
    const char* m_raw_next = nullptr;   // what the filter has not used
    const char* m_raw_end = nullptr;
};

} // namespace

void qor::glue::create_IQORSimpleFileReader(IQORSimpleFileReader** out) noexcept {
    *out = nullptr;
    memory::make<simple_file_reader>(source, __LINE__, out);
}
