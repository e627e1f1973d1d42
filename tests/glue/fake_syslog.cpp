// Preloaded into a client: writes messages for the system log to the file $FAKE_SYSLOG instead, each after its
// priority.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

void record(int priority, const char* format, std::va_list arguments) {
    const char* const path = std::getenv("FAKE_SYSLOG");
    std::FILE* const out = path != nullptr ? std::fopen(path, "a") : nullptr;
    if (out == nullptr)
        std::abort();
    std::fprintf(out, "%d ", priority);
    std::vfprintf(out, format, arguments);
    std::fclose(out);
}

} // namespace

// The names are those of the C library; a hardened compilation calls the second pair.
#define EXPORTED extern "C" [[gnu::visibility("default")]]

EXPORTED void vsyslog(int priority, const char* format, std::va_list arguments) { record(priority, format, arguments); }

EXPORTED void __vsyslog_chk(int priority, int, const char* format, std::va_list arguments) {
    record(priority, format, arguments);
}

EXPORTED void syslog(int priority, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    record(priority, format, arguments);
    va_end(arguments);
}

EXPORTED void __syslog_chk(int priority, int, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    record(priority, format, arguments);
    va_end(arguments);
}
