#include "reader.h"

#include "backtrace_reader_windows.h"
#include "demangled.h"
#include "pe_file.h"
#include "qor/glue/wide_path_windows.h"
#include "windows_path.h"

#include <windows.h>

namespace qor::heap {

namespace {

struct closing {
    void operator()(void* handle) const noexcept { CloseHandle(handle); }
};
using handle = std::unique_ptr<void, closing>;

std::string reason_of(DWORD code) { return "error " + std::to_string(code); }

// A file in memory as long as this object lives.
class mapped_file {
public:
    ~mapped_file() {
        if (m_bytes.data() != nullptr)
            UnmapViewOfFile(m_bytes.data());
    }

    symbol_status open(const std::string& path, std::string& reason) {
        if (path.empty())
            return symbol_status::no_file;
        const std::wstring name = qor::glue::wide_path(path);
        if (!is_on_drive(path) || name.empty())
            return symbol_status::refused;
        m_file.reset(CreateFileW(name.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                 OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (m_file.get() == INVALID_HANDLE_VALUE) {
            m_file.release();
            reason = reason_of(GetLastError());
            // A folder cannot be opened in this way.
            const DWORD kind = GetFileAttributesW(name.c_str());
            return kind != INVALID_FILE_ATTRIBUTES && (kind & FILE_ATTRIBUTE_DIRECTORY) != 0 ? symbol_status::refused
                                                                                             : symbol_status::no_file;
        }
        if (GetFileType(m_file.get()) != FILE_TYPE_DISK)
            return symbol_status::refused;
        LARGE_INTEGER size;
        FILETIME written;
        if (!GetFileSizeEx(m_file.get(), &size) || size.QuadPart == 0 ||
            !GetFileTime(m_file.get(), nullptr, nullptr, &written))
            return symbol_status::damaged;
        // From 100 ns since 1601.
        m_written_ns = ((uint64{written.dwHighDateTime} << 32 | written.dwLowDateTime) - 116444736000000000) * 100;
        m_mapping.reset(CreateFileMappingW(m_file.get(), nullptr, PAGE_READONLY, 0, 0, nullptr));
        const void* const view =
            m_mapping != nullptr ? MapViewOfFile(m_mapping.get(), FILE_MAP_READ, 0, 0, 0) : nullptr;
        if (view == nullptr) {
            reason = reason_of(GetLastError());
            return symbol_status::damaged;
        }
        m_bytes = {static_cast<const char*>(view), static_cast<std::size_t>(size.QuadPart)};
        return symbol_status::ok;
    }

    std::string_view bytes() const noexcept { return m_bytes; }
    uint64 written_ns() const noexcept { return m_written_ns; }

private:
    handle m_file, m_mapping;
    std::string_view m_bytes;
    uint64 m_written_ns = 0;
};

} // namespace

bool load_symbol_reader(std::string&) { return true; }

module_answer read_symbols(const module_request& of, const symbol_options& options, const fetching& tell) {
    const auto end = std::chrono::steady_clock::now() + options.file_time;
    module_answer answer;
    answer.clear(of.addresses.size());
    mapped_file file;
    answer.about.status = file.open(of.path, answer.about.reason);
    if (answer.about.status != symbol_status::ok)
        return answer;
    pe_file pe;
    if (!pe.parse(file.bytes())) {
        answer.about.status = symbol_status::damaged;
        return answer;
    }
    const bool is_other =
        of.build_id.empty() ? of.recorded_ns != 0 && file.written_ns() > of.recorded_ns : of.build_id != pe.build_id();
    if (is_other) {
        answer.about.status = symbol_status::changed;
        return answer;
    }
    answer.about.is_unverified = of.build_id.empty();
    answer.about.file = of.path;
    const auto reader =
        pe.content(".debug_info").empty() ? nullptr : backtrace_reader::make(pe, options.memory, answer.about.reason);
    if (reader == nullptr)
        answer.about.status = symbol_status::no_debug_information;
    for (std::size_t i = 0; i < of.addresses.size(); ++i) {
        if (i % 64 == 0) {
            const bool is_late = std::chrono::steady_clock::now() >= end;
            if (is_late || !tell({}, 0, 0)) {
                answer.about.status = is_late ? symbol_status::too_slow : symbol_status::interrupted;
                answer.clear(of.addresses.size());
                return answer;
            }
        }
        const uint64 address = of.addresses[i];
        std::vector<numbered_place>& places = answer.places[i];
        if (!pe.is_code(address))
            continue;
        if (reader != nullptr)
            reader->find(address, [&](const char* function, const char* path, int line) {
                if (places.size() < module_answer::most_places)
                    places.push_back({answer.number_of(function != nullptr ? demangled(function) : ""),
                                      answer.number_of(path != nullptr ? path : ""),
                                      line > 0 ? static_cast<uint32>(line) : 0});
            });
        if (!places.empty() && places.back().function != 0)
            continue;
        const std::string name(pe.exported_at(address));
        if (!name.empty() && places.empty())
            places.emplace_back();
        if (!name.empty())
            places.back().function = answer.number_of(demangled(name.c_str()));
    }
    return answer;
}

} // namespace qor::heap
