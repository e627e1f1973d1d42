#include "debug_gate.h"

#include <algorithm>
#include <functional>

namespace {

using qor::control::gate;
using qor::control::moment;

void drop_old(std::vector<moment>& tries, moment now) {
    std::erase_if(tries, [now](moment made) { return now - made >= gate::period; });
}

} // namespace

qor::control::gate::place qor::control::gate::enter(std::string_view source, moment now, place& loser) {
    loser = 0;
    const unsigned own = places_of(source);
    auto at = m_places.end();
    bool at_once = false;
    if (own >= max_waiting_of_source) {
        at = std::find_if(m_places.begin(), m_places.end(), [&](const entry& each) { return each.source == source; });
    } else if (m_places.size() >= max_waiting) {
        unsigned most = 0;
        for (auto each = m_places.begin(); each != m_places.end(); ++each)
            if (const unsigned count = each->source == source ? own + 1 : places_of(each->source); count > most) {
                most = count;
                at = each;
            }
        at_once = most > own + 1;
    }
    if (at != m_places.end()) {
        if (!at_once && now - at->since < grace)
            return 0;
        loser = at->number;
        m_places.erase(at);
    }
    m_places.push_back({++m_last_place, std::string(source), now});
    return m_last_place;
}

void qor::control::gate::leave(place which) {
    std::erase_if(m_places, [which](const entry& each) { return each.number == which; });
}

unsigned qor::control::gate::places_of(std::string_view source) const noexcept {
    return static_cast<unsigned>(
        std::count_if(m_places.begin(), m_places.end(), [source](const entry& each) { return each.source == source; }));
}

std::chrono::seconds qor::control::gate::delay(std::string_view account, moment now) {
    return is_pressed(account, now) ? delay_at_account : std::chrono::seconds(0);
}

bool qor::control::gate::may_try(std::string_view source, std::string_view account, moment now, moment& next) {
    const auto at = m_sources.find(source);
    if (at == m_sources.end())
        return true;
    recent& made = at->second;
    drop_old(made, now);
    const unsigned limit = is_pressed(account, now) ? 1 : tries;
    if (made.size() < limit)
        return true;
    next = made[made.size() - limit] + period;
    return false;
}

void qor::control::gate::count_wrong_try(std::string_view source, std::string_view account, moment now) {
    if (m_sources.size() >= sources && !m_sources.contains(source))
        make_room();
    for (recent* const each : {&m_sources[std::string(source)], &at_account(account)}) {
        if (each->size() == tries)
            each->erase(each->begin());
        each->push_back(now);
    }
}

bool qor::control::gate::begin_session(std::string_view account) {
    const auto at = m_sessions.try_emplace(std::string(account)).first;
    if (m_session_count >= sessions || at->second >= sessions_of_account) {
        if (at->second == 0)
            m_sessions.erase(at);
        return false;
    }
    ++at->second;
    ++m_session_count;
    return true;
}

void qor::control::gate::end_session(std::string_view account) {
    const auto at = m_sessions.find(account);
    --m_session_count;
    if (--at->second == 0)
        m_sessions.erase(at);
}

void qor::control::gate::forget(moment now) {
    for (auto at = m_sources.begin(); at != m_sources.end();) {
        drop_old(at->second, now);
        at = at->second.empty() ? m_sources.erase(at) : std::next(at);
    }
    for (recent& each : m_accounts)
        drop_old(each, now);
}

qor::control::gate::recent& qor::control::gate::at_account(std::string_view account) noexcept {
    return m_accounts[std::hash<std::string_view>()(account) % m_accounts.size()];
}

// Forgets the source with the fewest wrong tries.
void qor::control::gate::make_room() {
    m_sources.erase(std::min_element(m_sources.begin(), m_sources.end(), [](const auto& one, const auto& other) {
        return one.second.size() < other.second.size();
    }));
}

bool qor::control::gate::is_pressed(std::string_view account, moment now) {
    recent& there = at_account(account);
    drop_old(there, now);
    return there.size() >= tries;
}
