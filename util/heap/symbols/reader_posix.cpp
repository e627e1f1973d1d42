#include "reader.h"

#include "debuginfod_posix.h"
#include "demangled.h"
#include "dwarf_places_posix.h"
#include "elf_file_posix.h"
#include "symbol_table_posix.h"

#include <memory>
#include <utility>

namespace qor::heap {

namespace {

std::string folder_of(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }

// .build-id/ab/cdef.debug. Empty: nothing is named by such an id.
std::string name_of(const std::string& build_id) {
    if (build_id.size() < 2 || build_id.size() > 64)
        return {};
    std::string result = ".build-id/";
    for (std::size_t i = 0; i < build_id.size(); ++i) {
        static const char digits[] = "0123456789abcdef";
        const auto byte = static_cast<unsigned char>(build_id[i]);
        result += {digits[byte >> 4], digits[byte & 15]};
        if (i == 0)
            result += '/';
    }
    return result + ".debug";
}

class module_search {
public:
    module_search(const module_request& of, const symbol_options& options, const fetching& tell)
        : m_request(of), m_options(options), m_tell(tell) {}

    module_answer run() {
        m_answer.clear(m_request.addresses.size());
        m_answer.about.status = open_main();
        if (m_main.is_open() && m_main.has_debug_information())
            m_debug = &m_main;
        else if (find_separate())
            m_debug = &m_separate;
        if (m_debug != nullptr)
            read_debug_information();
        if (m_main.is_open() || m_debug != nullptr)
            read_symbol_table();
        return std::move(m_answer);
    }

private:
    // The file that was recorded. Any result but ok leaves it closed.
    symbol_status open_main() {
        const std::string& path = m_request.path;
        if (path.empty())
            return symbol_status::no_file;
        // A relative path would be looked for from this process's folder, and the kernel's names are no paths.
        if (path[0] != '/')
            return symbol_status::refused;
        elf_file file;
        const elf_file::outcome result = file.open(path);
        m_answer.about.reason = file.reason();
        if (result == elf_file::outcome::not_regular)
            return symbol_status::refused;
        if (result == elf_file::outcome::no_file)
            return symbol_status::no_file;
        if (result != elf_file::outcome::good)
            return symbol_status::damaged;
        if (!m_request.build_id.empty() && m_request.build_id != file.build_id())
            return symbol_status::changed;
        if (m_request.build_id.empty()) {
            if (m_request.recorded_ns != 0 && file.written_ns() > m_request.recorded_ns)
                return symbol_status::changed;
            m_answer.about.is_unverified = true;
        }
        m_main = std::move(file);
        m_answer.about.file = path;
        return symbol_status::no_debug_information;
    }

    const std::string& build_id() const { return m_request.build_id.empty() ? m_main.build_id() : m_request.build_id; }

    // Opens m_separate: a file with the same build id, or, if no such file exists, with the checksum that the main file
    // names.
    bool find_separate() {
        if (find(build_id(), m_separate))
            return true;
        if (m_main.is_open() && find_linked())
            return true;
        return fetch(build_id(), m_separate);
    }

    bool accept(const std::string& path, const std::string& id, elf_file& out) const {
        elf_file file;
        if (file.open(path) != elf_file::outcome::good || file.build_id() != id)
            return false;
        out = std::move(file);
        return true;
    }

    bool find(const std::string& id, elf_file& out) const {
        const std::string name = name_of(id);
        if (name.empty())
            return false;
        for (const std::string& folder : m_options.debug_folders)
            if (accept(folder + '/' + name, id, out))
                return true;
        return false;
    }

    bool find_linked() {
        GElf_Word sum;
        const char* const link = dw().dwelf_elf_gnu_debuglink(m_main.elf(), &sum);
        if (link == nullptr)
            return false;
        // The name comes from the file, and may not lead out of the folders.
        const std::string name = link;
        if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos)
            return false;
        const std::string folder = folder_of(m_main.path());
        std::vector<std::string> paths = {folder + name, folder + ".debug/" + name};
        for (const std::string& debug_folder : m_options.debug_folders)
            paths.push_back(debug_folder + folder + name);
        for (const std::string& path : paths) {
            elf_file file;
            if (file.open(path) != elf_file::outcome::good || file.build_id() != m_main.build_id())
                continue;
            if (!m_main.build_id().empty() || file.checksum() == sum) {
                m_separate = std::move(file);
                return true;
            }
        }
        return false;
    }

    bool fetch(const std::string& id, elf_file& out) {
        if (!m_options.may_fetch || name_of(id).empty() || debuginfod::servers().empty())
            return false;
        debuginfod::result fetched = debuginfod::fetch(id, m_options.fetch_time, m_tell);
        if (fetched.descriptor < 0) {
            m_answer.about.reason = fetched.reason;
            return false;
        }
        elf_file file;
        if (file.take(fetched.descriptor, fetched.path) != elf_file::outcome::good || file.build_id() != id)
            return false;
        m_answer.about.server = fetched.server;
        out = std::move(file);
        return true;
    }

    struct end_of_dwarf {
        void operator()(Dwarf* dwarf) const noexcept { dw().dwarf_end(dwarf); }
    };
    using dwarf_pointer = std::unique_ptr<Dwarf, end_of_dwarf>;

    void read_debug_information() {
        const dwarf_pointer dwarf(dw().dwarf_begin_elf(m_debug->elf(), DWARF_C_READ, nullptr));
        if (dwarf == nullptr) {
            m_answer.about.reason = dw().dwarf_errmsg(-1);
            return;
        }
        const dwarf_pointer shared = shared_part(*dwarf);
        if (!m_is_usable)
            return;
        m_answer.about.status = symbol_status::ok;
        m_answer.about.file = m_debug->path();
        m_answer.about.reason.clear(); // of a file that was looked for before
        dwarf_places(dwarf.get(), m_debug->code(), m_answer).find(m_request.addresses);
    }

    // The part that several files share (dwz), if this one needs it and it is there.
    dwarf_pointer shared_part(Dwarf& of) {
        const char* name;
        const void* bytes;
        const auto size = dw().dwelf_dwarf_gnu_debugaltlink(&of, &name, &bytes);
        if (size <= 0)
            return nullptr;
        const std::string id(static_cast<const char*>(bytes), static_cast<std::size_t>(size));
        const std::string path = name[0] == '/' ? name : folder_of(m_debug->path()) + name;
        if (!find(id, m_shared) && !accept(path, id, m_shared) && !fetch(id, m_shared)) {
            // libdw itself would open the path, and wait if it is a pipe.
            m_is_usable = elf_file().open(path) != elf_file::outcome::not_regular;
            return nullptr;
        }
        dwarf_pointer result(dw().dwarf_begin_elf(m_shared.elf(), DWARF_C_READ, nullptr));
        if (result != nullptr)
            dw().dwarf_setalt(&of, result.get());
        return result;
    }

    // Names what has no function yet, and drops what is no code.
    void read_symbol_table() {
        symbol_table table;
        if (!(m_debug != nullptr && table.add(*m_debug)) && m_main.is_open() && !table.add(m_main))
            table.add_dynamic(m_main);
        table.sort();
        const auto code = (m_main.is_open() ? m_main : *m_debug).code();
        const auto is_code = [&code](uint64 address) {
            for (const elf_file::range& range : code)
                if (address >= range.begin && address < range.end)
                    return true;
            return false;
        };
        for (std::size_t i = 0; i < m_request.addresses.size(); ++i) {
            std::vector<numbered_place>& places = m_answer.places[i];
            if (!is_code(m_request.addresses[i])) {
                places.clear();
                continue;
            }
            if (!places.empty() && places.back().function != 0)
                continue;
            const char* const name = table.at(m_request.addresses[i]);
            if (name == nullptr)
                continue;
            if (places.empty())
                places.emplace_back();
            places.back().function = m_answer.number_of(demangled(name));
        }
    }

    const module_request& m_request;
    const symbol_options& m_options;
    const fetching& m_tell;
    module_answer m_answer;
    elf_file m_main, m_separate, m_shared;
    const elf_file* m_debug = nullptr; // one of the first two
    bool m_is_usable = true;
};

} // namespace

bool load_symbol_reader(std::string& reason) { return load_dw(reason); }

module_answer read_symbols(const module_request& of, const symbol_options& options, const fetching& tell) {
    return module_search(of, options, tell).run();
}

} // namespace qor::heap
