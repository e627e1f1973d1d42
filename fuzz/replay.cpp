// The whole replay beside the plain one: every byte of both streams. The first byte of an input chooses the
// run: `m` an mtrace log, `c` an allocation log, anything else both, the second one behind a line "=".
#include "log_run.h"
#include "mtrace_proc.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

namespace {

std::string read(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// A folder for the logs and what the analyser says of them; gone when the process ends.
class folder {
public:
    folder()
        : m_path(std::filesystem::temp_directory_path() /
                 ("fuzz_replay-" + std::to_string(std::random_device{}()))) {
        std::filesystem::create_directory(m_path);
    }
    folder(const folder&) = delete;
    folder& operator=(const folder&) = delete;
    ~folder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    void write(const char* name, const std::string& bytes) const {
        std::ofstream(m_path / name, std::ios::binary) << bytes;
    }

    plain_log::output run(const std::vector<const char*>& names) const {
        qorStringArray args;
        for (const char* const name : names)
            args.Append((m_path / name).string().c_str());
        std::FILE* const out = std::fopen((m_path / "out").string().c_str(), "wb");
        std::FILE* const err = std::fopen((m_path / "err").string().c_str(), "wb");
        log_run::require(out != nullptr && err != nullptr);
        {
            zetSmartPointer<mtrace_proc> proc;
            proc.AttachNew(new (__FILE__, __LINE__) mtrace_proc(out, err));
            const bool joined = names[0] == std::string("mtrace");
            log_run::require(joined ? proc->Execute_MTRACE(args) : proc->Execute_MEMCHECK(args));
        }
        std::fclose(out);
        std::fclose(err);
        return {read(m_path / "out"), read(m_path / "err")};
    }

private:
    std::filesystem::path m_path;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const folder here;
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (text.empty())
        return 0;
    const std::string logs = text.substr(1);
    if (text[0] == 'm') {
        here.write("mtrace", logs);
        log_run::require(here.run({"mtrace"}) == plain_log::replay(logs, {}));
    } else if (text[0] == 'c') {
        here.write("memcheck", logs);
        log_run::require(here.run({"memcheck"}) == plain_log::replay({}, logs));
    } else {
        const std::size_t middle = std::min(logs.find("\n=\n"), logs.size());
        const std::string mtrace = logs.substr(0, middle);
        const std::string memcheck = middle + 3 < logs.size() ? logs.substr(middle + 3) : "";
        here.write("mtrace", mtrace);
        here.write("memcheck", memcheck);
        log_run::require(here.run({"mtrace", "memcheck"}) == plain_log::replay(mtrace, memcheck));
    }
    return 0;
}
