// Closed standard streams, whose numbers the next opened files would get; and the thread on which a process ends.
#include "platform/own_process.h"
#include "qor/qor.h"
#include "support/scenes.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <map>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

// The first argument lists the streams that the caller closed, the second is a file for the trace.
const qor::test::scene closed_streams{
    "process_closed_streams", [](const qor::test::words& arguments) {
        qorStringArray args;
        for (const std::string& word :
             {std::string("program"), "--qor-debug-file=" + arguments[1], std::string("--qor-debug=*")})
            args.Append(word.c_str());
        EXPECT_TRUE(qorInitProcess("watcher", args, 0));
        const uint32 code = qorDebugAllocateCode("a.code");
        qorDebug(code, "traced");
        for (int stream = 0; stream <= 2; ++stream) {
            EXPECT_NE(fcntl(stream, F_GETFD), -1) << stream;
            if (arguments[0].find(static_cast<char>('0' + stream)) == std::string::npos)
                continue;
            // The descriptor is open but unusable, as its caller wanted.
            char byte = 'x';
            if (stream == 0)
                EXPECT_EQ(read(stream, &byte, 1), -1);
            else
                EXPECT_EQ(write(stream, &byte, 1), -1) << stream;
        }
        qorCleanup();
        const int mine = open("/dev/null", O_RDONLY);
        EXPECT_GT(mine, 2);
        return 0;
    }};

} // namespace

TEST(process, closed_standard_streams_stay_useless_and_taken) {
    const std::map<std::string, std::string> ways = {{"", ""},           {"0", "<&-"},           {"1", ">&-"},
                                                     {"2", "2>&-"},      {"01", "<&- >&-"},      {"12", ">&- 2>&-"},
                                                     {"02", "<&- 2>&-"}, {"012", "<&- >&- 2>&-"}};
    for (const auto& [streams, redirections] : ways) {
        const qor::test::temp_folder folder;
        const std::string path = folder / "trace";
        qor::test::words shell{"sh", "-c", "exec \"$@\" " + redirections, "sh"};
        for (const std::string& word : qor::test::command(closed_streams, {streams, path}))
            shell.push_back(word);
        const qor::test::ending ended = qor::test::run(shell);
        EXPECT_EQ(ended.code, 0) << streams << ended.out << ended.err;
        const std::string trace = qor::test::read_file(path);
        EXPECT_TRUE(trace.ends_with("a.code traced\n")) << streams << trace;
        EXPECT_EQ(std::count(trace.begin(), trace.end(), '\n'), 1) << streams << trace;
    }
}

// A forked process has only the forking thread.
TEST(main_thread, is_the_one_that_was_forked) {
    std::thread([] {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0)
            _exit(qor::platform::is_main_thread() ? 0 : 1);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }).join();
}
