#include "profile_builder.h"

#include "profile_maker.h"

#include <thread>

namespace qor::heap {

namespace {

constexpr auto ask_step = std::chrono::milliseconds(100);
constexpr auto follow_step = std::chrono::milliseconds(20);

// A recorder writes the log and the stacks of the same records at different times, but not that much.
constexpr auto stacks_patience = std::chrono::seconds(3);

bool has_blocks(const place_tallies::result& found, places_with wanted) noexcept {
    switch (wanted) {
    case places_with::live:
        return found.live.blocks != 0;
    case places_with::at_peak:
        return found.at_peak.blocks != 0;
    case places_with::allocated:
        return found.allocated.blocks != 0;
    case places_with::temporary:
        return found.temporary.blocks != 0;
    case places_with::any:
        break;
    }
    // A block whose type became known after the peak was at another place then.
    return found.allocated.blocks != 0 || found.at_peak.blocks != 0;
}

} // namespace

profile_builder::profile_builder(ask goes_on, uint32 places)
    : m_goes_on(std::move(goes_on)), m_replay(std::make_unique<engine>(*this, 0)) {
    m_replay->limit_origins(places);
}

profile_builder::~profile_builder() { m_replay->free_all(); }

bool profile_builder::open_mtrace(const std::string& path) { return m_replay->open_mtrace(path.c_str()); }
bool profile_builder::open_memcheck(const std::string& path) { return m_replay->open_memcheck(path.c_str()); }

void profile_builder::follow() {
    m_follows = true;
    m_replay->follow();
    m_stacks.set_at_end([this, waits = 0]() mutable {
        const bool waits_on = ++waits < stacks_patience / follow_step;
        if (!waits_on)
            return false;
        ask_now();
        std::this_thread::sleep_for(follow_step);
        return true;
    });
}

void profile_builder::run() {
    m_asked = std::chrono::steady_clock::now();
    try {
        if (m_last_record != 0)
            m_replay->run();
    } catch (const end_of_reading&) {
    }
}

void profile_builder::ask_now() {
    m_asked = std::chrono::steady_clock::now();
    if (m_goes_on && !m_goes_on()) {
        m_was_ended = true;
        throw end_of_reading();
    }
}

void profile_builder::progress(uint32 count) {
    constexpr uint32 seldom = 1000; // asking the clock takes as long as a few records
    if (count % seldom == 0 && std::chrono::steady_clock::now() - m_asked > ask_step)
        ask_now();
}

uint32 profile_builder::next_stack() {
    const uint32 node = m_stacks.next();
    return 2 * node + m_stacks.is_inherited();
}

// The part of the run begins with the state before the record.
inline void profile_builder::begin_record() {
    if (m_timeline.records() == m_part_end) [[unlikely]]
        begin_parts();
}

void profile_builder::begin_parts() {
    m_places.begin_part();
    if (m_part_end == m_part_length * place_tallies::most_parts)
        m_part_length *= 2;
    m_part_end += m_part_length;
}

inline void profile_builder::end_record() {
    if (m_timeline.add(m_live, [this] { return m_stacks.time_ns(); }))
        m_places.set_peak();
    if (m_timeline.records() >= m_last_record) [[unlikely]]
        throw end_of_reading();
}

void profile_builder::allocation(const block& of) {
    if (is_left_out(of.origin))
        return;
    begin_record();
    m_places.allocate(of.origin, of.size);
    m_live.bytes += of.size;
    ++m_live.blocks;
    m_recent = of.address;
    end_record();
}

void profile_builder::release(const block& of) {
    if (is_left_out(of.origin))
        return;
    begin_record();
    m_places.release(of.origin, of.size);
    m_live.bytes -= of.size;
    --m_live.blocks;
    if (of.address == m_recent)
        m_places.add_temporary(of.origin, of.size);
    m_recent = 0;
    end_record();
}

// Only allocation logs have this event, and they have no inherited blocks.
void profile_builder::origin_changed(const block& of, uint32 before) {
    if (before != of.origin)
        m_places.move(before, of.origin, of.size);
}

// The C library lets a program release the null pointer.
void profile_builder::add_bad_free(uint64 address, std::string_view caller) {
    if (address == 0)
        return;
    begin_record();
    m_recent = 0;
    if (m_bad_frees.size() < profile::most_bad_frees) {
        m_texts.texts.emplace_back(caller.substr(0, caller.find('\0')));
        m_bad_frees.push_back({static_cast<uint32>(m_texts.texts.size() - 1), address, m_timeline.records() + 1});
    }
    ++m_sums.bad_frees;
    end_record();
}

profile::moment profile_builder::now() const { return {m_stacks.time_ns(), m_timeline.records(), m_live}; }

void profile_builder::add_places(places_with wanted, profile_maker& to) {
    const auto stack_of = [this](uint32 origin) { return m_replay->origins().get(origin).stack; };
    std::vector<uint32> kept;
    for (uint32 origin = 0; origin < m_places.count(); ++origin) {
        const place_tallies::result found = m_places.sums_of(origin);
        to.count(is_inherited(stack_of(origin)), found);
        if (!has_blocks(found, wanted))
            continue;
        kept.push_back(origin);
        to.need_node(node_of(stack_of(origin)));
    }
    to.take_nodes();
    to.reserve(kept.size());
    for (const uint32 origin : kept)
        to.add(origin, node_of(stack_of(origin)), is_inherited(stack_of(origin)), m_places.of(origin));
}

profile profile_builder::make_profile(places_with wanted) {
    profile_maker maker(m_replay->origins(), m_stacks);
    profile& made = maker.made();
    made.totals = m_sums;
    made.totals.live = m_live;
    made.totals.records = m_timeline.records();
    made.totals.peak = m_timeline.peak();
    made.timeline = m_timeline.moments(now());
    for (profile::bad_free each : m_bad_frees) {
        each.caller = maker.text(m_texts.texts[each.caller]);
        made.bad_frees.push_back(each);
    }
    add_places(wanted, maker);
    using ending = stacks_log::ending;
    const ending stacks = m_stacks.how_it_ended();
    made.is_partial = m_was_ended || !m_replay->mtrace().failure().IsEmpty() ||
                      !m_replay->memcheck().failure().IsEmpty() ||
                      (m_stacks.is_open() && stacks != ending::not_reached && stacks != ending::whole);
    return std::move(made);
}

} // namespace qor::heap
