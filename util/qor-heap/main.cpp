// qor-heap: where the memory goes. It reads the logs of a recorded run and shows them by place.
#include "commands.h"
#include "entry.h"
#include "finish_output.h"
#include "interrupt.h"
#include "qor/qor.h"

namespace {

using namespace qor::heap_tool;

int run(const options& chosen) {
    catch_interrupts();
    switch (chosen.command) {
    case command::sites:
        return run_sites(chosen);
    case command::diff:
        return run_diff(chosen);
    case command::timeline:
        return run_timeline(chosen);
    case command::tree:
        return run_tree(chosen);
    case command::top:
        return run_top(chosen);
    case command::page:
        return run_page(chosen);
    case command::exporting:
        return run_export(chosen);
    case command::none:
        break;
    }
    return exit_failure;
}

} // namespace

int run_tool(int argc, char* const* argv) {
    qorStringArray args;
    args.SetFromArgVec(argc, argv);
    if (!qorInitProcess("qor-heap", args, 0)) {
        fputerr(stderr, true);
        return exit_failure;
    }
    std::vector<std::string> words;
    for (uint32 i = 0; i < args.GetCount(); ++i)
        words.emplace_back(args[i]);
    options chosen;
    int code = read_options(words, chosen);
    if (code == no_exit_code)
        code = run(chosen);
    code = finish_output(code);
    qorCleanup();
    return code;
}
