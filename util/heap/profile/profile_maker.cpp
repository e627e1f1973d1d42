#include "profile_maker.h"

#include "caller_text.h"
#include "heap/table/hashing.h"

namespace qor::heap {

bool is_same_place(const profile::place& a, const profile::place& b) noexcept {
    return a.node == b.node && a.caller == b.caller && a.type_name == b.type_name && a.file == b.file &&
           a.line == b.line && a.type == b.type;
}

uint32 hash_of_place(const profile::place& of) noexcept {
    uint64 state = hashing::mix(hashing::key ^ of.type, uint64{of.node} << 32 | of.caller);
    state = hashing::mix(state, uint64{of.type_name} << 32 | of.file);
    return hashing::finish(hashing::mix(state, static_cast<uint32>(of.line)));
}

profile_maker::profile_maker(const origin_table& origins, const stacks_log& stacks)
    : m_origins(origins), m_stacks(stacks), m_numbers(m_made), m_nodes(stacks.nodes().size()),
      m_modules(stacks.modules().size()) {
    m_made.has_stacks = stacks.is_open();
    m_made.has_times = stacks.has_times();
    const stacks_log::process& of = stacks.of();
    m_made.processes.push_back({of.pid, of.parent, of.start_ns, of.depth, of.path, of.recorder, {}});
    for (const stacks_log::loss& each : stacks.losses()) {
        m_made.losses.push_back({each.records, each.reason});
        m_made.totals.lost_records += each.records;
    }
}

uint32 profile_maker::module_of(uint32 recorded) {
    if (recorded != 0 && m_modules[recorded] == 0) {
        const stacks_log::module& from = m_stacks.modules()[recorded];
        m_modules[recorded] = m_numbers.module({from.path, from.build_id, from.base, from.begin, from.end});
    }
    return m_modules[recorded];
}

void profile_maker::need_node(uint32 recorded) {
    for (; recorded != 0 && m_nodes[recorded] == 0; recorded = m_stacks.nodes()[recorded].parent)
        m_nodes[recorded] = 1;
}

void profile_maker::take_nodes() {
    const piecewise<stacks_log::node>& from = m_stacks.nodes();
    m_numbers.nodes(
        m_nodes, [&](std::size_t i) { return from[i].parent; },
        [&](std::size_t i) {
            return m_numbers.frame({module_of(from[i].module), from[i].address});
        });
}

uint32 profile_maker::node_of_caller(std::string_view caller) {
    const auto found = place_in_caller(caller);
    if (!found)
        return 0;
    profile::module in;
    in.path = found->path;
    return m_numbers.node(m_numbers.frame({m_numbers.module(in), found->address}));
}

uint32 profile_maker::text_of(uint32 origin_text) {
    if (origin_text >= m_texts.size())
        m_texts.resize(origin_text + std::size_t{1});
    if (m_texts[origin_text] == 0)
        m_texts[origin_text] = m_numbers.text(m_origins.printed(origin_text));
    return m_texts[origin_text];
}

profile::place& profile_maker::place_of(const profile::place& wanted) {
    const uint32 hash = hash_of_place(wanted);
    if (const number_index::cell* const found =
            m_places.find(hash, [&](uint32 each) { return is_same_place(m_made.places[each], wanted); }))
        return m_made.places[found->number];
    m_places.add(hash, static_cast<uint32>(m_made.places.size()));
    return m_made.places.emplace_back(wanted);
}

void profile_maker::count(bool are_inherited, const place_tallies::result& found) {
    (are_inherited ? m_made.totals.inherited : m_made.totals.allocated) += found.allocated;
    if (!are_inherited)
        m_made.totals.temporary += found.temporary;
}

void profile_maker::add(uint32 origin, uint32 node, bool are_inherited, const place_tallies::result& found) {
    const origin_table::origin& from = m_origins.get(origin);
    profile::place wanted;
    wanted.caller = text_of(from.caller);
    wanted.node = node != 0 ? m_nodes[node] : node_of_caller(m_origins.printed(from.caller));
    wanted.type_name = text_of(from.type_name);
    wanted.file = text_of(from.file);
    wanted.line = from.line;
    wanted.type = from.type;
    profile::place& to = place_of(wanted);
    to.live += found.live;
    to.at_peak += found.at_peak;
    if (!are_inherited) {
        to.allocated += found.allocated;
        to.temporary += found.temporary;
    }
    if (to.growth < found.growth)
        to.growth = found.growth;
}

} // namespace qor::heap
