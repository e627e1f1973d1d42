// The recorder's last lines: the logs, the losses with their reasons, and the command to type next.
#include "messages.h"
#include "recorder_posix.h"
#include "summary_texts.h"

#include <algorithm>
#include <unistd.h>

namespace qor::record {

namespace {

// As a shell reads it back.
std::string quoted(const std::string& word) {
    constexpr char plain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./,:+@%=";
    if (!word.empty() && word.find_first_not_of(plain) == std::string::npos)
        return word;
    std::string result = "'";
    for (const char c : word)
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + '\'';
}

} // namespace

void recorder::summarise(recorded_process& of) {
    const std::string shown = m_names.shown(of.log->log().path());
    const std::string count = std::to_string(of.log->lines());
    const std::string stacks = std::to_string(of.log->stack_count());
    if (of.log->log().path().empty())
        return; // it was said when it could not be created
    if (!of.is_over)
        say(message::still_running, {shown, of.program});
    else if (of.is_first && !of.was_replaced)
        say(message::recorded, {shown, count, stacks});
    else if (of.was_replaced)
        say(message::replaced_program, {shown, count, of.program, stacks});
    else
        say(message::recorded_child, {shown, count, of.program, stacks});
    say_losses(*of.log, shown);
}

void recorder::summarise() {
    if (m_arenas.front()->shared().taken.load() == 0) {
        for (recorded_process& each : m_processes)
            if (each.is_first)
                each.log->remove();
        say(message::nothing_recorded, {m_options.command[0]});
        return;
    }
    std::string command;
    for (recorded_process& each : m_processes)
        if (each.is_first && !each.was_replaced) {
            summarise(each);
            command = quoted(m_names.shown(each.log->log().path()));
        }
    for (recorded_process& each : m_processes)
        if ((!each.is_first || each.was_replaced) && !each.is_dropped && (each.has_files || !each.is_over))
            summarise(each);
    if (m_has_own_malloc)
        say(message::own_malloc, {m_program});
    for (const auto& [program, processes] : m_executed.unrecorded())
        say(message::unrecorded_program, {program, list_of(processes)});
    for (const auto& each : m_arenas)
        add_up(each->shared());
    if (m_unrecorded_children != 0)
        say(message::unrecorded_children, {std::to_string(m_unrecorded_children)});
    if (m_unnamed_executions != 0)
        say(message::unnamed_executions, {std::to_string(m_unnamed_executions)});
    if (m_stacks_were_full)
        say(message::stacks_were_full, {m_names.shown(m_names.stacks())});
    if (const std::string memcheck = say_memchecks(m_names, m_exit_code >= 128, std::to_string(m_exit_code));
        !memcheck.empty())
        command += ' ' + quoted(memcheck);
    // In the tree, where the tool is built by its own command.
    const bool is_in_tree = ::access("./run", X_OK) == 0 && ::access("util/qor-record", X_OK) == 0;
    say(message::next_command, {(is_in_tree ? "./run mtrace " : "qortool mtrace ") + command});
}

} // namespace qor::record
