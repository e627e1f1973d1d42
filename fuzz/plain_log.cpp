#include "plain_log.h"

#include <cstdio>
#include <cstdlib>
#include <map>

namespace {

using plain_log::kind;
using plain_log::lines;
using plain_log::memcheck_line;
using plain_log::mtrace_line;
using plain_log::output;

bool is_blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

std::vector<std::string> words(const std::string& text) {
    std::vector<std::string> all;
    bool inside = false;
    for (const char c : text) {
        if (is_blank(c)) {
            inside = false;
            continue;
        }
        if (!inside)
            all.emplace_back();
        inside = true;
        all.back() += c;
    }
    return all;
}

template <class... WORDS>
std::string print(const char* format, WORDS... inserts) {
    std::string text(static_cast<std::size_t>(std::snprintf(nullptr, 0, format, inserts...)), '\0');
    std::snprintf(text.data(), text.size() + 1, format, inserts...);
    return text;
}

// Programs, what gzip, zstd, xz and bzip2 have made, and UTF-16.
bool is_no_text(const std::string& log) {
    for (const std::string& begin : {std::string("\x7f"
                                                 "ELF"),
                                     std::string("\x1f\x8b"), std::string("\x28\xb5\x2f\xfd"),
                                     std::string("\xfd"
                                                 "7zXZ\0",
                                                 6),
                                     std::string("BZh"), std::string("\xff\xfe"), std::string("\xfe\xff")})
        if (log.substr(0, begin.size()) == begin)
            return true;
    return false;
}

struct slot {
    std::uint64_t address = 0;
    std::uint32_t size = 0;
    std::uint8_t type = 0;
    std::string caller, type_name, file;
    std::int32_t line = 0;
};

class replayer {
public:
    output said;

    void finish() {
        said.is_foreign_mtrace = m_has_mtrace && !m_mtrace_has_form;
        said.is_foreign_memcheck = m_next != 0 && !m_memcheck_has_form;
    }

    void mtrace(const std::string& log) {
        unsigned number = 0;
        said.err = "Processing mtrace file...\n";
        for (const std::string& text : lines(log)) {
            m_has_mtrace = true;
            if (!is_no_text(log) && (text.substr(0, 1) == "@" || text.substr(0, 2) == "= "))
                m_mtrace_has_form = true;
            mtrace_line rec;
            const kind what = parse(text, rec);
            if (what == kind::too_few_words)
                said.err += "WARNING Invalid line in mtrace() file\n";
            if (what != kind::record)
                continue;
            if (!rec.is_code_known)
                said.err += print("WARNING Bad code token [%s]\n", rec.code.c_str());
            if (++number % 20 == 0)
                said.err += print("%u\r", number);
            if (rec.is_alloc) {
                slot& own = blank(rec.address);
                own = {rec.address, rec.size, 0, rec.caller, "", "", 0};
                for (memcheck_line found; record_for(own.address, found);) {
                    if (found.code == 'A') {
                        own.file = found.file;
                        own.line = found.line;
                    } else if (found.code == 'T') {
                        own.type_name = found.type_name;
                    }
                }
            } else if (!release(rec.address)) {
                said.out += print("BAD FREE at 0x%llx (not allocated)\n", static_cast<unsigned long long>(rec.address));
            }
        }
        said.err += "\n";
        if (!m_list.empty())
            said.err += print("WARNING %u entries left in memcheck table\n", static_cast<unsigned>(m_list.size()));
        for (const memcheck_line& rec : m_list)
            said.err += print(">> %c mem=0x%llx size=%u bt=%d file=[%s] line=%d type=[%s]\n", rec.code,
                              static_cast<unsigned long long>(rec.address), rec.size, rec.bt, rec.file.c_str(),
                              rec.line, rec.type_name.c_str());
        report();
    }

    void memcheck() {
        unsigned number = 0;
        said.err = "Processing memcheck file...\n";
        for (memcheck_line rec; next_memcheck(rec);) {
            if (++number % 100 == 0)
                said.err += print("%u\r", number);
            if (rec.code == 'F' && !release(rec.address)) {
                bad_free(rec);
            } else if (rec.code == 'A') {
                blank(rec.address) = {rec.address, rec.size, rec.bt, "", "", rec.file, rec.line};
            } else if (rec.code == 'T') {
                slot* const found = rec.address != 0 ? find(rec.address) : nullptr;
                if (found != nullptr)
                    found->type_name = rec.type_name;
                else
                    said.err += "Unexpected: type record not matched to memory\n";
            }
        }
        said.err += "\n";
        report();
    }

    void read_memcheck(const std::string& log) {
        m_memcheck = lines(log);
        m_memcheck_is_text = !is_no_text(log);
        m_has_memcheck = true;
    }

private:
    // Slots of a bucket, block after block; they do not move.
    using bucket = std::vector<std::vector<slot>>;

    bucket& bucket_of(std::uint64_t address) { return m_table[address >> 10 & 0xfffff]; }

    slot* find(std::uint64_t address) {
        for (auto& block : bucket_of(address))
            for (slot& each : block)
                if (each.address == address)
                    return &each;
        return nullptr;
    }

    slot& blank(std::uint64_t address) {
        bucket& all = bucket_of(address);
        for (auto& block : all)
            for (slot& each : block)
                if (each.address == 0)
                    return each;
        return all.emplace_back(1024).front();
    }

    bool release(std::uint64_t address) {
        slot* const found = find(address);
        if (found != nullptr)
            found->address = 0;
        return found != nullptr;
    }

    bool next_memcheck(memcheck_line& rec) {
        while (m_next < m_memcheck.size()) {
            const std::string& text = m_memcheck[m_next];
            if (m_memcheck_is_text && !text.empty() && std::string("AFTE#").find(text[0]) != std::string::npos)
                m_memcheck_has_form = true;
            const kind what = parse(m_memcheck[m_next++], rec);
            if (what == kind::record)
                return true;
            if (what == kind::too_few_words)
                said.err += "WARNING Invalid line in memcheck() file\n";
            if (what == kind::unknown_code)
                said.err += print("WARNING Invalid memcheck line code %c\n", rec.code);
        }
        return false;
    }

    bool record_for(std::uint64_t address, memcheck_line& rec) {
        if (!m_has_memcheck)
            return false;
        for (auto each = m_list.begin(); each != m_list.end(); ++each)
            if (each->address == address) {
                rec = *each;
                m_list.erase(each);
                return true;
            }
        while (m_list.size() < 1024 && next_memcheck(rec)) {
            if (rec.address == address)
                return true;
            if (rec.bt == 3 && rec.code == 'A')
                blank(rec.address) = {rec.address, rec.size, rec.bt, "", rec.type_name, rec.file, rec.line};
            else if (rec.bt == 3 && rec.code == 'F' && !release(rec.address))
                bad_free(rec);
            else if (rec.bt != 3 && rec.code != 'F')
                m_list.push_back(rec);
        }
        return false;
    }

    void bad_free(const memcheck_line& rec) {
        said.out += print("BAD FREE at 0x%llx (not allocated) - file=[] line=0\n",
                          static_cast<unsigned long long>(rec.address));
    }

    void report() {
        said.err += "Scanning data...\n";
        unsigned count = 0;
        unsigned long long total = 0;
        for (const auto& [number, all] : m_table)
            for (const auto& block : all)
                for (const slot& each : block) {
                    if (each.address == 0)
                        continue;
                    said.out += print("LEAK at 0x%llx size %u type %u caller [%s] type_name [%s] file [%s] line %d\n",
                                      static_cast<unsigned long long>(each.address), each.size, unsigned{each.type},
                                      each.caller.c_str(), each.type_name.c_str(), each.file.c_str(), each.line);
                    ++count;
                    total += each.size;
                }
        said.out += count != 0 ? print("Leaked %u objects totalling %llu bytes\n", count, total) : "No leaks found\n";
    }

    std::map<std::uint64_t, bucket> m_table;
    std::vector<memcheck_line> m_list;
    std::vector<std::string> m_memcheck;
    std::size_t m_next = 0;
    bool m_has_memcheck = false;
    bool m_memcheck_is_text = false;
    bool m_has_mtrace = false; // a line of it
    bool m_mtrace_has_form = false;
    bool m_memcheck_has_form = false;
};

} // namespace

std::vector<std::string> plain_log::lines(const std::string& text) {
    std::vector<std::string> all;
    std::string line;
    for (std::size_t begin = 0; begin < text.size();) {
        std::size_t end = text.find('\n', begin);
        if (end == text.npos)
            end = text.size();
        line = text.substr(begin, end - begin);
        while (!line.empty() && is_blank(line.front()))
            line.erase(0, 1);
        while (!line.empty() && is_blank(line.back()))
            line.pop_back();
        all.push_back(line);
        begin = end + 1;
    }
    return all;
}

plain_log::kind plain_log::parse(const std::string& line, mtrace_line& out) {
    if (line.empty() || line[0] != '@')
        return kind::no_meaning;
    const std::vector<std::string> all = words(line.substr(1));
    if (all.size() < 3)
        return kind::too_few_words;
    out = {all[0], all[1]};
    out.address = std::strtoull(all[2].c_str(), nullptr, 16);
    if (all.size() > 3)
        out.wide_size = std::strtoull(all[3].c_str(), nullptr, 0);
    out.size = static_cast<std::uint32_t>(out.wide_size);
    const char code = out.code[0];
    out.is_code_known = code == '+' || code == '>' || code == '-' || code == '<';
    out.is_alloc = code == '+' || code == '>' || (!out.is_code_known && out.size != 0);
    return kind::record;
}

plain_log::kind plain_log::parse(const std::string& line, memcheck_line& out) {
    if (line.empty() || line[0] == '#')
        return kind::no_meaning;
    out = {};
    out.code = line[0];
    const std::vector<std::string> all = words(line.substr(1));
    if (all.size() < (out.code == 'A' ? 3u : out.code == 'T' ? 2u : 1u))
        return kind::too_few_words;
    if (out.code == 'E')
        return kind::no_meaning;
    out.address = std::strtoull(all[0].c_str(), nullptr, 16);
    if (out.code == 'A') {
        out.wide_size = std::strtoull(all[1].c_str(), nullptr, 0);
        out.size = static_cast<std::uint32_t>(out.wide_size);
        out.bt = static_cast<std::uint8_t>(std::strtoull(all[2].c_str(), nullptr, 0));
        out.file = all.size() > 3 ? all[3] : "";
        out.line = all.size() > 4 ? static_cast<std::int32_t>(std::strtoll(all[4].c_str(), nullptr, 0)) : 0;
    } else if (out.code == 'F') {
        out.bt =
            all.size() > 1 ? static_cast<std::uint8_t>(std::strtoull(all[1].c_str(), nullptr, 0)) : std::uint8_t{0};
    } else if (out.code == 'T') {
        out.type_name = all[1];
    } else {
        return kind::unknown_code;
    }
    return kind::record;
}

plain_log::output plain_log::replay(const std::optional<std::string>& mtrace,
                                    const std::optional<std::string>& memcheck) {
    replayer run;
    if (memcheck)
        run.read_memcheck(*memcheck);
    if (mtrace)
        run.mtrace(*mtrace);
    else
        run.memcheck();
    run.finish();
    return run.said;
}
