#include "child/command_line_windows.h"

#include <algorithm>
#include <iterator>

void qor::child::add_argument(std::wstring& line, std::wstring_view argument) {
    const bool is_first = line.empty();
    if (!is_first)
        line += L' ';
    if (!argument.empty() && argument.find_first_of(L" \t\n\v\"") == std::wstring_view::npos) {
        line += argument;
        return;
    }
    line += L'"';
    std::size_t backslashes = 0; // directly before the place
    for (const wchar_t each : argument) {
        if (each == L'\\') {
            ++backslashes;
        } else {
            // Before a quote, two backslashes stand for one.
            if (each == L'"')
                line.append(backslashes + 1, L'\\');
            backslashes = 0;
        }
        line += each;
    }
    if (!is_first)
        line.append(backslashes, L'\\');
    line += L'"';
}

bool qor::child::is_for_interpreter(std::wstring_view path) {
    std::wstring name(path.substr(path.find_last_of(L"\\/:") + 1));
    // The system drops dots and blanks at the end of a name.
    name.erase(name.find_last_not_of(L". ") + 1);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](wchar_t c) { return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c; });
    constexpr std::wstring_view endings[] = {L".bat", L".cmd"};
    constexpr std::wstring_view interpreters[] = {L"cmd", L"cmd.exe", L"command", L"command.com"};
    return std::any_of(std::begin(endings), std::end(endings), [&](auto each) { return name.ends_with(each); }) ||
           std::find(std::begin(interpreters), std::end(interpreters), name) != std::end(interpreters);
}
