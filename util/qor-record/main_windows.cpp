// qor-record: runs a program and records its heap.
#include "control_windows.h"
#include "inject_windows.h"
#include "messages.h"
#include "program_file_windows.h"
#include "recorder_windows.h"
#include "wide_text_windows.h"

#include <cstring>
#include <string>
#include <vector>
#include <windows.h>

namespace {

using namespace qor::record;

// Ctrl-C and the like reach the program itself, and the recorder has to read what it leaves. If the window is closed,
// the system ends this process after the handler has returned, so the handler waits.
BOOL WINAPI leave_to_program(DWORD event) {
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT)
        Sleep(INFINITE);
    return TRUE;
}

int record(const options& chosen) {
    const std::string path = find_program(chosen.command[0]);
    if (path.empty()) {
        say(message::program_not_found, {chosen.command[0]});
        return 1;
    }
    std::string name = path.substr(last_separator(path) + 1);
    name.erase(name.rfind('.') != name.npos ? name.rfind('.') : name.size());
    log_names names;
    std::string hooks;
    if (!look_at_program(path) || !find_hooks(hooks) || !names.set(chosen.prefix, name, chosen.kind))
        return 1;
    qor::compression::compressor trial;
    if (chosen.kind != qor::compression::format::none && !trial.start(chosen.kind, output_file::level)) {
        say(message::compressor_missing, {qor::compression::name_of(chosen.kind), trial.reason()});
        return 1;
    }
    control_listener control;
    int error = 0;
    if (!control.open(names, error)) {
        if (error == 0)
            say(message::already_recording, {names.prefix()});
        else
            say(message::cannot_share, {reason_of(error)});
        return 1;
    }
    if (!names.clear(chosen.replaces_anything))
        return 1;
    SetConsoleCtrlHandler(&leave_to_program, TRUE);
    return recorder(chosen, names, control, hooks).run(path);
}

} // namespace

int wmain(int argc, wchar_t** argv) {
    std::vector<std::string> words;
    for (int i = 0; i < argc; ++i)
        words.push_back(narrow(argv[i]));
    std::vector<char*> pointers;
    for (std::string& word : words)
        pointers.push_back(word.data());
#define QOR_ACTION(name, usage, arguments)                                                                             \
    if (argc >= 2 && words[1] == #name)                                                                                \
        return name(argc - 2, pointers.data() + 2);
#include "command_line.def"
    options chosen;
    const int code = read_options(argc, pointers.data(), chosen);
    return code != no_exit_code ? code : record(chosen);
}
