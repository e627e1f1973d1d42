// Two threads that trace at full speed into a file, compared with spdlog's file logger.
//
//   trace_file [--brief] [FOLDER]
//
// Both write the same words, each with its own line head. Prints lines per second: medians of interleaved rounds,
// including the closing of the file. The exit code is 1 if a line is missing, damaged or out of its thread's order. It
// is also 1 if the framework is slower, except in a brief run.
#include "line_files.h"
#include "qor/qor.h"

namespace {

void run_qor(const std::string& path, int lines) {
    static const uint32 code = qorDebugAllocateCode("bench.trace-file");
    qorDebugEnableCode("bench.trace-file", true);
    if (!qorDebugAttachFile(path.c_str()))
        fputerr(stderr, true);
    bench::on_threads(lines, [](int thread, int line) {
        qorDebug(code, "thread %d has come to line %d of %s", thread, line, "many");
    });
    (void)qorDebugAttachFile(nullptr);
}

} // namespace

int main(int argc, char** argv) { return bench::compare(argc, argv, "qor-trace-bench", run_qor); }
