#include "recording.h"

#include "export/safe_text.h"
#include "heap/profile/profile_sum.h"
#include "heap/symbols/symbols.h"
#include "interrupt.h"
#include "message_names.h"
#include "regular_file.h"
#include "text.h"

#include <optional>

namespace qor::heap_tool {

namespace message = qor::messages::heap;
namespace tool = qor::messages::tool;

namespace {

void warn_of_failure(const qorString& failure) {
    if (!failure.IsEmpty())
        fputmsg(stderr, tool::catalog, tool::log_read_in_part, failure);
}

// How the file of stacks ended, if that was early.
void warn_of_stacks(const process_logs& logs, const heap::stacks_log& stacks) {
    using ending = heap::stacks_log::ending;
    switch (stacks.how_it_ended()) {
    case ending::not_reached:
    case ending::whole:
        return;
    case ending::cut_off:
        return say(message::stacks_cut_off, {logs.stacks});
    case ending::damaged:
        return say(message::stacks_damaged, {logs.stacks});
    case ending::newer:
        return say(message::stacks_newer, {logs.stacks});
    case ending::limit:
        return say(message::stacks_limit, {logs.stacks});
    case ending::unreadable:
        return warn_of_failure(stacks.failure());
    }
}

void warn(const process_logs& logs, const heap::profile_builder& builder, const heap::profile& made) {
    warn_of_failure(builder.replayed().mtrace().failure());
    warn_of_failure(builder.replayed().memcheck().failure());
    if (builder.stacks().is_open())
        warn_of_stacks(logs, builder.stacks());
    if (builder.replayed().origins().is_full())
        say(message::too_many_places, {logs.log, std::to_string(heap::profile_builder::most_places)});
    if (builder.warnings() != 0)
        say(message::odd_lines, {logs.log, std::to_string(builder.warnings())});
    if (builder.leftovers() != 0 && !builder.was_ended())
        say(message::leftovers, {logs.memcheck, std::to_string(builder.leftovers())});
    for (const heap::profile::loss& each : made.losses)
        say(message::records_missing, {logs.log, std::to_string(each.records), each.reason});
}

// The profile's modules, and those of its frames that are wanted; `frames` are their numbers in the profile.
heap::profile with_frames(const heap::profile& of, const std::vector<bool>& wanted, std::vector<uint32>& frames) {
    heap::profile part;
    part.modules = of.modules;
    part.processes = of.processes;
    frames.assign(1, 0);
    for (uint32 i = 1; i < of.frames.size(); ++i)
        if (wanted[i]) {
            part.frames.push_back(of.frames[i]);
            frames.push_back(i);
        }
    return part;
}

std::vector<bool> frames_of_places(const heap::profile& of, measure what) {
    std::vector<bool> nodes(of.nodes.size()), frames(of.frames.size());
    for (const heap::profile::place& each : of.places)
        if (counts_of(each, what).blocks != 0)
            nodes[each.node] = true;
    for (std::size_t i = of.nodes.size() - 1; i > 0; --i)
        if (nodes[i])
            nodes[of.nodes[i].parent] = frames[of.nodes[i].frame] = true;
    return frames;
}

void tell_status(const heap::profile& of, const std::vector<heap::module_symbols>& modules, bool is_anonymous) {
    using status = heap::symbol_status;
    for (std::size_t i = 1; i < modules.size(); ++i) {
        const heap::module_symbols& each = modules[i];
        const std::string path(is_anonymous ? file_name(of.modules[i].path) : of.modules[i].path);
        if (!each.server.empty() && !is_anonymous)
            say(message::module_fetched, {path, each.server});
        switch (each.status) {
        case status::changed:
            say(message::module_changed, {path});
            break;
        case status::damaged:
            say(message::module_damaged, {path, each.reason});
            break;
        case status::too_slow:
            say(message::module_too_slow, {path});
            break;
        case status::no_reader:
            return say(message::no_symbol_reader, {each.reason});
        default:
            break;
        }
    }
}

} // namespace

heap::places_with blocks_of(measure what) noexcept {
    switch (what) {
    case measure::live:
        return heap::places_with::live;
    case measure::at_peak:
        return heap::places_with::at_peak;
    case measure::allocated:
        return heap::places_with::allocated;
    case measure::temporary:
        break;
    }
    return heap::places_with::temporary;
}

int read_recording(const std::vector<std::string>& files, const options& chosen, wanted_places wanted,
                   heap::profile& out) {
    const auto kept = wanted == wanted_places::all ? heap::places_with::any : blocks_of(chosen.what);
    std::vector<process_logs> processes;
    if (const int code = sort_logs(files, processes); code != no_exit_code)
        return code;
    if (chosen.has_last_record && processes.size() > 1) {
        say(message::at_needs_one_log);
        return exit_failure;
    }
    heap::profile_sum sum;
    progress shown;
    for (const process_logs& logs : processes) {
        std::optional<heap::profile_builder> builder;
        builder.emplace([&] {
            shown.update(builder->position(), builder->records());
            return !is_interrupted();
        });
        if (chosen.has_last_record)
            builder->set_last_record(chosen.last_record);
        if (logs.leaves_out_inherited)
            builder->leave_out_inherited();
        if (!open_logs(logs, *builder))
            return exit_failure;
        shown.begin(file_name(logs.log), size_of_regular_file(logs.log).value_or(0));
        builder->run();
        shown.clear();
        heap::profile made = builder->make_profile(kept);
        made.processes.front().log = logs.log;
        warn(logs, *builder, made);
        if (processes.size() == 1) {
            out = std::move(made);
            break;
        }
        sum.add(made);
        if (is_interrupted())
            break;
    }
    if (processes.size() > 1)
        out = sum.take();
    if (is_interrupted()) {
        say(message::interrupted);
        out.is_partial = true;
    }
    return no_exit_code;
}

named_profile name_places(const heap::profile& of, const options& chosen, wanted_places wanted) {
    named_profile::symbol_names names;
    heap::symbol_options how;
    how.may_fetch = chosen.may_fetch;
    heap::symbols symbols(how);
    if (chosen.wants_symbols && of.frames.size() > 1) {
        std::vector<uint32> frames;
        const heap::profile part = with_frames(of,
                                               wanted == wanted_places::all ? std::vector<bool>(of.frames.size(), true)
                                                                            : frames_of_places(of, chosen.what),
                                               frames);
        progress shown;
        // Who has ended the reading wants to see what was read: only a further interrupt ends this, with the program.
        const bool was_interrupted = is_interrupted();
        bool is_announced = false;
        auto found = symbols.resolve(part, [&](const heap::symbol_progress* step) {
            if (step != nullptr && step->kind == heap::symbol_progress::what::module_done)
                shown.show_modules(step->modules, step->all_modules);
            if (step != nullptr && step->kind == heap::symbol_progress::what::fetching && !is_announced) {
                is_announced = true;
                shown.clear();
                say(message::fetching, {std::string(step->servers)});
            }
            return was_interrupted || !is_interrupted();
        });
        shown.clear();
        names.resize(of.frames.size());
        for (std::size_t i = 0; i < found.size(); ++i)
            names[frames[i]] = std::move(found[i]);
        tell_status(of, symbols.modules(), chosen.is_anonymous);
    }
    return named_profile(of, names, chosen.is_anonymous);
}

} // namespace qor::heap_tool
