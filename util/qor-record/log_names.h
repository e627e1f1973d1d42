// The names of the logs, and what may be replaced to create them.
#pragma once

#include "compression/format.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qor::record {

// ".zst", ".gz" or nothing.
const char* suffix_of(compression::format kind) noexcept;

class log_names {
public:
    // `prefix` as the user wrote it, FOLDER/ for `program` in that folder. False after a message: there is no such
    // folder.
    bool set(const std::string& prefix, const std::string& program, compression::format kind);

    // The prefix as the user wrote it, and with the path of its folder.
    const std::string& prefix() const noexcept { return m_prefix; }
    const std::string& path() const noexcept { return m_path; }

    // The files of the first process, with an absolute path; and as the user would write it.
    std::string log() const { return m_path + ".mtrace" + suffix_of(m_kind); }
    std::string stacks() const { return m_path + ".stacks" + suffix_of(m_kind); }
    std::string memcheck() const { return m_path + ".memcheck"; }
    // The files of another process; `attempt` counts from 1, as a number that a process had before may come again.
    std::string log(std::int32_t process, int attempt) const { return m_path + ".mtrace" + of(process, attempt); }
    std::string stacks(std::int32_t process, int attempt) const { return m_path + ".stacks" + of(process, attempt); }
    std::string shown(const std::string& path) const { return m_prefix + path.substr(m_path.size()); }

    // The framework's logs of children, which it has named itself.
    std::vector<std::string> memchecks_of_children() const;

    // Removes the logs of an earlier run, the children's too. False after a message: one of them is something else.
    bool clear(bool replaces_anything) const;

private:
    std::string of(std::int32_t process, int attempt) const;

    std::string m_prefix;
    std::string m_path;
    compression::format m_kind = compression::format::none;
};

} // namespace qor::record
