// Inside the module qor-openssl: how many may be connected and logged in, and how often a login may be tried. Pure: the
// time is given. A source is what counts as one on the other side: a user of this host, an address, or a network
// (peer_source.h).
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
    static constexpr std::chrono::seconds grace{5}; // so long nobody has to make way for an equal

    static constexpr unsigned tries = 20; // wrong ones in `period`, of a source or at an account
    static constexpr std::chrono::seconds period{60};
    static constexpr std::chrono::seconds delay_at_account{2}; // of each try at an account that had so many
    static constexpr unsigned sources = 1024; // that are remembered; who has more is met at the account

    static constexpr unsigned sessions = 64; // connections that are logged in
    static constexpr unsigned sessions_of_account = 8;

    // ---- before a login

    using place = uint64; // 0: none

    // A connection of a source begins. Where there is no room for it, another one that stays makes way: of the same
    // source if that has all it may have, else of the source that would have the most. `loser`, or 0, has left. 0:
    // turned away.
    place enter(std::string_view source, moment now, place& loser);
    void leave(place which); // one that has left already is no matter

    // ---- a login

    // How long a try waits before it is looked at.
    std::chrono::seconds delay(std::string_view account, moment now);
    // False: there were too many lately; `next` is when to ask again. An account that had too many, from wherever,
    // stays open to sources that made none: a stranger's guesses keep nobody else out.
    bool may_try(std::string_view source, std::string_view account, moment now, moment& next);
    void count_wrong_try(std::string_view source, std::string_view account, moment now);

    // ---- after a login

    // False: there are as many as there may be.
    bool begin_session(std::string_view account);
    void end_session(std::string_view account);

    // Forgets what is over.
    void forget(moment now);

private:
    struct entry {
        place number;
        std::string source;
        moment since;
    };
    using recent = std::vector<moment>; // wrong tries, at most as many as count

    unsigned places_of(std::string_view source) const noexcept;
    recent& at_account(std::string_view account) noexcept;
    void make_room();
    bool is_pressed(std::string_view account, moment now);

    std::vector<entry> m_places; // in the order in which they came
    place m_last_place = 0;
    std::map<std::string, recent, std::less<>> m_sources;
    // By a hash of the name, so that no flood of names makes an account forgotten. Accounts that share a number are
    // only delayed together.
    std::array<recent, 1024> m_accounts;
    std::map<std::string, unsigned, std::less<>> m_sessions;
    unsigned m_session_count = 0;
};

} // namespace qor::control
