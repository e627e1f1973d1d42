// A client that passes C streams to each operation which takes one. It is linked twice: with the C run-time of libqor,
// and with another one.
//
//     stream_client echo          writes the lines of its standard input, with their lengths
//     stream_client print         prints with every operation, on standard output
//     stream_client order         prints on both standard streams in turn
//     stream_client fail PATH     reads and writes streams where that fails
#include "qor/qor.h"

#include <cstdio>
#include <cstring>

namespace {

int echo() {
    qorString line;
    while (line.GetLine(stdin)) {
        fixed_fprintf(stdout, "%u ", line.Length());
        line.Put(stdout, true);
    }
    return qorGetLastError(line) == 0 ? 0 : 1;
}

int print() {
    qorString text("text with a NUL\0and more", 24);
    text.Put(stdout, true);
    text.Put(stdout, false);
    fputtext(stdout, "\n", 1);
    fixed_fprintf(stdout, "%s %d %lld %.3f\n", "formatted", -1, 1LL << 40, 0.5);
    fputmsg(stdout, "qorcore", 1000, "first", "second");
    fputmsg(stdout, "qorcore", 1000, false);
    fputtext(stdout, "\n", 1);
    fputmsg(stdout, "no catalog", 7, "insert");
    qorSetLastError(qorError_no_such_user, "somebody");
    fputerr(stdout, true);
    zetSmartPointer<IQORErrorMessage> error;
    qorGetLastError(error.Out());
    error->Put(stdout, true);
    qorSaveErrorInfo().Put(stdout, true);
    qorWriteHelpLine(stdout, "qortool", 1, 2);
    qorWriteToolkitHelp(stdout);
    return 0;
}

int order() {
    for (int i = 0; i < 100; ++i) {
        std::printf("%d out\n", i);
        fixed_fprintf(stderr, "%d error\n", i);
        fputtext(stdout, "between\n", 8);
        fputmsg(stderr, "no catalog", 1, true);
    }
    return 0;
}

// The streams were opened in another mode.
int fail(const char* path) {
    qorString text;
    std::FILE* const written = std::fopen(path, "w");
    if (written == nullptr)
        return 3;
    fixed_fprintf(stdout, "read: %d\n", text.GetLine(written));
    fputerr(stdout, true);
    std::fclose(written);
    qorClearLastError();
    std::FILE* const read = std::fopen(path, "r");
    if (read == nullptr)
        return 3;
    text = "text";
    std::setvbuf(read, nullptr, _IONBF, 0);
    fixed_fprintf(stdout, "write: %d", text.Put(read, true));
    fixed_fprintf(stdout, " %d", fputtext(read, "a", 1));
    fixed_fprintf(stdout, " %d\n", fixed_fprintf(read, "%d", 1));
    fputerr(stdout, true);
    std::fclose(read);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    qorStringArray words;
    words.Append("stream_client");
    if (!qorInitProcess("stream_client", words, 0))
        return 4;
    const char* const what = argc > 1 ? argv[1] : "";
    if (std::strcmp(what, "echo") == 0)
        return echo();
    if (std::strcmp(what, "print") == 0)
        return print();
    if (std::strcmp(what, "order") == 0)
        return order();
    if (std::strcmp(what, "fail") == 0 && argc == 3)
        return fail(argv[2]);
    std::fputs("stream_client echo|print|order|fail PATH\n", stderr);
    return 2;
}
