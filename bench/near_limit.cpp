// A replay of an mtrace log that does only the necessary work: the reference of replay.py.
//
//   near_limit LOG
//
// Reads large blocks, finds lines with memchr, reads hexadecimal digits by hand, keeps live blocks in a hash table with
// open addressing, which it prefetches some lines ahead, and stores each caller once. It trusts the log: lines are as
// the C library writes them, and an address is live once at a time. It has no trace, no progress and no fixed order of
// the report. Its output has lines like those of qortool, so that both write the same amount.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr std::size_t kBlockSize = 256 * 1024;
constexpr std::uint64_t kMultiplier = 0x9e3779b97f4a7c15; // 2^64 / golden ratio

struct Live {
    std::uint64_t address; // 0: free
    std::uint32_t size;
    std::uint32_t caller;
};

// Linear probing. A removed entry is filled from behind, so there are no tombstones.
class LiveTable {
public:
    void add(const Live& block) {
        if (++m_used * 2 > m_cells.size())
            enlarge();
        put(block);
    }

    void prefetch(std::uint64_t address) const { __builtin_prefetch(&m_cells[home(address)]); }

    bool remove(std::uint64_t address) {
        std::size_t at = home(address);
        while (m_cells[at].address != address) {
            if (m_cells[at].address == 0)
                return false;
            at = (at + 1) & m_mask;
        }
        for (std::size_t next = at;;) {
            next = (next + 1) & m_mask;
            if (m_cells[next].address == 0)
                break;
            if (((next - home(m_cells[next].address)) & m_mask) >= ((next - at) & m_mask)) {
                m_cells[at] = m_cells[next];
                at = next;
            }
        }
        m_cells[at].address = 0;
        --m_used;
        return true;
    }

    template <class VISIT>
    void walk(VISIT visit) const {
        for (const Live& cell : m_cells)
            if (cell.address != 0)
                visit(cell);
    }

private:
    std::size_t home(std::uint64_t address) const { return (address * kMultiplier) >> m_shift; }

    void put(const Live& block) {
        std::size_t at = home(block.address);
        while (m_cells[at].address != 0)
            at = (at + 1) & m_mask;
        m_cells[at] = block;
    }

    void enlarge() {
        const std::vector<Live> old = std::exchange(m_cells, std::vector<Live>(m_cells.size() * 2));
        m_mask = m_cells.size() - 1;
        --m_shift;
        for (const Live& cell : old)
            if (cell.address != 0)
                put(cell);
    }

    std::vector<Live> m_cells = std::vector<Live>(1 << 12);
    std::size_t m_mask = m_cells.size() - 1;
    int m_shift = 64 - 12;
    std::size_t m_used = 0;
};

class Callers {
public:
    std::uint32_t number_of(const char* text, std::size_t size) {
        const std::uint64_t hash = hash_of(text, size);
        std::size_t at = hash & m_mask;
        for (; m_cells[at].number != 0; at = (at + 1) & m_mask)
            if (m_cells[at].hash == hash) {
                const std::string& known = m_texts[m_cells[at].number];
                if (known.size() == size && std::memcmp(known.data(), text, size) == 0)
                    return m_cells[at].number;
            }
        const auto number = static_cast<std::uint32_t>(m_texts.size());
        m_texts.emplace_back(text, size);
        m_cells[at] = {hash, number};
        if (m_texts.size() * 2 > m_cells.size())
            enlarge();
        return number;
    }

    const std::string& text(std::uint32_t number) const { return m_texts[number]; }

private:
    struct Cell {
        std::uint64_t hash;
        std::uint32_t number; // 0: free
    };

    static std::uint64_t hash_of(const char* text, std::size_t size) {
        std::uint64_t hash = size;
        std::uint64_t word;
        for (; size >= 8; text += 8, size -= 8) {
            std::memcpy(&word, text, 8);
            hash = (hash ^ word) * kMultiplier;
            hash ^= hash >> 32;
        }
        // The block is padded; bytes after the text are masked out.
        std::memcpy(&word, text, 8);
        hash = (hash ^ (word & ((std::uint64_t{1} << (size * 8)) - 1))) * kMultiplier;
        return hash ^ (hash >> 32);
    }

    void enlarge() {
        const std::vector<Cell> old = std::exchange(m_cells, std::vector<Cell>(m_cells.size() * 2));
        m_mask = m_cells.size() - 1;
        for (const Cell& cell : old)
            if (cell.number != 0) {
                std::size_t at = cell.hash & m_mask;
                while (m_cells[at].number != 0)
                    at = (at + 1) & m_mask;
                m_cells[at] = cell;
            }
    }

    std::vector<std::string> m_texts = std::vector<std::string>(1);
    std::vector<Cell> m_cells = std::vector<Cell>(1 << 14);
    std::size_t m_mask = m_cells.size() - 1;
};

// Reads digits up to the first other byte.
std::uint64_t hexadecimal(const char*& at) {
    if (at[0] == '0' && at[1] == 'x')
        at += 2;
    std::uint64_t value = 0;
    for (;; ++at) {
        const unsigned digit = static_cast<unsigned char>(*at) - unsigned{'0'};
        const unsigned letter = (static_cast<unsigned char>(*at) | 0x20u) - unsigned{'a'};
        if (digit < 10)
            value = value << 4 | digit;
        else if (letter < 6)
            value = value << 4 | (letter + 10);
        else
            return value;
    }
}

class Writer {
public:
    ~Writer() { flush(); }

    void text(const char* bytes, std::size_t size) {
        if (size > sizeof m_bytes - m_used)
            flush();
        std::memcpy(m_bytes + m_used, bytes, size);
        m_used += size;
    }
    void text(const char* bytes) { text(bytes, std::strlen(bytes)); }

    void number(std::uint64_t value, unsigned base) {
        char digits[24];
        char* at = digits + sizeof digits;
        do
            *--at = "0123456789abcdef"[value % base];
        while ((value /= base) != 0);
        text(at, static_cast<std::size_t>(digits + sizeof digits - at));
    }

private:
    void flush() {
        if (write(STDOUT_FILENO, m_bytes, m_used) != static_cast<ssize_t>(m_used))
            std::exit(1);
        m_used = 0;
    }

    char m_bytes[64 * 1024];
    std::size_t m_used = 0;
};

class Replay {
public:
    void line(const char* text, const char* end) {
        if (text[0] != '@')
            return;
        const char* const caller = text + 2;
        const char* at = static_cast<const char*>(std::memchr(caller, ' ', static_cast<std::size_t>(end - caller)));
        const auto caller_size = static_cast<std::size_t>(at - caller);
        const char code = at[1];
        at += 3;
        Live& next = m_ahead[m_ahead_count++];
        next.address = hexadecimal(at);
        next.caller = 0;
        m_live.prefetch(next.address);
        if (code == '+' || code == '>') {
            ++at;
            next.size = static_cast<std::uint32_t>(hexadecimal(at));
            next.caller = m_callers.number_of(caller, caller_size);
        }
        if (m_ahead_count == kAhead)
            work_off();
    }

    void work_off() {
        for (std::size_t i = 0; i < m_ahead_count; ++i) {
            const Live& next = m_ahead[i];
            if (next.caller != 0) {
                m_live.add(next);
            } else if (!m_live.remove(next.address)) {
                m_out.text("BAD FREE at 0x");
                m_out.number(next.address, 16);
                m_out.text(" (not allocated)\n");
            }
        }
        m_ahead_count = 0;
    }

    void report() {
        work_off();
        std::uint64_t count = 0;
        std::uint64_t total = 0;
        m_live.walk([&](const Live& block) {
            m_out.text("LEAK at 0x");
            m_out.number(block.address, 16);
            m_out.text(" size ");
            m_out.number(block.size, 10);
            m_out.text(" type 0 caller [");
            const std::string& caller = m_callers.text(block.caller);
            m_out.text(caller.data(), caller.size());
            m_out.text("] type_name [] file [] line 0\n");
            ++count;
            total += block.size;
        });
        m_out.text("Leaked ");
        m_out.number(count, 10);
        m_out.text(" objects totalling ");
        m_out.number(total, 10);
        m_out.text(" bytes\n");
    }

private:
    static constexpr std::size_t kAhead = 64;

    Live m_ahead[kAhead]; // caller 0: a release
    std::size_t m_ahead_count = 0;
    LiveTable m_live;
    Callers m_callers;
    Writer m_out;
};

} // namespace

int main(int argc, char** argv) {
    const int file = argc == 2 ? open(argv[1], O_RDONLY) : -1;
    if (file < 0) {
        std::fprintf(stderr, "usage: %s LOG\n", argv[0]);
        return 2;
    }
    const auto replay = std::make_unique<Replay>();
    std::vector<char> block(kBlockSize + 64);
    std::size_t held = 0;
    for (ssize_t got; (got = read(file, block.data() + held, kBlockSize - held)) > 0;) {
        const char* line = block.data();
        const char* const end = line + held + got;
        while (const void* const found = std::memchr(line, '\n', static_cast<std::size_t>(end - line))) {
            const char* const line_end = static_cast<const char*>(found);
            replay->line(line, line_end);
            line = line_end + 1;
        }
        held = static_cast<std::size_t>(end - line);
        std::memmove(block.data(), line, held);
    }
    replay->report();
    return 0;
}
