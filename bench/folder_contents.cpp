// Lists a folder for bench/folders.py, a line for each name: "<kind> <size> <seconds> <name>".
#include "qor/qor.h"

#include <charconv>
#include <cstdio>
#include <string>

int main(int argc, char** argv) {
    zetSmartPointer<IQORFolderContents> contents;
    if (argc != 2 || !qorGetFolderContents(argv[1], contents.Out())) {
        fputerr(stderr, true);
        return 1;
    }
    constexpr std::size_t piece = 1 << 16;
    std::string out;
    char digits[24];
    const auto add = [&](uint64 number) {
        out.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr).push_back(' ');
    };
    for (const qorFolderEntry& each : contents->Entries()) {
        out += each.kind == qorFileKind::file ? "f " : each.kind == qorFileKind::folder ? "d " : "? ";
        add(each.size);
        add(each.modified / qorTicksPerSecond - 11'644'473'600);
        out.append(each.Name()).push_back('\n');
        if (out.size() > piece) {
            std::fwrite(out.data(), 1, out.size(), stdout);
            out.clear();
        }
    }
    std::fwrite(out.data(), 1, out.size(), stdout);
    return std::fflush(stdout) == 0 ? 0 : 1;
}
