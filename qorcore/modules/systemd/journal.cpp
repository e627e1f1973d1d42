#include "journal.h"

#include <algorithm>
#include <new>
#include <systemd/sd-journal.h>
#include <unistd.h>

namespace {

constexpr std::size_t longest_line = 1000;

struct closed {
    void operator()(sd_journal* journal) const noexcept { sd_journal_close(journal); }
};
using journal_pointer = std::unique_ptr<sd_journal, closed>;

// The fields that an entry must have, all of one of the groups. Fields with a low line at their beginning are those of
// the journal itself; others may come from anybody, so they count only in entries of the manager.
using fields = std::vector<std::string>;
std::vector<fields> groups_of(qorServiceManager manager, const systemd::unit& of) {
    const bool is_of_user = manager == qorServiceManager::user;
    const std::string user = "_UID=" + std::to_string(geteuid());
    const std::string by_manager = is_of_user ? user : "_PID=1";
    std::vector<fields> out;
    if (!of.invocation.empty()) {
        out.push_back({"_SYSTEMD_INVOCATION_ID=" + of.invocation});
        out.push_back({(is_of_user ? "USER_INVOCATION_ID=" : "INVOCATION_ID=") + of.invocation, by_manager});
    } else {
        out.push_back({(is_of_user ? "_SYSTEMD_USER_UNIT=" : "_SYSTEMD_UNIT=") + of.id});
        if (is_of_user)
            out.back().push_back(user);
        out.push_back({(is_of_user ? "USER_UNIT=" : "UNIT=") + of.id, by_manager});
    }
    return out;
}

bool has(sd_journal* journal, const std::string& field) {
    const void* data = nullptr;
    size_t size = 0;
    return sd_journal_get_data(journal, field.substr(0, field.find('=')).c_str(), &data, &size) >= 0 &&
           field == std::string_view(static_cast<const char*>(data), size);
}

// libsystemd could search by itself, but without memory for what it searches it would end the process.
bool is_in_a_group(sd_journal* journal, const std::vector<fields>& groups) {
    return std::any_of(groups.begin(), groups.end(), [&](const fields& group) {
        return std::all_of(group.begin(), group.end(), [&](const std::string& each) { return has(journal, each); });
    });
}

} // namespace

std::vector<std::string> systemd::last_lines(qorServiceManager manager, const unit& of, uint32 count,
                                             time_limit limit) {
    std::vector<std::string> lines;
    sd_journal* made = nullptr;
    const int opened = count != 0 ? sd_journal_open(&made, SD_JOURNAL_LOCAL_ONLY) : -1;
    const journal_pointer journal(made);
    if (opened < 0 || sd_journal_seek_tail(made) < 0)
        return lines;
    const std::vector<fields> groups = groups_of(manager, of);
    // The threshold has room for the field's name.
    sd_journal_set_data_threshold(made, 2 * longest_line);
    while (lines.size() < count && !limit.is_over() && sd_journal_previous(made) > 0) {
        uint64_t time = 0;
        if (sd_journal_get_realtime_usec(made, &time) >= 0 && time < of.started)
            break;
        const void* data = nullptr;
        size_t size = 0;
        if (!is_in_a_group(made, groups) || sd_journal_get_data(made, "MESSAGE", &data, &size) < 0)
            continue;
        std::string_view line(static_cast<const char*>(data), size);
        line.remove_prefix(std::min(line.find('='), line.size() - 1) + 1);
        lines.push_back(harmless(line, longest_line));
    }
    std::reverse(lines.begin(), lines.end());
    return lines;
}
