#include "control_windows.h"

#include "clocks.h"
#include "file_system.h"
#include "messages.h"
#include "wide_text_windows.h"

#include <cstdio>
#include <windows.h>

namespace qor::record {

struct control_listener::word {
    std::atomic<std::uint32_t> wanted; // 0: nothing
    std::atomic<std::uint32_t> answers;
};

namespace {

enum : std::uint32_t { nothing, start, stop };

constexpr std::uint64_t patience = 5'000'000'000;

// Names of a session of Windows. A path of any length is a number; upper and lower case are one name of a file.
std::wstring section_name(const log_names& names) {
    std::wstring path = wide(names.path());
    CharLowerBuffW(path.data(), static_cast<DWORD>(path.size()));
    std::uint64_t number = 14695981039346656037U;
    for (const wchar_t c : path)
        number = (number ^ c) * 1099511628211U;
    wchar_t name[64];
    std::swprintf(name, sizeof name / sizeof *name, L"Local\\qor-record-%llx", static_cast<unsigned long long>(number));
    return name;
}

// Until it is so. False: it takes too long.
template <class Condition>
bool wait_until(Condition condition) {
    for (const std::uint64_t begin = steady_time(); !condition();) {
        if (steady_time() - begin > patience)
            return false;
        Sleep(1);
    }
    return true;
}

} // namespace

control_listener::~control_listener() {
    if (m_word != nullptr)
        UnmapViewOfFile(m_word);
    if (m_section != nullptr)
        CloseHandle(m_section);
}

bool control_listener::open(const log_names& names, int& error) {
    m_section =
        CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(word), section_name(names).c_str());
    error = static_cast<int>(GetLastError());
    if (m_section == nullptr || error == ERROR_ALREADY_EXISTS) {
        error = error == ERROR_ALREADY_EXISTS ? 0 : error;
        return false;
    }
    m_word = static_cast<word*>(MapViewOfFile(m_section, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, 0));
    error = static_cast<int>(GetLastError());
    return m_word != nullptr;
}

std::optional<bool> control_listener::asked() {
    const std::uint32_t wanted = m_word->wanted.load(std::memory_order_acquire);
    return wanted != nothing ? std::optional(wanted == stop) : std::nullopt;
}

void control_listener::answer() {
    m_word->wanted.store(nothing, std::memory_order_release);
    m_word->answers.fetch_add(1, std::memory_order_release);
}

int control(int argc, char** argv) {
    const std::string wanted = argc == 2 ? argv[1] : "";
    if (wanted != "start" && wanted != "stop") {
        say(message::control_usage);
        return 1;
    }
    log_names names;
    const std::string prefix = argv[0];
    const bool is_prefix = !prefix.empty() && last_separator(prefix) != prefix.size() - 1;
    if (is_prefix && !names.set(prefix, {}, compression::format::none))
        return 1;
    const HANDLE section =
        is_prefix ? OpenFileMappingW(FILE_MAP_READ | FILE_MAP_WRITE, FALSE, section_name(names).c_str()) : nullptr;
    auto* const word =
        section != nullptr
            ? static_cast<control_listener::word*>(MapViewOfFile(section, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, 0))
            : nullptr;
    if (word == nullptr) {
        const DWORD reason = GetLastError();
        if (is_prefix && reason == ERROR_ACCESS_DENIED)
            say(message::no_control, {prefix, reason_of(static_cast<int>(reason))});
        else
            say(message::no_recording, {prefix});
        return 1;
    }
    // One command at a time.
    const std::uint32_t code = wanted == "stop" ? stop : start;
    std::uint32_t answers = 0;
    const bool is_done = wait_until([&] {
                             std::uint32_t before = nothing;
                             answers = word->answers.load(std::memory_order_acquire);
                             return word->wanted.compare_exchange_strong(before, code);
                         }) &&
                         wait_until([&] { return word->answers.load(std::memory_order_acquire) != answers; });
    if (!is_done) {
        say(message::no_control, {prefix, reason_of(WAIT_TIMEOUT)});
        return 1;
    }
    say(wanted == "start" ? message::control_started : message::control_stopped, {prefix});
    return 0;
}

} // namespace qor::record
