// Inside the module qor-openssl: how many may try to log in, and how often. Pure: the time is given.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace qor::control {

using moment = std::chrono::steady_clock::time_point;

class gate {
public:
    static constexpr unsigned room = 32;          // connections that are not logged in
    static constexpr unsigned room_at_ease = 24;  // from here on some are turned away by lot, so that a crowd that stays
                                                  // does not keep everyone else out
    static constexpr unsigned room_per_neighbour = 4;
    static constexpr unsigned tries = 20; // wrong ones, of a neighbour, in `period`
    static constexpr std::chrono::seconds period{60};
    static constexpr unsigned neighbours = 1024; // who has more addresses than that is not held up by addresses

    // `lot` gives a number below its argument.
    explicit gate(std::function<unsigned(unsigned)> lot) : m_lot(std::move(lot)) {}

    // A connection of a neighbour begins. False: there is no room for it.
    bool enter(const std::string& neighbour);
    // It is logged in, or has ended before.
    void leave(const std::string& neighbour);

    // False: too many tries lately; the next may be made at next_try.
    bool take_try(const std::string& neighbour, moment now);
    moment next_try(const std::string& neighbour) const;
    // A try that was right does not count.
    void give_back_try(const std::string& neighbour);

    // Forgets what is over.
    void forget(moment now);

private:
    struct record {
        unsigned waiting = 0;        // connections
        std::vector<moment> tries{}; // of the last period, at most so many
    };

    void make_room();
    void drop_if_empty(std::map<std::string, record>::iterator at);

    std::function<unsigned(unsigned)> m_lot;
    unsigned m_waiting = 0;
    std::map<std::string, record> m_neighbours;
};

} // namespace qor::control
