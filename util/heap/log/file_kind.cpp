#include "file_kind.h"

#include "log_fields.h"
#include "log_lines.h"

#include <algorithm>
#include <iterator>
#include <string>

namespace qor::heap {

namespace {

using namespace std::string_view_literals;

struct signature {
    std::string_view bytes;
    file_guess what;
};

constexpr signature signatures[] = {
    {"\x7f"
     "ELF"sv,
     {file_kind::elf}},
    {"\x1f\x8b"sv, {file_kind::compressed, "gzip"}},
    {"\x28\xb5\x2f\xfd"sv, {file_kind::compressed, "zstd"}},
    {"\xfd"
     "7zXZ\0"sv,
     {file_kind::compressed, "xz"}},
    {"BZh"sv, {file_kind::compressed, "bzip2"}},
    {"\xff\xfe"sv, {file_kind::utf_16}},
    {"\xfe\xff"sv, {file_kind::utf_16}},
};

const signature* find_signature(std::string_view beginning) noexcept {
    const auto* const found = std::find_if(std::begin(signatures), std::end(signatures),
                                           [&](const signature& each) { return beginning.starts_with(each.bytes); });
    return found != std::end(signatures) ? found : nullptr;
}

constexpr char escape = 0x1b; // occurs in texts for terminals
constexpr char rubout = 0x7f;

bool is_text(char c) noexcept {
    return static_cast<unsigned char>(c) >= ' ' ? c != rubout : c == escape || log_fields::is_space(c);
}

bool begins_with(std::string_view text, std::string_view small_letters) noexcept {
    const auto is_same = [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a - 'A' + 'a' : a) == b; };
    return text.size() >= small_letters.size() && std::equal(small_letters.begin(), small_letters.end(), text.begin(),
                                                             [&](char small, char any) { return is_same(any, small); });
}

bool is_mtrace_line(std::string_view line) {
    log_lines::mtrace_line<uint64> record;
    return line.starts_with("= Start") ||
           (log_lines::parse(line, record) == log_lines::kind::record && record.is_code_known);
}

// The letter alone is not enough: many sentences begin with "A".
bool is_memcheck_line(std::string_view line) {
    const std::string_view letter = log_fields::next_word(line);
    std::string_view address = log_fields::next_word(line);
    const std::string_view next = log_fields::next_word(line);
    if (address.starts_with("0x"))
        address.remove_prefix(2);
    if (address.empty() || address.find_first_not_of("0123456789abcdef") != address.npos || next.empty())
        return false;
    return letter == "T" || ((letter == "A" || letter == "F") && next[0] >= '0' && next[0] <= '9');
}

file_guess guess_text_kind(std::string_view beginning) {
    // Reading the words of a log requires an end behind every line, and padding behind the last one.
    std::string run(beginning);
    run += '\n';
    const std::size_t size = run.size();
    run.append(qorReadLinesPadding, '\0');
    const char* next = run.data();
    bool is_blank = true;
    for (std::string_view line; log_fields::next_line(next, run.data() + size, line);) {
        if (is_blank && (begins_with(line, "<!doctype html") || begins_with(line, "<html")))
            return {file_kind::html};
        if (is_mtrace_line(line))
            return {file_kind::mtrace_log};
        if (is_memcheck_line(line))
            return {file_kind::memcheck_log};
        is_blank = is_blank && line.empty();
    }
    return {is_blank ? file_kind::blank_lines : file_kind::text};
}

} // namespace

bool has_foreign_signature(std::string_view beginning) noexcept { return find_signature(beginning) != nullptr; }

file_guess guess_file_kind(std::string_view beginning) {
    if (const signature* const found = find_signature(beginning))
        return found->what;
    if (std::all_of(beginning.begin(), beginning.end(), is_text))
        return guess_text_kind(beginning);
    const auto is_nothing = [](char c) { return c == '\0' || log_fields::is_space(c); };
    return {std::all_of(beginning.begin(), beginning.end(), is_nothing) ? file_kind::zero_bytes : file_kind::binary};
}

} // namespace qor::heap
