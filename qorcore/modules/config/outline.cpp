#include "tree.h"

#include <algorithm>

namespace {

using config::form;
using config::node;
using config::outline;
using config::statement;

class scanner {
public:
    scanner(std::string_view text, outline& out) noexcept : m_text(text), m_out(out) {}

    void run() {
        m_out.line_begins.push_back(0);
        for (std::size_t i = 0; i < m_text.size(); ++i)
            if (m_text[i] == '\n')
                m_out.line_begins.push_back(i + 1);
        m_out.root.written = form::root;
        m_out.root.value.kind = qorConfigKind::table;
        m_at = m_text.starts_with("\xef\xbb\xbf") ? 3 : 0;
        m_out.statements.push_back({true, {m_at, m_at}, {m_at, m_at}, &m_out.root, 0});
        m_table = &m_out.root;
        while (skip_lines(), m_at < m_text.size() && m_out.too_deep_line == 0) {
            const std::size_t begin = m_at;
            if (m_text[m_at] == '[')
                read_header();
            else
                read_pair();
            if (m_at == begin) // no text in TOML
                m_out.is_broken = true;
            skip_line();
        }
    }

private:
    char here() const noexcept { return m_at < m_text.size() ? m_text[m_at] : '\0'; }

    void skip_blanks() noexcept {
        while (here() == ' ' || here() == '\t')
            ++m_at;
    }

    void skip_line() noexcept { m_at = std::min(m_text.find('\n', m_at), m_text.size() - 1) + 1; }

    // Blanks, ends of lines and comments.
    void skip_lines() noexcept {
        for (;; ++m_at) {
            if (here() == '#')
                m_at = std::min(m_text.find('\n', m_at), m_text.size());
            if (here() != ' ' && here() != '\t' && here() != '\n' && here() != '\r')
                return;
        }
    }

    bool too_deep(std::size_t depth) {
        if (depth > qor::config::max_depth && m_out.too_deep_line == 0)
            m_out.too_deep_line = m_out.line_of(m_at);
        return depth > qor::config::max_depth;
    }

    // Reads names between dots. Returns false, and stays where it is, if no name stands there.
    bool read_key(std::vector<std::string>& key, std::size_t depth) {
        key.clear();
        do {
            if (!key.empty())
                ++m_at;
            skip_blanks();
            std::string name;
            if (!qor::config::read_name(m_text, m_at, name))
                return fail();
            key.push_back(std::move(name));
            if (too_deep(depth + key.size()))
                return false;
            skip_blanks();
        } while (here() == '.');
        return true;
    }

    bool fail() noexcept {
        m_out.is_broken = true;
        return false;
    }

    // The table that a step of a header leads to, which is made if it does not exist yet.
    node* enter(node& from, const std::string& name, std::size_t at) {
        node* next = from.find(name);
        if (next == nullptr)
            return &from.add(name, qorConfigKind::table, form::implicit, at);
        if (next->written == form::list)
            next = next->entries.back().value.get();
        return next;
    }

    void read_header() {
        const std::size_t begin = m_at;
        const std::size_t brackets = m_text.substr(m_at).starts_with("[[") ? 2 : 1;
        m_at += brackets;
        std::vector<std::string> key;
        if (!read_key(key, 0) || m_text.substr(m_at, brackets) != std::string_view("]]", brackets)) {
            fail();
            return;
        }
        m_at += brackets;
        node* table = &m_out.root;
        for (std::size_t i = 0; i + 1 < key.size(); ++i) {
            table = enter(*table, key[i], begin);
            if (table->value.kind != qorConfigKind::table) {
                fail();
                return;
            }
        }
        node* found = table->find(key.back());
        if (brackets == 2) {
            if (found == nullptr)
                found = &table->add(key.back(), qorConfigKind::array, form::list, begin);
            if (found->written != form::list) {
                fail();
                return;
            }
            found = &found->add({}, qorConfigKind::table, form::header, begin);
        } else if (found == nullptr) {
            found = &table->add(key.back(), qorConfigKind::table, form::header, begin);
        } else if (found->written != form::implicit) {
            fail();
            return;
        }
        found->written = form::header;
        found->place = {begin, m_at};
        found->section = m_out.statements.size();
        m_table = found;
        m_depth = key.size();
        m_section = m_out.statements.size();
        m_out.statements.push_back({true, {begin, m_at}, lines(begin, m_at), found, m_section});
    }

    void read_pair() {
        const std::size_t begin = m_at;
        const node* const value = read_entry(*m_table, m_depth, m_section);
        if (value != nullptr)
            m_out.statements.push_back(
                {false, {begin, value->place.end}, lines(begin, value->place.end), value, m_section});
    }

    // Whole lines around a piece, as far as nothing but a comment stands behind it.
    config::range lines(std::size_t begin, std::size_t end) const noexcept {
        const std::size_t behind = m_text.find('\n', end);
        return {m_out.line_begins[m_out.line_of(begin) - 1] == 0 ? m_out.statements.front().place.begin
                                                                 : m_out.line_begins[m_out.line_of(begin) - 1],
                behind == m_text.npos ? m_text.size() : behind + 1};
    }

    // A name with its value, on a line or in an inlined table.
    const node* read_entry(node& table, std::size_t depth, std::size_t section) {
        const std::size_t begin = m_at;
        std::vector<std::string> key;
        if (!read_key(key, depth))
            return nullptr;
        if (here() != '=') {
            fail();
            return nullptr;
        }
        ++m_at;
        skip_blanks();
        node* to = &table;
        for (std::size_t i = 0; i + 1 < key.size(); ++i) {
            node* next = to->find(key[i]);
            if (next == nullptr) {
                next = &to->add(key[i], qorConfigKind::table, form::dotted, begin);
                next->section = section;
            }
            to = next;
            if (to->value.kind != qorConfigKind::table) {
                fail();
                return nullptr;
            }
        }
        if (to->find(key.back()) != nullptr) {
            fail();
            return nullptr;
        }
        node& value = to->add(key.back(), qorConfigKind::none, form::scalar, m_at);
        return read_value(value, depth + key.size()) ? &value : nullptr;
    }

    bool read_value(node& value, std::size_t depth) {
        value.place.begin = m_at;
        bool is_whole = true;
        if (here() == '[' || here() == '{') {
            value.written = form::inlined;
            value.value.kind = here() == '[' ? qorConfigKind::array : qorConfigKind::table;
            is_whole = !too_deep(depth + 1) && read_inlined(value, depth + 1);
        } else if (here() == '"' || here() == '\'') {
            is_whole = read_quoted();
        } else {
            while (m_at < m_text.size() && std::string_view(",]}#\n\r").find(here()) == std::string_view::npos)
                ++m_at;
            while (m_at > value.place.begin && (m_text[m_at - 1] == ' ' || m_text[m_at - 1] == '\t'))
                --m_at;
        }
        value.place.end = m_at;
        return is_whole || fail();
    }

    bool read_quoted() {
        const char quote = here();
        const std::string three(3, quote);
        if (!m_text.substr(m_at).starts_with(three)) {
            std::string ignored;
            for (++m_at; m_at < m_text.size() && here() != '\n'; ++m_at) {
                if (here() == '\\' && quote == '"')
                    ++m_at;
                else if (here() == quote)
                    return ++m_at, true;
            }
            return false;
        }
        for (m_at += 3; m_at < m_text.size(); ++m_at) {
            if (here() == '\\' && quote == '"') {
                ++m_at;
            } else if (m_text.substr(m_at).starts_with(three)) {
                m_at += 3;
                // Up to two quotes may stand before the three that end the text.
                for (int i = 0; i < 2 && here() == quote; ++i)
                    ++m_at;
                return true;
            }
        }
        m_at = m_text.size();
        return false;
    }

    bool read_inlined(node& value, std::size_t depth) {
        const char closing = here() == '[' ? ']' : '}';
        ++m_at;
        for (;;) {
            skip_lines();
            if (m_at >= m_text.size())
                return false;
            if (here() == closing)
                return ++m_at, true;
            const std::size_t begin = m_at;
            if (closing == ']') {
                node& element = value.add({}, qorConfigKind::none, form::scalar, m_at);
                if (!read_value(element, depth))
                    return false;
                value.pieces.push_back({{begin, m_at}, &element});
            } else {
                const node* const entry = read_entry(value, depth, 0);
                if (entry == nullptr)
                    return false;
                value.pieces.push_back({{begin, m_at}, entry});
            }
            skip_lines();
            if (here() == ',')
                ++m_at;
            else if (here() != closing)
                return false;
        }
    }

    std::string_view m_text;
    outline& m_out;
    std::size_t m_at = 0;
    node* m_table = nullptr; // where entries go
    std::size_t m_depth = 0; // of that table
    std::size_t m_section = 0;
};

} // namespace

node& config::node::add(std::string name, qorConfigKind kind, form how, std::size_t at) {
    if (value.kind == qorConfigKind::table)
        names.emplace(name, entries.size());
    entries.push_back({std::move(name), std::make_unique<node>()});
    value.count = static_cast<uint32>(entries.size());
    node& made = *entries.back().value;
    made.value.kind = kind;
    made.written = how;
    made.place = {at, at};
    return made;
}

std::size_t config::outline::line_of(std::size_t at) const noexcept {
    return static_cast<std::size_t>(std::upper_bound(line_begins.begin(), line_begins.end(), at) - line_begins.begin());
}

std::size_t config::outline::column_of(std::string_view text, std::size_t at) const noexcept {
    const std::string_view before = text.substr(line_begins[line_of(at) - 1], at - line_begins[line_of(at) - 1]);
    return 1 + static_cast<std::size_t>(
                   std::count_if(before.begin(), before.end(), [](char byte) { return (byte & 0xc0) != 0x80; }));
}

void config::scan(std::string_view text, outline& out) {
    out = {};
    scanner(text, out).run();
}

const node* config::find(const node& root, const std::vector<part>& path) noexcept {
    const node* at = &root;
    for (const part& step : path)
        if (at = at->find(step); at == nullptr)
            break;
    return at;
}

bool config::is_equal(const node& one, const node& other) noexcept {
    const qorConfigValue &left = one.value, &right = other.value;
    if (left.kind != right.kind || one.entries.size() != other.entries.size() || one.text != other.text)
        return false;
    switch (left.kind) {
    case qorConfigKind::logical:
        return left.logical == right.logical;
    case qorConfigKind::integer:
        return left.integer == right.integer;
    case qorConfigKind::number:
        return left.number == right.number || (left.number != left.number && right.number != right.number);
    case qorConfigKind::time:
        return left.time == right.time;
    case qorConfigKind::array:
        return std::equal(one.entries.begin(), one.entries.end(), other.entries.begin(),
                          [](const auto& a, const auto& b) { return is_equal(*a.value, *b.value); });
    case qorConfigKind::table:
        return std::all_of(one.entries.begin(), one.entries.end(), [&other](const auto& each) {
            const node* const found = other.find(each.name);
            return found != nullptr && is_equal(*each.value, *found);
        });
    default:
        return true;
    }
}
