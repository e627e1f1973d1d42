// Prints the digest of a file by any algorithm of the framework, like sha256sum and similar programs:
//
//     digest sha256 FILE
//
// If an algorithm comes from a module, the module is loaded. If it cannot be used, the error states the cause.
#include "qor/qor.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

// Adds the whole file in pieces. Returns false on failure; the last error says why.
bool add_file(IQORDigestEngine* engine, const char* path) {
    qorFile file;
    if (!file.Open(path, qorFileReading | qorFileExisting | qorFileShared))
        return false;
    std::vector<uint8> piece(1 << 18);
    const uint64 size = file.GetSize();
    for (uint64 offset = 0; offset < size; offset += piece.size()) {
        const uint32 length = static_cast<uint32>(std::min<uint64>(size - offset, piece.size()));
        if (!file.ReadAt(offset, piece.data(), length) || !engine->Update(piece.data(), length))
            return false;
    }
    return true;
}

bool print_digest(const char* algorithm, const char* path) {
    zetSmartPointer<IQORDigestEngine> engine;
    uint8_Array digest;
    if (!qorCreateDigestEngine(algorithm, engine.Out()) || !add_file(*engine, path) || !engine->GetDigest(digest))
        return false;
    for (const uint8 byte : digest)
        std::printf("%02x", byte);
    std::printf("  %s\n", path);
    return true;
}

} // namespace

int main(int argc, char** argv) {
    qorStringArray args;
    args.SetFromArgVec(argc, argv);
    if (!qorInitProcess("digest", args, 0)) {
        fputerr(stderr, true);
        return 1;
    }
    int code = 2;
    if (args.GetCount() != 2) {
        std::fputs("usage: digest ALGORITHM FILE\n", stderr);
    } else if (print_digest(args[0], args[1])) {
        code = 0;
    } else {
        fputerr(stderr, true);
        code = 1;
    }
    qorCleanup();
    return code;
}
