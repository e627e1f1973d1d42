// A disk that remembers: a seam between SQLite and the system that records what is written and synchronized, can
// refuse a call, and can say which contents the files may have after the power has failed at any moment.
#pragma once

#include <map>
#include <optional>
#include <random>
#include <sqlite3.h>
#include <string>
#include <string_view>
#include <vector>

namespace qor::test {

class disk {
public:
    enum class kind { write, truncate, sync, remove };
    struct call {
        kind what;
        std::string file; // its name without the folder
        uint64_t offset;  // of a write; the new size; whether a removal is synchronized
        std::string bytes;
    };

    // The only one, which is between all files of SQLite in this process from the first use on.
    static disk& get();

    // Forgets everything; `folder` is the one whose files are recorded.
    void begin(const std::string& folder);
    // How many calls there were.
    std::size_t count() const { return m_calls.size(); }

    // Lets the n-th following call of a kind fail with a result of SQLite, and all after it, if there are any, until
    // `heal`.
    void fail(kind what, int n, int result);
    void heal() { m_failing.reset(); }
    bool has_failed() const { return m_has_failed; }

    // Contents after a failure of the power behind the first `calls` calls: what was synchronized, and of the rest any
    // part, in sectors of 512 bytes.
    std::map<std::string, std::string> after_failure(std::size_t calls, std::mt19937& random) const;

    // For the functions of the seam: records a call, or returns the result with which it has to fail.
    int add(call next);
    bool is_recorded(const char* path) const;

private:
    struct failing {
        kind what;
        int n;
        int result;
    };

    std::string m_folder;
    std::vector<call> m_calls;
    std::optional<failing> m_failing;
    bool m_has_failed = false;
};

} // namespace qor::test
