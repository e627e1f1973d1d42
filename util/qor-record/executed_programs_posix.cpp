#include "executed_programs.h"

#include "clocks.h"
#include "process_facts.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

namespace qor::record {

namespace {

// A program that is recorded asks while it is being loaded.
constexpr std::uint64_t loading_time = 1'000'000'000;

} // namespace

executed_programs::~executed_programs() {
    for (entry& each : m_entries)
        release(each);
}

void executed_programs::read(const std::shared_ptr<arena_host>& host) {
    if (!host->has_new_executions())
        return;
    for (execution& each : host->shared().executions) {
        const std::int32_t process = each.process.load(std::memory_order_acquire);
        if (process <= 0 || std::ranges::any_of(m_entries, [&](const entry& known) { return known.place == &each; }))
            continue;
        const bool is_new_process = each.is_new_process != 0;
        entry added{process,
                    open_process(process),
                    std::string(each.program, ::strnlen(each.program, sizeof each.program)),
                    steady_time(),
                    host,
                    &each};
        // One that was started may have asked before it was announced.
        if (is_new_process && m_is_recorded(process, 0))
            release(added);
        else
            m_entries.push_back(std::move(added));
    }
}

void executed_programs::add(std::int32_t process, std::string name) {
    if (!has(process))
        m_entries.push_back({process, open_process(process), std::move(name), steady_time(), nullptr, nullptr});
}

// A process whose execution has failed takes the entry back itself.
bool executed_programs::is_withdrawn(const entry& of) {
    return of.place != nullptr && of.place->process.load(std::memory_order_acquire) != of.process;
}

void executed_programs::release(entry& of) {
    if (of.place != nullptr) {
        std::int32_t process = of.process;
        of.place->process.compare_exchange_strong(process, 0);
    }
    if (of.handle >= 0)
        ::close(of.handle);
    of.handle = -1;
}

void executed_programs::forget(std::int32_t process) {
    std::erase_if(m_entries, [&](entry& each) {
        if (each.process != process)
            return false;
        release(each);
        return true;
    });
}

bool executed_programs::has(std::int32_t process) const {
    return std::ranges::any_of(
               m_unrecorded,
               [=](const auto& each) { return std::ranges::find(each.second, process) != each.second.end(); }) ||
           std::ranges::any_of(m_entries,
                               [&](const entry& each) { return each.process == process && !is_withdrawn(each); });
}

void executed_programs::name(const entry& of) {
    if (m_is_recorded(of.process, of.since))
        return;
    const std::string path = of.name.empty() ? program_of(of.process) : of.name;
    m_unrecorded[path.empty() ? "?" : path].push_back(of.process);
}

void executed_programs::look() {
    std::erase_if(m_entries, [&](entry& each) {
        const bool was_withdrawn = is_withdrawn(each);
        if (!was_withdrawn && !has_ended(each.process, each.handle))
            return false;
        if (!was_withdrawn)
            name(each);
        release(each);
        return true;
    });
}

bool executed_programs::are_starting() const {
    return std::ranges::any_of(m_entries, [](const entry& each) {
        return !is_withdrawn(each) && !has_ended(each.process, each.handle) &&
               steady_time() - each.since < loading_time;
    });
}

std::map<std::string, std::vector<std::int32_t>> executed_programs::unrecorded() {
    for (entry& each : m_entries) {
        if (!is_withdrawn(each))
            name(each);
        release(each);
    }
    m_entries.clear();
    return m_unrecorded;
}

} // namespace qor::record
