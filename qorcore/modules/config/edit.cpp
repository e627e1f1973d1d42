#include "edit.h"

#include "message_names.h"

#include <algorithm>
#include <set>

namespace framework = qor::messages::framework;

namespace {

using config::form;
using config::node;
using config::outline;
using config::part;
using config::statement;

using steps = std::vector<part>;
using step_iterator = steps::const_iterator;

constexpr std::string_view blanks = " \t";

// Names between dots, in quotes where they need them.
std::string key_of(const std::vector<std::string>& names) {
    qorString key;
    for (const std::string& name : names)
        qorAddConfigName(key, name);
    return std::string(std::string_view(key));
}

std::vector<std::string> names_of(step_iterator begin, step_iterator end) {
    std::vector<std::string> names;
    for (; begin != end; ++begin)
        if (!begin->is_index)
            names.push_back(begin->name);
    return names;
}

step_iterator first_index(step_iterator begin, step_iterator end) {
    return std::find_if(begin, end, [](const part& step) { return step.is_index; });
}

// A value in which the rest of a path leads to `literal`: for `a[0]` it is {a = [literal]}.
std::string enclosed(step_iterator begin, step_iterator end, std::string_view literal) {
    if (begin == end)
        return std::string(literal);
    if (begin->is_index)
        return "[" + enclosed(begin + 1, end, literal) + "]";
    const step_iterator names_end = first_index(begin, end);
    return "{ " + key_of(names_of(begin, names_end)) + " = " + enclosed(names_end, end, literal) + " }";
}

// The same as an entry: the names up to the first index, and the value.
std::string entry_of(std::vector<std::string> names, step_iterator begin, step_iterator end, std::string_view literal) {
    const step_iterator names_end = first_index(begin, end);
    for (const std::string& name : names_of(begin, names_end))
        names.push_back(name);
    return key_of(names) + " = " + enclosed(names_end, end, literal);
}

void collect(const node& from, std::set<const node*>& all) {
    all.insert(&from);
    for (const node::entry& each : from.entries)
        collect(*each.value, all);
}

std::size_t begin_of_line(std::string_view text, std::size_t at) noexcept {
    const std::size_t before = at == 0 ? text.npos : text.rfind('\n', at - 1);
    return before == text.npos ? 0 : before + 1;
}

std::size_t skip(std::string_view text, std::size_t at, std::string_view bytes) noexcept {
    return std::min(text.find_first_not_of(bytes, at), text.size());
}

// Skips blanks, ends of lines and comments.
std::size_t skip_filling(std::string_view text, std::size_t at) noexcept {
    while (at = skip(text, at, " \t\r\n"), at < text.size() && text[at] == '#')
        at = std::min(text.find('\n', at), text.size());
    return at;
}

// The end of the line if only a comment follows, otherwise npos.
std::size_t end_of_line(std::string_view text, std::size_t at) noexcept {
    at = skip(text, at, blanks);
    if (at < text.size() && text[at] == '#')
        at = std::min(text.find('\n', at), text.size());
    if (at < text.size() && text[at] == '\r')
        ++at;
    return at == text.size() || text[at] == '\n' ? at : text.npos;
}

class editor {
public:
    editor(const outline& tree, std::string& text) : m_tree(tree), m_text(text) {
        const std::size_t first = text.find('\n');
        m_line_end = first != text.npos && first != 0 && text[first - 1] == '\r' ? "\r\n" : "\n";
    }

    config::refusal set(const steps& path, std::string_view literal) {
        std::vector<const node*> way = {&m_tree.root};
        auto rest = path.begin();
        for (; rest != path.end(); ++rest) {
            const node* const next = way.back()->find(*rest);
            if (next == nullptr)
                break;
            way.push_back(next);
        }
        const node& at = *way.back();
        if (rest == path.end()) {
            if (at.written != form::scalar && at.written != form::inlined)
                return framework::table_of_lines;
            m_text.replace(at.place.begin, at.place.end - at.place.begin, literal);
            return 0;
        }
        if (at.value.kind != (rest->is_index ? qorConfigKind::array : qorConfigKind::table))
            return framework::no_table_on_the_way;
        const bool is_behind = !rest->is_index || rest->index == part::new_element || rest->index == at.entries.size();
        const bool is_new = std::none_of(rest + 1, path.end(), [](const part& step) {
            return step.is_index && step.index != 0 && step.index != part::new_element;
        });
        if (!is_behind || !is_new)
            return framework::no_element_before;
        return add(path, way, rest, literal);
    }

    void remove(const steps& path) {
        std::vector<const node*> way = {&m_tree.root};
        for (const part& step : path)
            way.push_back(way.back()->find(step));
        std::set<const node*> gone;
        collect(*way.back(), gone);
        way.pop_back();
        if (const auto around = innermost_inlined(way); around != way.rend()) {
            for (std::size_t i = (*around)->pieces.size(); i-- > 0;)
                if (gone.contains((*around)->pieces[i].value))
                    remove_piece((*around)->pieces, i);
            return;
        }
        for (std::size_t i = m_tree.statements.size(); i-- > 1;) {
            const statement& each = m_tree.statements[i];
            // The names below a header are gone with it already; what stands between them goes now.
            if (gone.contains(each.value) && (each.is_header || !gone.contains(m_tree.statements[each.section].value)))
                m_text.erase(each.lines.begin, end_of_section(i) - each.lines.begin);
        }
    }

private:
    // The innermost value on the way in which what follows is only a piece.
    static std::vector<const node*>::const_reverse_iterator innermost_inlined(const std::vector<const node*>& way) {
        return std::find_if(way.rbegin(), way.rend(), [](const node* each) { return each->written == form::inlined; });
    }

    // Where the last name under a header ends; for a name, where it ends itself.
    std::size_t end_of_section(std::size_t header) const noexcept {
        std::size_t end = m_tree.statements[header].lines.end;
        for (std::size_t i = header + 1; i < m_tree.statements.size() && !m_tree.statements[i].is_header; ++i)
            if (m_tree.statements[header].is_header)
                end = m_tree.statements[i].lines.end;
        return end;
    }

    config::refusal add(const steps& path, const std::vector<const node*>& way, step_iterator rest,
                        std::string_view literal) {
        const node& at = *way.back();
        if (at.written == form::inlined && at.value.kind == qorConfigKind::array) {
            add_piece(at, enclosed(rest + 1, path.end(), literal));
            return 0;
        }
        if (const auto around = innermost_inlined(way); around != way.rend()) {
            const auto begin = path.begin() + (way.rend() - around - 1);
            add_piece(**around, entry_of(names_of(begin, rest), rest, path.end(), literal));
            return 0;
        }
        const std::vector<std::string> here = names_of(path.begin(), rest);
        if (at.written == form::list) {
            if (rest + 1 == path.end() || (rest + 1)->is_index)
                return framework::table_of_lines;
            add_section(way, "[[" + key_of(here) + "]]", entry_of({}, rest + 1, path.end(), literal));
            return 0;
        }
        if (at.written == form::dotted) {
            add_line(last_in(at), entry_of(names_since_section(way, path), rest, path.end(), literal));
            return 0;
        }
        // Names up to the first index: all but the last are tables, and so is the last if a name follows the index.
        const step_iterator index = first_index(rest, path.end());
        const bool is_list = index != path.end() && index + 1 != path.end() && !(index + 1)->is_index;
        const std::vector<std::string> names = names_of(rest, index);
        std::vector<std::string> section = here;
        section.insert(section.end(), names.begin(), names.end() - (is_list ? 0 : 1));
        if (is_list)
            add_section(way, "[[" + key_of(section) + "]]", entry_of({}, index + 1, path.end(), literal));
        else if (names.size() > 1 || at.written == form::implicit)
            add_section(way, "[" + key_of(section) + "]", entry_of({names.back()}, index, path.end(), literal));
        else
            add_to_section(at.section, entry_of({}, rest, path.end(), literal));
        return 0;
    }

    // The names on the way behind the table whose section a dotted table is in.
    std::vector<std::string> names_since_section(const std::vector<const node*>& way, const steps& path) const {
        const auto table = std::find(way.begin(), way.end(), m_tree.statements[way.back()->section].value);
        const auto first = path.begin() + (table - way.begin());
        return names_of(first, path.begin() + static_cast<std::ptrdiff_t>(way.size()) - 1);
    }

    // The last statement that something in a tree comes from; of a dotted table, in its own section: headers may add to
    // it elsewhere.
    const statement& last_in(const node& tree) const {
        std::set<const node*> all;
        collect(tree, all);
        return *std::find_if(m_tree.statements.rbegin(), m_tree.statements.rend() - 1, [&](const statement& each) {
            return all.contains(each.value) && (tree.written != form::dotted || each.section == tree.section);
        });
    }

    std::string indentation(const statement& of) const {
        return m_text.substr(of.lines.begin, of.place.begin - of.lines.begin);
    }

    void insert_lines(std::size_t at, std::string lines) {
        const bool is_first = at <= m_tree.statements.front().place.begin;
        if (!is_first && m_text[at - 1] != '\n')
            lines = m_line_end + lines;
        m_text.insert(at, lines);
    }

    // A line of its own behind a statement.
    void add_line(const statement& last, const std::string& entry) {
        insert_lines(last.lines.end, indentation(last) + entry + m_line_end);
    }

    void add_to_section(std::size_t section, const std::string& entry) {
        const auto& all = m_tree.statements;
        const auto begin = all.begin() + static_cast<std::ptrdiff_t>(section);
        const auto next = std::find_if(begin + 1, all.end(), [](const statement& each) { return each.is_header; });
        if (next != begin + 1 || section != 0) {
            add_line(*(next - 1), entry);
        } else if (next == all.end()) {
            insert_lines(m_text.size(), entry + m_line_end);
        } else {
            // In front of the first header and the comment on it.
            std::size_t at = next->lines.begin;
            const std::size_t begin_of_text = begin->place.begin;
            for (std::size_t line; at > begin_of_text; at = line) {
                line = std::max(begin_of_text, begin_of_line(m_text, at - 1));
                if (m_text[skip(m_text, line, blanks)] != '#')
                    break;
            }
            insert_lines(at, entry + m_line_end + m_line_end);
        }
    }

    // A new section: in an element of a list behind everything in it, otherwise at the end.
    void add_section(const std::vector<const node*>& way, const std::string& header, const std::string& entry) {
        std::size_t at = m_text.size();
        for (std::size_t i = way.size() - 1; i > 0; --i)
            if (way[i - 1]->written == form::list) {
                at = last_in(*way[i]).lines.end;
                break;
            }
        std::string lines = header + m_line_end + entry + m_line_end;
        const bool is_first = at <= m_tree.statements.front().place.begin;
        if (!is_first)
            lines = m_line_end + lines;
        insert_lines(at, lines);
    }

    // One more piece at the end of an inlined array or table.
    void add_piece(const node& to, const std::string& piece) {
        if (to.pieces.empty()) {
            if (to.value.kind == qorConfigKind::table)
                m_text.replace(to.place.begin, to.place.end - to.place.begin, "{ " + piece + " }");
            else
                m_text.insert(to.place.begin + 1, piece);
            return;
        }
        const std::size_t last_begin = to.pieces.back().place.begin, last_end = to.pieces.back().place.end;
        const std::size_t line = begin_of_line(m_text, last_begin);
        const bool has_lines = line > to.place.begin && skip(m_text, line, blanks) == last_begin;
        const std::size_t behind = skip_filling(m_text, last_end);
        const bool has_comma = m_text[behind] == ',';
        const std::size_t end = end_of_line(m_text, has_comma ? behind + 1 : last_end);
        if (has_lines && end != m_text.npos) {
            std::size_t at = end;
            if (at > 0 && m_text[at - 1] == '\r')
                --at;
            m_text.insert(at, m_line_end + m_text.substr(line, last_begin - line) + piece + (has_comma ? "," : ""));
            if (!has_comma)
                m_text.insert(last_end, ",");
        } else if (has_comma) {
            m_text.insert(behind + 1, " " + piece + ",");
        } else {
            m_text.insert(last_end, ", " + piece);
        }
    }

    // Removes a piece with its comma. Pieces behind it may have been removed before.
    void remove_piece(const std::vector<node::piece>& pieces, std::size_t index) {
        std::size_t begin = pieces[index].place.begin, end = pieces[index].place.end;
        const std::size_t behind = skip_filling(m_text, end);
        const bool has_comma = m_text[behind] == ',';
        if (has_comma)
            end = behind + 1;
        const std::size_t line = begin_of_line(m_text, begin);
        const std::size_t line_end = end_of_line(m_text, end);
        if (skip(m_text, line, blanks) == begin && line_end != m_text.npos) {
            begin = line;
            end = std::min(line_end + 1, m_text.size());
        } else if (has_comma) {
            end = skip(m_text, end, blanks);
        } else if (index > 0) {
            // The comma in front may stay where it ends a line: there, in an array, it is permitted.
            const std::size_t comma = skip_filling(m_text, pieces[index - 1].place.end);
            if (skip(m_text, comma + 1, blanks) == begin)
                begin = comma;
        }
        m_text.erase(begin, end - begin);
    }

    const outline& m_tree;
    std::string& m_text;
    std::string m_line_end;
};

// Whether a table without lines of its own has this entry alone.
bool is_held_by(const node& table, const part& step) noexcept {
    return (table.written == form::implicit || table.written == form::dotted) && table.entries.size() == 1 &&
           table.entries.front().name == step.name;
}

bool is_only_changed_at(const node* before, const node* after, step_iterator at, step_iterator end,
                        const node* wanted) {
    if (at == end)
        return wanted == nullptr ? after == nullptr : after != nullptr && is_equal(*after, *wanted);
    if (after == nullptr) // gone with its last entry
        return wanted == nullptr && before != nullptr &&
               (at->is_index ? before->written == form::list && before->entries.size() == 1
                             : is_held_by(*before, *at)) &&
               is_only_changed_at(before->entries.front().value.get(), nullptr, at + 1, end, nullptr);
    const std::size_t count_before = before != nullptr ? before->entries.size() : 0;
    const std::size_t count_after = after->entries.size();
    if (after->value.kind != (at->is_index ? qorConfigKind::array : qorConfigKind::table) ||
        (before != nullptr && before->value.kind != after->value.kind))
        return false;
    part step = *at;
    if (step.is_index && step.index == part::new_element)
        step.index = static_cast<uint32>(count_before);
    const node* const one = before != nullptr ? before->find(step) : nullptr;
    const bool is_gone = wanted == nullptr && count_after + 1 == count_before;
    const node* const other = is_gone ? nullptr : after->find(step);
    if (count_after + (is_gone ? 1 : 0) != count_before + (one == nullptr ? 1 : 0))
        return false;
    for (std::size_t i = 0; i < count_before; ++i) {
        const node::entry& each = before->entries[i];
        if (each.value.get() == one)
            continue;
        part same = step;
        same.name = each.name;
        same.index = static_cast<uint32>(is_gone && i > step.index ? i - 1 : i);
        const node* const kept = after->find(same);
        if (kept == nullptr || !is_equal(*each.value, *kept))
            return false;
    }
    return is_only_changed_at(one, other, at + 1, end, wanted);
}

} // namespace

config::refusal config::set(const outline& tree, std::string& text, const std::vector<part>& path,
                            std::string_view literal) {
    return editor(tree, text).set(path, literal);
}

void config::remove(const outline& tree, std::string& text, const std::vector<part>& path) {
    editor(tree, text).remove(path);
}

bool config::is_only_changed(const node& before, const node& after, const std::vector<part>& path, const node* wanted) {
    return is_only_changed_at(&before, &after, path.begin(), path.end(), wanted);
}
