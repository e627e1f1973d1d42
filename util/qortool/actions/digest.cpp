// md5sum: the digest of a file.
#include "action_arguments.h"
#include "failure.h"
#include "message_names.h"
#include "qortool_app.h"

#include <algorithm>
#include <memory>

namespace framework = qor::messages::framework;

namespace {

// Bounds the memory use, whatever the size of the file.
constexpr uint32 block_size = 65536;

constexpr uint32 digest_size = 16;

char hex_digit(int nibble) { return static_cast<char>(nibble < 10 ? '0' + nibble : 'A' + nibble - 10); }

void print_digest(const uint8_Array& digest) {
    for (uint32 i = 0; i < digest.GetCount(); ++i) {
        const uint8 byte = *digest.GetElementPtr(i);
        fixed_fprintf(stdout, "%c%c", hex_digit(byte >> 4), hex_digit(byte & 15));
    }
}

// A size of 0 means that the file is empty or that its size could not be determined.
bool has_failed() {
    qorString reason;
    return qorGetLastError(reason) != qorError_none;
}

int cannot_read() { return report_failure("ERROR reading from file"); }

} // namespace

int qortool_app::func_md5sum(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "func_md5sum");
    if (!check_arguments(args, "md5sum", 1))
        return 1;
    qorFile file;
    if (!file.Open(args[0], qorFileReading | qorFileExisting | qorFileShared))
        return report_failure("FAILED to open file %s\n", args[0]);
    zetSmartPointer<IQORDigestEngine> engine;
    if (!qorCreateDigestEngine("md5", engine.Out()))
        return report_failure("FAILED to create MD5 digest engine\n");
    const auto buffer = std::make_unique_for_overwrite<uint8[]>(block_size); // too large for a small stack
    qorClearLastError();
    const uint64 size = file.GetSize();
    if (size == 0 && has_failed())
        return cannot_read();
    for (uint64 offset = 0; offset < size;) {
        const uint32 length = static_cast<uint32>(std::min<uint64>(size - offset, block_size));
        if (!file.ReadAt(offset, buffer.get(), length))
            return cannot_read();
        engine->Update(buffer.get(), length);
        offset += length;
    }
    uint8_Array digest;
    engine->GetDigest(digest);
    // An engine that failed returns no digest, or only part of one.
    if (digest.GetCount() != digest_size) {
        fputmsg(stderr, framework::catalog, framework::digest_not_computed, args[0]);
        return 1;
    }
    if (!m_quiet)
        fixed_fprintf(stdout, "Hash: [");
    print_digest(digest);
    fixed_fprintf(stdout, m_quiet ? "\n" : "]\n");
    return 0;
}
