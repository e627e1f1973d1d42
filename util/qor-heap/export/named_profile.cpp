#include "named_profile.h"

#include "safe_text.h"

#include <cinttypes>
#include <cstdio>

namespace qor::heap_tool {

namespace {

// The path tells, where it is known: a template's name begins with the type that it returns.
bool is_library_code(const heap::source_place& place) {
    if (place.file.empty())
        return place.function.starts_with("std::") || place.function.starts_with("__gnu_cxx::");
    for (const std::string_view part : {"/include/c++/", "/libstdc++", "/rustc/", "/rustlib/"})
        if (place.file.find(part) != std::string_view::npos)
            return true;
    return false;
}

} // namespace

const heap::profile::counts& counts_of(const heap::profile::place& place, measure what) noexcept {
    switch (what) {
    case measure::live:
        return place.live;
    case measure::at_peak:
        return place.at_peak;
    case measure::allocated:
        return place.allocated;
    case measure::temporary:
        break;
    }
    return place.temporary;
}

named_profile::named_profile(const heap::profile& of, const symbol_names& symbols, bool is_anonymous)
    : m_profile(of), m_is_anonymous(is_anonymous) {
    m_texts.emplace_back();
    m_numbers.emplace(m_texts.front(), 0);
    m_modules.reserve(of.modules.size());
    for (const heap::profile::module& each : of.modules)
        m_modules.push_back(add(each.path, true));
    m_first.reserve(of.frames.size() + 1);
    for (std::size_t i = 0; i < of.frames.size(); ++i) {
        m_first.push_back(m_functions.size());
        add_frame(of.frames[i], i < symbols.size() ? symbols[i] : std::span<const heap::source_place>());
    }
    m_first.push_back(m_functions.size());
    m_own_texts.reserve(of.texts.size());
    for (const std::string& each : of.texts) {
        m_own_texts.push_back(add(each, true));
    }
    m_raw[0] = m_raw[1] = {};
}

uint32 named_profile::add(std::string_view text, bool is_path) {
    std::string safe = safe_text(is_path && m_is_anonymous ? file_name(text) : text);
    const auto known = m_numbers.find(safe);
    if (known != m_numbers.end())
        return known->second;
    const auto number = static_cast<uint32>(m_texts.size());
    m_texts.push_back(std::move(safe));
    m_numbers.emplace(m_texts.back(), number);
    return number;
}

void named_profile::add_frame(const heap::profile::frame& frame, std::span<const heap::source_place> places) {
    // Thousands of frames lie in one function: `symbols` gives them the same text.
    const auto number_of = [this](std::string_view text, bool is_path) {
        const auto [known, is_new] = m_raw[is_path].try_emplace(text, 0);
        if (is_new)
            known->second = add(text, is_path);
        return known->second;
    };
    const uint32 module = frame.module < m_modules.size() ? m_modules[frame.module] : 0;
    for (const heap::source_place& each : places) {
        function one{number_of(each.function, false), number_of(each.file, true), each.line, module,
                     is_library_code(each)};
        if (one.name != 0 || one.file != 0)
            m_functions.push_back(one);
    }
    m_is_nameless.push_back(m_functions.size() == m_first.back());
    if (m_is_nameless.back())
        m_functions.push_back({0, 0, 0, module, false});
    for (std::size_t i = m_first.back(); i < m_functions.size(); ++i)
        if (m_functions[i].name == 0)
            m_functions[i].name = add(nameless(frame, module), false);
}

std::string named_profile::nameless(const heap::profile::frame& frame, uint32 module) const {
    char address[24];
    std::snprintf(address, sizeof address, "0x%" PRIx64, static_cast<std::uint64_t>(frame.address));
    return module == 0 ? address : std::string(file_name(m_texts[module])) + '+' + address;
}

std::vector<named_profile::function> named_profile::stack(const heap::profile::place& place, std::size_t frames) const {
    std::vector<function> stack;
    for (uint32 node = place.node; node != 0 && frames != 0; node = m_profile.nodes[node].parent, --frames) {
        const auto inner = functions(m_profile.nodes[node].frame);
        stack.insert(stack.end(), inner.begin(), inner.end());
    }
    if (stack.empty() && (place.caller != 0 || place.file != 0))
        stack.push_back({caller(place) != 0 ? caller(place) : file(place), 0, 0, 0, false});
    if (!stack.empty() && stack.front().file == 0 && place.file != 0) {
        stack.front().file = file(place);
        stack.front().line = place.line > 0 ? static_cast<uint32>(place.line) : 0;
    }
    return stack;
}

std::string named_profile::build_id(uint32 module) const {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const char byte : m_profile.modules[module].build_id) {
        text += digits[static_cast<unsigned char>(byte) >> 4];
        text += digits[static_cast<unsigned char>(byte) & 15];
    }
    return text;
}

std::string named_profile::program(std::size_t process) const {
    const std::string_view path = m_profile.processes[process].path;
    return safe_text(m_is_anonymous ? file_name(path) : path);
}

std::string named_profile::log(std::size_t process) const {
    return m_is_anonymous ? std::string() : safe_text(m_profile.processes[process].log);
}

} // namespace qor::heap_tool
