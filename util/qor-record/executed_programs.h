// The programs that recorded processes become or start: those that do not ask for an arena are not recorded, and are
// named at the end.
#pragma once

#include "arena_host.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace qor::record {

class executed_programs {
public:
    // Whether a program runs with an arena of its own in that process, since that time of the steady clock.
    using is_recorded = std::function<bool(std::int32_t process, std::uint64_t since)>;

    explicit executed_programs(is_recorded recorded) : m_is_recorded(std::move(recorded)) {}
    executed_programs(const executed_programs&) = delete;
    ~executed_programs();

    // The entries of an arena that are new.
    void read(const std::shared_ptr<arena_host>& host);
    // A process runs a program that no hook has announced.
    void add(std::int32_t process, std::string name);
    // A process has an arena of its own now.
    void forget(std::int32_t process);
    // Whether a process has executed a program that has no arena of its own, as far as is known.
    bool has(std::int32_t process) const;
    // Decides about the programs that have ended.
    void look();
    // Whether a program may still ask for an arena.
    bool are_starting() const;

    // At the end: the names of those that were not recorded, each with the numbers of its processes.
    std::map<std::string, std::vector<std::int32_t>> unrecorded();

private:
    struct entry {
        std::int32_t process;
        int handle;
        std::string name;
        std::uint64_t since;
        std::shared_ptr<arena_host> host; // null: it was not announced
        execution* place;
    };

    static bool is_withdrawn(const entry& of);
    static void release(entry& of);
    void name(const entry& of);

    is_recorded m_is_recorded;
    std::vector<entry> m_entries;
    std::map<std::string, std::vector<std::int32_t>> m_unrecorded;
};

} // namespace qor::record
