// Two threads that log at full speed into a file, compared with spdlog's file logger.
//
//   log_file [--brief] [FOLDER]
//
// Both write the same words, each with its own line head; the framework's has the place in the source, too. The
// framework takes texts that are ready, so the client makes them, with the library that is also in spdlog. Prints
// entries per second: medians of interleaved rounds, including the closing of the file. The exit code is 1 if an entry
// is missing, damaged or out of its thread's order. It is also 1 if the framework is slower, except in a brief run.
#include "line_files.h"
#include "qor/qor.h"

#include <spdlog/fmt/fmt.h>

namespace {

void run_qor(const std::string& path, int lines) {
    if (!qorSetLogTarget(path.c_str()))
        fputerr(stderr, true);
    bench::on_threads(lines, [](int thread, int line) {
        fmt::basic_memory_buffer<char, 250> text; // as large as spdlog's
        fmt::format_to(std::back_inserter(text), "thread {} has come to line {} of {}", thread, line, "many");
        qorSendLogText(qorLogLevel::info, std::string_view(text.data(), text.size()));
    });
    (void)qorSetLogTarget("stderr");
}

} // namespace

int main(int argc, char** argv) { return bench::compare(argc, argv, "qor-log-bench", run_qor); }
