// Logs what the lines of its input say (support/line_driver.h): `text LEVEL TEXT`, `many COUNT TEXT`, `message LEVEL
// CATALOG NUMBER INSERT INSERT`, `entry LEVEL TEXT NAME VALUE ...`, `place FILE` (messages and entries then seem to
// come from line 1 of this file, in function `f`), `target NAME`, `flush MILLISECONDS`, `dropped`, and on Linux `fork
// TEXT` (the child logs the text), `close` (all descriptors but the standard streams).
#include "qor/qor.h"
#include "support/line_driver.h"

#if !defined(_WIN32)
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace {

using line_driver::words;

std::string source_file;

qorLogPlace place_or(const qorLogPlace& here) {
    return source_file.empty() ? here : qorLogPlace(source_file.c_str(), 1, "f");
}

bool set_place(const words& given, std::string&) { return !(source_file = given[1]).empty(); }

qorLogLevel level_of(const std::string& word) { return static_cast<qorLogLevel>(std::stoul(word)); }

bool send_text(const words& given, std::string&) { return qorSendLogText(level_of(given[1]), given[2]); }

bool send_many(const words& given, std::string&) {
    for (unsigned long i = 0; i < std::stoul(given[1]); ++i)
        if (!qorSendLogText(qorLogLevel::info, given[2] + std::to_string(i)))
            return false;
    return true;
}

bool send_message(const words& given, std::string&) {
    return qorSendLogMessage(level_of(given[1]), given[2].c_str(), static_cast<uint32>(std::stoul(given[3])),
                             given[4].c_str(), given[5].c_str(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                             nullptr, nullptr, place_or(std::source_location::current()));
}

bool send_entry(const words& given, std::string&) {
    qorLogEntry entry(level_of(given[1]), place_or(std::source_location::current()));
    entry.Text(given[2]);
    for (std::size_t i = 3; i + 1 < given.size() && !given[i].empty(); i += 2)
        entry.Field(given[i], given[i + 1]);
    return entry.Send();
}

bool set_target(const words& given, std::string&) { return qorSetLogTarget(given[1].c_str()); }
bool flush(const words& given, std::string&) { return qorFlushLog(static_cast<uint32>(std::stoul(given[1]))); }

bool tell_dropped(const words&, std::string& answer) {
    answer.append(" ").append(std::to_string(qorGetDroppedLogCount()));
    return true;
}

#if !defined(_WIN32)
bool send_in_child(const words& given, std::string&) {
    const pid_t child = fork();
    if (child == 0)
        _exit(qorSendLogText(qorLogLevel::info, given[1]) && qorFlushLog(10'000) ? 0 : 1);
    int status = 1;
    waitpid(child, &status, 0);
    return status == 0;
}

bool close_all(const words&, std::string&) { return close_range(3, ~0u, 0) == 0; }
#endif

} // namespace

int main(int argc, char** argv) {
    qorStringArray args;
    args.SetFromArgVec(argc, argv);
    if (!qorInitProcess("log-driver", args, 0)) {
        fputerr(stderr, true);
        return 1;
    }
    const std::map<std::string, line_driver::operation> operations = {
        {"text", send_text},
        {"many", send_many},
        {"message", send_message},
        {"entry", send_entry},
        {"place", set_place},
        {"flush", flush},
        {"dropped", tell_dropped},
        {"target", set_target},
#if !defined(_WIN32)
        {"fork", send_in_child},
        {"close", close_all},
#endif
    };
    const int code = line_driver::apply_lines(operations, 6);
    qorCleanup();
    return code;
}
