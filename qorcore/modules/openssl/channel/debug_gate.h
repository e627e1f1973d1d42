// Inside the module qor-openssl: limits the number of connections and sessions and the rate of login attempts. Uses no
// clock: callers pass the time. A source is the unit of counting on the peer's side: a user of this host, an address or
// a network (peer_source.h).
#pragma once

#include "qor/system/Types.h"

#include <array>
#include <chrono>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace qor::control {

using moment = std::chrono::steady_clock::time_point;

class gate {
public:
    static constexpr unsigned max_waiting = 32; // connections that are not logged in
    static constexpr unsigned max_waiting_of_source = 4;
    static constexpr std::chrono::seconds grace{5}; // a connection is safe from an equal source for this long

    static constexpr unsigned tries = 20; // wrong tries in `period`, from a source or at an account
    static constexpr std::chrono::seconds period{60};
    static constexpr std::chrono::seconds delay_at_account{2}; // of each try at an account that had this many
    static constexpr unsigned sources = 1024; // remembered; an attacker with more is slowed at the account

    static constexpr unsigned sessions = 64; // connections that are logged in
    static constexpr unsigned sessions_of_account = 8;

    // ---- before a login

    using place = uint64; // 0: no place

    // Admits a connection of a source and returns its place. If there is no room, an older connection loses its place:
    // one of the same source if that has reached its own limit, otherwise one of the source that would have the most.
    // `loser` is the place that was lost, or 0. Returns 0 if the new connection is turned away.
    place enter(std::string_view source, moment now, place& loser);
    void leave(place which); // does nothing for a place that was already left or lost

    // ---- a login

    // The delay before a login attempt is processed.
    std::chrono::seconds delay(std::string_view account, moment now);
    // Returns false if there were too many wrong tries lately; `next` is the time to ask again. An account with too
    // many wrong tries, from any source, stays open to sources without wrong tries, so guesses of a stranger lock
    // nobody else out.
    bool may_try(std::string_view source, std::string_view account, moment now, moment& next);
    void count_wrong_try(std::string_view source, std::string_view account, moment now);

    // ---- after a login

    // Returns false if the limit of sessions is reached.
    bool begin_session(std::string_view account);
    void end_session(std::string_view account);

    // Drops expired entries.
    void forget(moment now);

private:
    struct entry {
        place number;
        std::string source;
        moment since;
    };
    using recent = std::vector<moment>; // wrong tries, at most as many as the limit

    unsigned places_of(std::string_view source) const noexcept;
    recent& at_account(std::string_view account) noexcept;
    void make_room();
    bool is_pressed(std::string_view account, moment now);

    std::vector<entry> m_places; // oldest first
    place m_last_place = 0;
    std::map<std::string, recent, std::less<>> m_sources;
    // Indexed by a hash of the name, so that a flood of names cannot displace an account. Accounts with the same index
    // are merely slowed together.
    std::array<recent, 1024> m_accounts;
    std::map<std::string, unsigned, std::less<>> m_sessions;
    unsigned m_session_count = 0;
};

} // namespace qor::control
