// page and export: files for a browser and for other programs.
#include "commands.h"
#include "export/exports.h"
#include "export/output_file.h"
#include "interrupt.h"
#include "message_names.h"
#include "page/page.h"
#include "recording.h"
#include "text.h"
#include "version.h"

namespace qor::heap_tool {

namespace message = qor::messages::heap;

namespace {

const std::string generator = std::string("qor-heap ") + qor_version;

std::string name_of(const options& chosen) { return chosen.output.empty() ? "-" : chosen.output; }

// Returns false after a message.
bool open(output_file& file, const options& chosen) {
    const bool is_open = file.open(name_of(chosen));
    if (!is_open)
        say(message::cannot_write, {name_of(chosen), file.reason()});
    return is_open;
}

int finish(output_file& file, const options& chosen) {
    if (!file.finish()) {
        say(message::cannot_write, {name_of(chosen), file.reason()});
        return exit_failure;
    }
    return is_interrupted() ? exit_interrupted : 0;
}

} // namespace

int run_page(const options& chosen) {
    heap::profile now, earlier;
    if (const int code = read_recording(chosen.logs, chosen, wanted_places::all, now); code != no_exit_code)
        return code;
    const bool compares = !chosen.compared.empty();
    if (compares)
        if (const int code = read_recording({chosen.compared}, chosen, wanted_places::all, earlier);
            code != no_exit_code)
            return code;
    const named_profile named = name_places(now, chosen, wanted_places::all);
    const named_profile named_earlier = name_places(earlier, chosen, wanted_places::all);
    output_file file;
    if (!open(file, chosen))
        return exit_failure;
    write_page(named, compares ? &named_earlier : nullptr, generator, file);
    return finish(file, chosen);
}

int run_export(const options& chosen) {
    if (chosen.form == export_form::none) {
        say(message::no_format);
        return exit_failure;
    }
    heap::profile of;
    if (const int code = read_recording(chosen.logs, chosen, wanted_places::all, of); code != no_exit_code)
        return code;
    const named_profile named = name_places(of, chosen, wanted_places::all);
    output_file file;
    if (!open(file, chosen))
        return exit_failure;
    std::string reason;
    bool is_done = true;
    switch (chosen.form) {
    case export_form::folded:
        export_folded(named, chosen.what, file);
        break;
    case export_form::json:
        export_json(named, generator, file);
        break;
    case export_form::csv:
        export_csv(named, file);
        break;
    case export_form::pprof:
    case export_form::none:
        is_done = export_pprof(named, chosen.labels, generator, file, reason);
        break;
    }
    if (!is_done) {
        say(message::no_compressor, {reason});
        return exit_failure;
    }
    return finish(file, chosen);
}

} // namespace qor::heap_tool
