// The file of accounts, beside a reader that is written for nothing but to be obviously right.
#include "login/accounts.h"
#include "plain_messages.h"

#include <cstdint>
#include <map>

namespace {

using qor::control::account_list;
using fault = account_list::fault;

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines(1);
    for (const char c : text)
        if (c == '\n')
            lines.emplace_back();
        else
            lines.back() += c;
    if (lines.back().empty())
        lines.pop_back();
    for (std::string& line : lines)
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
    return lines;
}

bool is_plain_name(const std::string& name) {
    bool plain = !name.empty() && name.size() < 256 && name[0] != '#' && name[0] != ' ' && name[name.size() - 1] != ' ';
    for (std::size_t i = 0; i < name.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(name[i]);
        const unsigned char next = i + 1 < name.size() ? static_cast<unsigned char>(name[i + 1]) : 0;
        plain = plain && c != ':' && c >= ' ' && c != 127 && !(c == 0xc2 && next >= 0x80 && next <= 0x9f);
    }
    return plain;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    std::map<std::string, std::string> expected;
    fault what = fault::none;
    unsigned line = 0;
    std::string text;
    for (const std::string& each : lines_of(std::string(input))) {
        ++line;
        text += each + '\n';
        if (each.empty() || each[0] == '#')
            continue;
        const std::size_t colon = each.find(':');
        const std::string name = each.substr(0, colon);
        qor::crypto::verifier ignored;
        if (colon == each.npos)
            what = fault::no_colon;
        else if (!is_plain_name(name))
            what = fault::bad_name;
        else if (!qor::crypto::parse_verifier(each.substr(colon + 1), ignored))
            what = fault::bad_verifier;
        else if (expected.count(name) != 0)
            what = fault::twice;
        if (what != fault::none)
            break;
        expected[name] = each.substr(colon + 1);
    }

    account_list list;
    unsigned found_line;
    fault found;
    require(list.parse(input, found_line, found) == (what == fault::none) && found == what);
    require(what == fault::none || found_line == line);
    if (what != fault::none)
        return 0;
    require(list.format() == text && list.names().size() == expected.size());
    for (const auto& [name, form] : expected) {
        const qor::crypto::verifier* const value = list.find(name);
        require(value != nullptr && qor::crypto::format_verifier(*value) == form);
    }
    // Each can be taken out, and the others stay.
    for (const auto& [name, form] : expected) {
        require(list.remove(name) && list.find(name) == nullptr && !list.remove(name));
        require(list.names().size() < expected.size());
    }
    require(list.names().empty());
    return 0;
}
