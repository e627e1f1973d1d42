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
    say_losses(*of.log, shown);
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
    const std::string exit_code = std::to_string(m_exit_code);
    if (const std::string memcheck = say_memchecks(m_names, m_exit_code >= first_failure, exit_code); !memcheck.empty())
        command.append(" ").append(quoted(memcheck));
    say(message::next_command, {"qortool mtrace " + command});
}

} // namespace qor::record
