// The records that can be saved from a damaged file: every record that is whole, on whichever page it stands.
#include "format.h"
#include "pages.h"
#include "set_form.h"
#include "store.h"

#include <algorithm>
#include <limits>
#include <optional>

namespace {

using store::page;
using store::page_size;

// The kinds of pages, in their first byte.
constexpr unsigned char inner_page = 2, leaf_page = 10;

// What part of a record stands on its own page, by SQLite's rules for this size of pages.
constexpr uint32 most_on_page = (page_size - 12) * 64 / 255 - 23;
constexpr uint32 least_on_page = (page_size - 12) * 32 / 255 - 23;
constexpr uint32 on_further_page = page_size - 4;

constexpr uint64 most_record = uint64{qorMaxStoreValue} + qorMaxStoreKey + 64;

class rescuer {
public:
    rescuer(store::object_store& to, qorStoreRescue& report) noexcept : m_to(to), m_report(report) {}

    bool run(const std::string& from) {
        m_report = {};
        if (!m_file.open(from))
            return false;
        m_report.pages = m_file.count();
        find_free_pages();
        page here;
        for (uint32 number = 1; number <= m_file.count() && number != 0; ++number) {
            if (m_is_free[number])
                continue;
            if (!m_file.read(number, here))
                ++m_report.damaged;
            else if (!read_page(here, number == 1 ? 100 : 0))
                return false;
        }
        uint64 count = 0;
        if (!m_to.CountRange({}, count))
            return false;
        m_report.sets = count;
        return store::set_meta(m_to.file(), "schema", m_schema) &&
               store::set_meta(m_to.file(), "next_version", std::max(m_next_version, m_highest + 1));
    }

private:
    // Pages without content still hold what was removed.
    void find_free_pages() {
        m_is_free.assign(std::size_t{m_file.count()} + 1, false);
        page here;
        if (!m_file.read(1, here))
            return;
        uint32 trunk = store::read_32(here.data() + 32);
        while (trunk != 0 && trunk <= m_file.count() && !m_is_free[trunk] && m_file.read(trunk, here)) {
            m_is_free[trunk] = true;
            const uint32 leaves = std::min(store::read_32(here.data() + 4), page_size / 4 - 2);
            for (uint32 i = 0; i < leaves; ++i)
                if (const uint32 leaf = store::read_32(here.data() + 8 + 4 * i); leaf <= m_file.count())
                    m_is_free[leaf] = true;
            trunk = store::read_32(here.data());
        }
    }

    // Saves the records of a page. Returns false and sets the last error if they cannot be stored.
    bool read_page(const page& here, std::size_t begin) {
        const unsigned char kind = here[begin];
        if (kind != leaf_page && kind != inner_page)
            return true; // another table, or the rest of a long record
        const std::size_t head = begin + (kind == leaf_page ? 8 : 12);
        const uint32 count = store::read_16(here.data() + begin + 3);
        bool is_whole = head + 2 * count <= page_size;
        for (uint32 i = 0; i < count && head + 2 * i + 2 <= page_size; ++i) {
            const uint32 at = store::read_16(here.data() + head + 2 * i) + (kind == leaf_page ? 0 : 4);
            std::string record;
            if (!read_cell(here, at, record) || !store::read_record(record, m_fields)) {
                is_whole = false;
                continue;
            }
            const std::optional<bool> is_saved = save();
            if (!is_saved)
                return false;
            is_whole = is_whole && *is_saved;
        }
        if (!is_whole)
            ++m_report.damaged;
        return true;
    }

    // Reads a record, and what of it stands on further pages.
    bool read_cell(const page& here, std::size_t at, std::string& out) {
        uint64 size = 0;
        if (at >= page_size || !store::read_varint(here, at, size) || size == 0 || size > most_record)
            return false;
        uint64 local = size;
        if (size > most_on_page) {
            local = least_on_page + (size - least_on_page) % on_further_page;
            if (local > most_on_page)
                local = least_on_page;
        }
        if (at + local + (local < size ? 4 : 0) > page_size)
            return false;
        const auto* const bytes = reinterpret_cast<const char*>(here.data());
        out.assign(bytes + at, static_cast<std::size_t>(local));
        if (local == size)
            return true;
        uint32 next = store::read_32(here.data() + at + local);
        page further;
        while (out.size() < size) {
            if (next == 0 || next > m_file.count() || !m_file.read(next, further))
                return false;
            next = store::read_32(further.data());
            const uint64 part = std::min<uint64>(on_further_page, size - out.size());
            out.append(reinterpret_cast<const char*>(further.data()) + 4, static_cast<std::size_t>(part));
        }
        return true;
    }

    // Stores the record, if it is a set. Returns whether it is whole, or nothing if it cannot be stored.
    std::optional<bool> save() {
        if (m_fields.size() == 2 && m_fields[0].is_text && m_fields[1].is_number) {
            if (m_fields[0].bytes == "schema")
                m_schema = std::min<uint64>(m_fields[1].number, std::numeric_limits<uint32>::max());
            else if (m_fields[0].bytes == "next_version" && m_fields[1].number <= highest)
                m_next_version = m_fields[1].number;
            return true;
        }
        if (m_fields.size() != 3 || m_fields[0].is_number || !m_fields[1].is_number || m_fields[2].is_number)
            return true; // of no table here
        const uint64 version = m_fields[1].number;
        qorAttributeSet ignored;
        if (version == 0 || version >= highest || m_fields[0].bytes.size() > qorMaxStoreKey ||
            !store::read_set(m_fields[2].bytes, ignored)) {
            ++m_report.lost;
            return false;
        }
        m_highest = std::max(m_highest, version);
        store::query put(m_to.file(), store::command::put);
        put.bind(1, m_fields[0].bytes).bind(2, version).bind(3, m_fields[2].bytes);
        return put.run() ? std::optional(true) : std::nullopt;
    }

    static constexpr uint64 highest = std::numeric_limits<int64>::max() / 2;

    store::object_store& m_to;
    qorStoreRescue& m_report;
    store::page_file m_file;
    std::vector<bool> m_is_free;
    std::vector<store::field> m_fields;
    uint64 m_schema = 0;
    uint64 m_next_version = 1;
    uint64 m_highest = 0;
};

} // namespace

bool store::rescue(const std::string& from, object_store& to, qorStoreRescue& out) {
    qorStoreRescue report;
    zetSmartPointer<IQORErrorMessage> before; // what is damaged is counted, and is no failure
    qorGetLastError(before.Out());
    if (!rescuer(to, report).run(from))
        return false;
    qor::glue::qorSetLastErrorMessage(*before);
    out = report;
    return true;
}
