// The whole replay beside the plain one: every byte of both streams. The first byte of an input chooses the
// run: `m` an mtrace log, `c` an allocation log, `M` and `C` one that says the same so often that a thread reads it
// ahead, anything else both, the second one behind a line "=".
#include "compression/format.h"
#include "heap_report/mtrace_proc.h"
#include "log_run.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>

namespace {

// What the analyser writes to. Opened once: opening files is most of the time that a short log takes.
class written {
public:
    explicit written(const std::filesystem::path& path) : m_file(std::fopen(path.string().c_str(), "w+b")) {
        log_run::require(m_file != nullptr);
    }
    written(const written&) = delete;
    written& operator=(const written&) = delete;
    ~written() { std::fclose(m_file); }

    std::FILE* file() const { return m_file; }

    // All of it; what is written next begins anew.
    std::string take() const {
        const long size = std::ftell(m_file);
        log_run::require(size >= 0);
        std::string text(static_cast<std::size_t>(size), '\0');
        std::rewind(m_file);
        log_run::require(std::fread(text.data(), 1, text.size(), m_file) == text.size());
        std::rewind(m_file);
        return text;
    }

private:
    std::FILE* m_file;
};

// Every run's analyser lies in the same memory. That saves mapping its 8 MiB each time, and what it reads without
// having written it shows: there is what the run before has left.
class analyser final : public mtrace_proc {
public:
    using mtrace_proc::mtrace_proc;

    static void* operator new(std::size_t size) {
        static void* const memory = made();
        log_run::require(size == sizeof(analyser));
        return memory;
    }
    static void operator delete(void*) noexcept {}

private:
    static void* made() {
        // The C library learns from what is freed how much to keep: else it would give back the pages of every run.
        ::operator delete(::operator new(sizeof(analyser)));
        return ::operator new(sizeof(analyser));
    }
};

// A folder that is gone when the process ends. The quicker its file system, the quicker the runs: name one in memory by
// TMPDIR for a long search.
class folder {
public:
    folder()
        : m_path(std::filesystem::temp_directory_path() / ("fuzz_replay-" + std::to_string(std::random_device{}()))) {
        log_run::require(std::filesystem::create_directory(m_path));
    }
    folder(const folder&) = delete;
    folder& operator=(const folder&) = delete;
    ~folder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    std::filesystem::path operator/(const char* name) const { return m_path / name; }

private:
    std::filesystem::path m_path;
};

// The logs and what the analyser says of them.
class analysis {
public:
    void write(const char* name, const std::string& bytes) const {
        std::ofstream(m_here / name, std::ios::binary) << bytes;
    }

    plain_log::output run(const std::vector<const char*>& names) const {
        qorStringArray args;
        for (const char* const name : names)
            args.Append((m_here / name).string().c_str());
        bool is_foreign_mtrace, is_foreign_memcheck;
        {
            zetSmartPointer<mtrace_proc> proc;
            proc.AttachNew(new analyser(m_out.file(), m_err.file()));
            const bool joined = names[0] == std::string("mtrace");
            log_run::require(joined ? proc->Execute_MTRACE(args) : proc->Execute_MEMCHECK(args));
            is_foreign_mtrace = !proc->foreign_mtrace().empty();
            is_foreign_memcheck = !proc->foreign_memcheck().empty();
            proc->free_all();
        }
        return {m_out.take(), m_err.take(), is_foreign_mtrace, is_foreign_memcheck};
    }

private:
    folder m_here;
    written m_out{m_here / "out"};
    written m_err{m_here / "err"};
};

// More than is read at a time, unless its lines are so short that there are many batches of them before.
std::string many_times(const std::string& log) {
    constexpr std::size_t enough_bytes = 320 * 1024;
    constexpr std::size_t enough_lines = 8 * 1024;
    const std::size_t lines = 1 + static_cast<std::size_t>(std::count(log.begin(), log.end(), '\n'));
    std::string text;
    for (std::size_t made = 0; text.size() < enough_bytes && made < enough_lines; made += lines)
        text += log;
    return text;
}

// The plain replay reads no compressed logs: another target searches there.
bool is_compressed(const std::string& log) {
    const qor::compression::beginning found = qor::compression::recognise(log);
    return found.is != qor::compression::format::none && !found.is_open;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const analysis here;
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (text.empty())
        return 0;
    std::string logs = text.substr(1);
    if (text[0] == 'M' || text[0] == 'C')
        logs = many_times(logs);
    if (is_compressed(logs))
        return 0;
    if (text[0] == 'm' || text[0] == 'M') {
        here.write("mtrace", logs);
        log_run::require(here.run({"mtrace"}) == plain_log::replay(logs, {}));
    } else if (text[0] == 'c' || text[0] == 'C') {
        here.write("memcheck", logs);
        log_run::require(here.run({"memcheck"}) == plain_log::replay({}, logs));
    } else {
        const std::size_t middle = std::min(logs.find("\n=\n"), logs.size());
        const std::string mtrace = logs.substr(0, middle);
        const std::string memcheck = middle + 3 < logs.size() ? logs.substr(middle + 3) : "";
        if (is_compressed(memcheck))
            return 0;
        here.write("mtrace", mtrace);
        here.write("memcheck", memcheck);
        log_run::require(here.run({"mtrace", "memcheck"}) == plain_log::replay(mtrace, memcheck));
    }
    return 0;
}
