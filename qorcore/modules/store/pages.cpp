#include "pages.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t log_header_size = 32;
constexpr std::size_t frame_header_size = 24;

// The sums that the log keeps of its content. `is_big` is the order of the bytes in a word.
struct log_sums {
    uint32 first = 0;
    uint32 second = 0;

    void add(std::span<const unsigned char> bytes, bool is_big) noexcept {
        const auto word = [&](std::size_t at) {
            const unsigned char* const b = bytes.data() + at;
            return is_big ? store::read_32(b)
                          : uint32{b[3]} << 24 | uint32{b[2]} << 16 | uint32{b[1]} << 8 | uint32{b[0]};
        };
        for (std::size_t at = 0; at + 8 <= bytes.size(); at += 8) {
            first += word(at) + second;
            second += word(at + 4) + first;
        }
    }
    bool are(const unsigned char* stored) const noexcept {
        return store::read_32(stored) == first && store::read_32(stored + 4) == second;
    }
};

} // namespace

namespace store {

// ---- files

raw_file::~raw_file() {
    if (m_file != nullptr && m_file->pMethods != nullptr)
        m_file->pMethods->xClose(m_file);
    sqlite3_free_filename(m_name);
}

int raw_file::open(const std::string& path, int kind) {
    sqlite3_vfs* const system = sqlite3_vfs_find(file_system);
    if (system == nullptr)
        return SQLITE_ERROR;
    // The name goes with those of the files beside it, in one block.
    std::string full(static_cast<std::size_t>(system->mxPathname) + 1, '\0');
    if (const int result =
            system->xFullPathname(system, name_in_sqlite(path).c_str(), system->mxPathname + 1, full.data());
        (result & 0xff) != SQLITE_OK)
        return result;
    full.resize(std::strlen(full.c_str()));
    m_name = sqlite3_create_filename(full.c_str(), (full + "-journal").c_str(), (full + "-wal").c_str(), 0, nullptr);
    if (m_name == nullptr)
        return SQLITE_NOMEM;
    m_memory = std::make_unique<unsigned char[]>(static_cast<std::size_t>(system->szOsFile));
    m_file = reinterpret_cast<sqlite3_file*>(m_memory.get());
    const char* const name = kind == SQLITE_OPEN_WAL ? sqlite3_filename_wal(m_name) : m_name;
    return system->xOpen(system, name, m_file, kind | SQLITE_OPEN_READONLY, nullptr);
}

uint64 raw_file::size() noexcept {
    sqlite3_int64 found = 0;
    return m_file->pMethods->xFileSize(m_file, &found) == SQLITE_OK && found > 0 ? static_cast<uint64>(found) : 0;
}

bool raw_file::read(uint64 offset, std::span<unsigned char> out) noexcept {
    const int result =
        m_file->pMethods->xRead(m_file, out.data(), static_cast<int>(out.size()), static_cast<sqlite3_int64>(offset));
    if (result != SQLITE_OK && result != SQLITE_IOERR_SHORT_READ)
        std::fill(out.begin(), out.end(), 0);
    return result == SQLITE_OK;
}

bool page_file::open(const std::string& path) {
    if (const int result = m_main.open(path, SQLITE_OPEN_MAIN_DB); result != SQLITE_OK) {
        qorSetLastError(qorError_cannot_open_file, path.c_str(), sqlite3_errstr(result));
        return false;
    }
    constexpr uint64 most_pages = 0xfffffffe;
    m_count = static_cast<uint32>(std::min(most_pages, (m_main.size() + page_size - 1) / page_size));
    // Without its log a file may lack most of what it held.
    const std::string log = path + "-wal";
    if (qorFileExists(log.c_str())) {
        if (const int result = m_log.open(path, SQLITE_OPEN_WAL); result != SQLITE_OK) {
            qorSetLastError(qorError_cannot_open_file, log.c_str(), sqlite3_errstr(result));
            return false;
        }
        read_log();
    }
    return true;
}

// Finds the last state of each page that the log has confirmed: up to the last frame that ends a transaction, before
// the first that does not belong there.
void page_file::read_log() {
    std::vector<unsigned char> frame(frame_header_size + page_size);
    unsigned char head[log_header_size];
    if (!m_log.read(0, head))
        return;
    constexpr uint32 magic = 0x377f0682; // one more if words are big-endian
    const bool is_big = read_32(head) == magic + 1;
    log_sums sums;
    sums.add(std::span(head).first(24), is_big);
    if ((read_32(head) & ~1u) != magic || read_32(head + 8) != page_size || !sums.are(head + 24))
        return;
    std::unordered_map<uint32, uint64> pages;
    const uint64 end = m_log.size();
    for (uint64 at = log_header_size; at + frame.size() <= end; at += frame.size()) {
        if (!m_log.read(at, frame))
            return;
        const uint32 number = read_32(frame.data());
        const uint32 size_behind = read_32(frame.data() + 4); // in pages, for the last frame of a transaction
        sums.add(std::span(frame).first(8), is_big);
        sums.add(std::span(frame).subspan(frame_header_size), is_big);
        if (number == 0 || std::memcmp(frame.data() + 8, head + 16, 8) != 0 || !sums.are(frame.data() + 16))
            return;
        pages[number] = at + frame_header_size;
        if (size_behind != 0) {
            for (const auto& [page_number, place] : pages)
                m_newer[page_number] = place;
            pages.clear();
            m_count = size_behind;
        }
    }
}

bool page_file::read(uint32 number, page& out) {
    out.resize(page_size);
    if (const auto newer = m_newer.find(number); newer != m_newer.end())
        return m_log.read(newer->second, out);
    return m_main.read(uint64{number - 1} * page_size, out);
}

// ---- records

bool read_varint(std::span<const unsigned char> from, std::size_t& at, uint64& out) noexcept {
    out = 0;
    for (int i = 0; i < 9 && at < from.size(); ++i) {
        const unsigned char byte = from[at++];
        if (i == 8) {
            out = out << 8 | byte;
            return true;
        }
        out = out << 7 | (byte & 0x7f);
        if (byte < 0x80)
            return true;
    }
    return false;
}

bool read_record(std::string_view record, std::vector<field>& out) {
    out.clear();
    const std::span bytes(reinterpret_cast<const unsigned char*>(record.data()), record.size());
    std::size_t at = 0;
    uint64 head = 0;
    if (!read_varint(bytes, at, head) || head > bytes.size())
        return false;
    for (std::size_t body = static_cast<std::size_t>(head); at < head;) {
        uint64 type = 0;
        if (!read_varint(bytes.first(static_cast<std::size_t>(head)), at, type))
            return false;
        constexpr std::size_t sizes[] = {0, 1, 2, 3, 4, 6, 8, 8, 0, 0};
        if (type == 10 || type == 11)
            return false;
        const uint64 size = type < 10 ? sizes[type] : (type - 12) / 2;
        if (size > bytes.size() - body)
            return false;
        field next;
        next.is_number = type < 10 && type != 0 && type != 7;
        next.is_text = type >= 13 && type % 2 != 0;
        if (next.is_number && size != 0) {
            next.number = bytes[body] >= 0x80 ? ~uint64{0} : 0; // negative
            for (std::size_t i = 0; i < size; ++i)
                next.number = next.number << 8 | bytes[body + i];
        } else if (next.is_number) {
            next.number = type - 8;
        } else if (type >= 12) {
            next.bytes = record.substr(body, static_cast<std::size_t>(size));
        }
        out.push_back(next);
        body += static_cast<std::size_t>(size);
    }
    return true;
}

} // namespace store
