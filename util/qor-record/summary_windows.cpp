// The recorder's last lines: the logs, what was hooked, the losses with their reasons, and the command to type next.
#include "messages.h"
#include "recorder_windows.h"
#include "shared/runtime_names.h"
#include "summary_texts.h"

namespace qor::record {

namespace {

constexpr unsigned long first_failure = 0xc0000000; // codes of the system for what ends a program

// As a command line has it.
std::string quoted(const std::string& word) {
    return word.find_first_of(" \t&()[]{}^=;!'+,`~") == word.npos ? word : '"' + word + '"';
}

std::string names_of(std::uint32_t runtimes) {
    std::string names;
    for (unsigned i = 0; i < std::size(runtime_names); ++i)
        if ((runtimes & 1U << i) != 0)
            names.append(names.empty() ? "" : ", ").append(runtime_names[i]);
    return names;
}

} // namespace

void recorder::summarise(const recorded_process& of) {
    const std::string shown = m_names.shown(of.log->log().path());
    const std::string count = std::to_string(of.log->lines());
    const std::string stacks = std::to_string(of.log->stack_count());
    if (of.log->log().path().empty())
        return; // it was said when it could not be created
    if (of.is_first)
        say(message::recorded, {shown, count, stacks});
    else
        say(message::recorded_child, {shown, count, of.program, stacks});
    if (of.log->lost() != 0)
        say(message::lost_records, {shown, std::to_string(of.log->lost())});
    if (of.log->has_given_up())
        say(message::stopped_reading, {shown});
}

void recorder::summarise_memcheck(std::string& command) {
    const std::string path = m_names.memcheck();
    if (const long count = lines_of_memcheck(path); count >= 0) {
        const std::string shown = m_names.shown(path);
        say(message::memcheck_recorded, {shown, std::to_string(count)});
        if (m_exit_code >= first_failure)
            say(message::memcheck_cut_off, {shown, std::to_string(m_exit_code)});
        command.append(" ").append(quoted(shown));
    }
    for (const std::string& each : m_names.memchecks_of_children())
        if (const long count = lines_of_memcheck(each); count >= 0)
            say(message::memcheck_recorded, {m_names.shown(each), std::to_string(count)});
}

void recorder::summarise() {
    recorded_process& first = m_processes.front();
    if (!first.has_begun) {
        first.log->remove();
        say(message::no_library, {first.program});
        return;
    }
    for (recorded_process& each : m_processes) {
        if (each.has_begun) {
            summarise(each);
        } else {
            each.log->remove();
            m_unrecorded[each.program].push_back(each.log->process());
        }
    }
    if (m_runtimes != 0)
        say(message::hooked, {names_of(m_runtimes), std::to_string(m_hooked_modules)});
    if (!m_program_has_imports)
        say(message::no_imports, {first.program});
    for (const auto& [program, processes] : m_unrecorded)
        say(message::unrecorded_program, {program, list_of(processes)});
    if (m_unnamed != 0)
        say(message::unnamed_executions, {std::to_string(m_unnamed)});
    if (m_stacks_were_full)
        say(message::stacks_were_full, {m_names.shown(m_names.stacks())});
    std::string command = quoted(m_names.shown(first.log->log().path()));
    summarise_memcheck(command);
    say(message::next_command, {"qortool mtrace " + command});
}

} // namespace qor::record
