// Compares the file source and the file target with fread and fwrite, and their copying with the program cp.
//
//   file_stream_bench [--brief] [FOLDER]
//
// The file has 1 GiB and lies in FOLDER, else in the folder for temporary files. All run in turn, round by round; the
// figures are medians. Limits: at least the throughput of fread and fwrite, for each size of the pieces, and at most
// the time of cp. The exit code is 1 if one is missed; a brief run fails by no figure.
#include "qor/qor.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <spawn.h>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "%s: ", what);
    fputerr(stderr, true);
    std::exit(2);
}

void must(bool done, const char* what) {
    if (!done)
        fail(what);
}

struct work {
    std::string from, to;
    uint64 size;
    std::size_t piece;
    std::vector<std::byte> buffer;
};

struct closer {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};

uint64 read_by_source(work& w) {
    qorFileSource source;
    must(source.Open(w.from.c_str()), "open");
    uint64 total = 0;
    for (;;) {
        const auto got = source.Read(std::span(w.buffer).first(w.piece));
        must(got.has_value(), "read");
        if (got->empty())
            return total;
        total += got->size();
    }
}

uint64 read_by_stdio(work& w) {
    const std::unique_ptr<std::FILE, closer> file(std::fopen(w.from.c_str(), "rb"));
    uint64 total = 0;
    while (const std::size_t got = std::fread(w.buffer.data(), 1, w.piece, file.get()))
        total += got;
    return total;
}

// Files are overwritten in place, so that no round measures how fast the file system frees blocks.
uint64 write_by_target(work& w) {
    qorFileTarget target;
    must(target.Open(w.to.c_str(), qorFileWriting | qorFileExisting), "open");
    uint64 total = 0;
    for (; total < w.size; total += w.piece)
        must(target.Write(std::span(w.buffer).first(w.piece)), "write");
    must(target.Close(), "close");
    return total;
}

uint64 write_by_stdio(work& w) {
    std::FILE* const file = std::fopen(w.to.c_str(), "r+b");
    uint64 total = 0;
    for (; total < w.size; total += w.piece)
        if (std::fwrite(w.buffer.data(), 1, w.piece, file) != w.piece)
            break;
    return std::fclose(file) == 0 ? total : 0;
}

uint64 copy_by_stream(work& w) {
    qorFileSource source;
    qorFileTarget target;
    must(source.Open(w.from.c_str()) && target.Open(w.to.c_str()), "open");
    const auto copied = source.CopyTo(target);
    must(copied && target.Close(), "copy");
    return *copied;
}

uint64 copy_by_cp(work& w) {
    std::string words[] = {"cp", w.from, w.to};
    char* const argv[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    pid_t child;
    int status = 1;
    if (posix_spawnp(&child, "cp", nullptr, nullptr, argv, environ) == 0)
        waitpid(child, &status, 0);
    return status == 0 ? w.size : 0;
}

using way = uint64 (*)(work&);

// Runs both ways in turn and prints their medians. Returns whether ours takes at most the peer's time.
bool compare(const char* what, const char* peer_name, work& w, way ours, way peer, int rounds) {
    std::vector<double> times[2];
    const way ways[] = {ours, peer};
    for (int round = 0; round < 2 * rounds; ++round) {
        // Neither is always the first.
        const int which = (round ^ (round >> 1)) & 1;
        const auto begin = std::chrono::steady_clock::now();
        if (ways[which](w) != w.size) {
            std::fprintf(stderr, "%s: not the whole file\n", what);
            std::exit(2);
        }
        times[which].push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    }
    for (std::vector<double>& each : times)
        std::nth_element(each.begin(), each.begin() + each.size() / 2, each.end());
    const double our_time = times[0][times[0].size() / 2], peer_time = times[1][times[1].size() / 2];
    const double gigabyte = static_cast<double>(w.size) / 1e9;
    std::printf("%-28s %7.2f GB/s   %-7s %7.2f GB/s   time: %.2f (at most 1.00)\n", what, gigabyte / our_time,
                peer_name, gigabyte / peer_time, our_time / peer_time);
    return our_time <= peer_time;
}

} // namespace

int main(int argc, char** argv) {
    bool is_brief = false;
    qorString folder;
    must(qorGetFolderPath(qorFolder_user_temporary, folder), "the folder for temporary files");
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--brief") == 0)
            is_brief = true;
        else
            folder = argv[i];
    const uint64 size = uint64{1} << (is_brief ? 24 : 30);
    const int rounds = is_brief ? 1 : 7;
    qorFile files[2];
    qorString paths[2];
    for (int i = 0; i < 2; ++i) {
        must(files[i].CreateUnique(folder, "qor.bench.", nullptr, paths[i]), "create");
        std::vector<char> block(1 << 20);
        for (std::size_t at = 0; at < block.size(); ++at)
            block[at] = static_cast<char>(at * 2654435761u >> 24);
        for (uint64 at = 0; at < size; at += block.size())
            must(files[i].Write(std::string_view(block.data(), block.size())), "write");
        files[i].Close();
    }
    work w{paths[0].Text(), paths[1].Text(), size, 0, std::vector<std::byte>(1 << 20)};
    bool is_met = true;
    for (const std::size_t piece :
         {std::size_t{16}, std::size_t{512}, std::size_t{4096}, std::size_t{65536}, std::size_t{1} << 20}) {
        w.piece = piece;
        std::string name = "read, pieces of " + std::to_string(piece);
        is_met &= compare(name.c_str(), "fread", w, read_by_source, read_by_stdio, rounds);
        name = "write, pieces of " + std::to_string(piece);
        is_met &= compare(name.c_str(), "fwrite", w, write_by_target, write_by_stdio, rounds);
    }
    is_met &= compare("copy", "cp", w, copy_by_stream, copy_by_cp, rounds);
    for (const qorString& path : paths)
        unlink(path.Text());
    return is_met || is_brief ? 0 : 1;
}
