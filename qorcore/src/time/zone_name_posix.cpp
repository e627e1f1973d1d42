#include "time/zone_name.h"

#include "platform/own_process.h"
#include "platform/raw_file.h"
#include "qor/glue/regular_file_posix.h"

#include <cctype>
#include <string>
#include <string_view>

namespace {

bool take(std::string_view& text, char c) {
    if (!text.starts_with(c))
        return false;
    text.remove_prefix(1);
    return true;
}

// Takes a number from `least` to `limit`.
bool take_number(std::string_view& text, int least, int limit) {
    int value = 0;
    int digits = 0;
    for (; !text.empty() && std::isdigit(static_cast<unsigned char>(text.front())) && value <= limit; ++digits) {
        value = 10 * value + (text.front() - '0');
        text.remove_prefix(1);
    }
    return digits > 0 && value >= least && value <= limit;
}

// Takes a name: letters ("CET"), or any name in angle brackets ("<+0330>").
bool take_name(std::string_view& text) {
    const bool quoted = take(text, '<');
    std::size_t length = 0;
    for (; length < text.size(); ++length) {
        const auto c = static_cast<unsigned char>(text[length]);
        if (!std::isalpha(c) && !(quoted && (std::isdigit(c) || c == '+' || c == '-')))
            break;
    }
    text.remove_prefix(length);
    return length >= 3 && (!quoted || take(text, '>'));
}

// [+-]hh[:mm[:ss]]
bool take_time(std::string_view& text, int most_hours) {
    if (!take(text, '-'))
        take(text, '+');
    if (!take_number(text, 0, most_hours))
        return false;
    return !take(text, ':') || (take_number(text, 0, 59) && (!take(text, ':') || take_number(text, 0, 59)));
}

// ,Jn or ,n or ,Mm.w.d, each with an optional /time
bool take_change(std::string_view& text) {
    if (!take(text, ','))
        return false;
    const bool is_day = take(text, 'J')   ? take_number(text, 1, 365)
                        : take(text, 'M') ? take_number(text, 1, 12) && take(text, '.') && take_number(text, 1, 5) &&
                                                take(text, '.') && take_number(text, 0, 6)
                                          : take_number(text, 0, 365);
    return is_day && (!take(text, '/') || take_time(text, 167));
}

bool is_rule(std::string_view text) {
    if (!take_name(text) || !take_time(text, 24))
        return false;
    if (text.empty())
        return true;
    if (!take_name(text))
        return false;
    if (!text.empty() && !text.starts_with(','))
        if (!take_time(text, 24))
            return false;
    return text.empty() || (take_change(text) && take_change(text) && text.empty());
}

// Whether the zone belongs to the database or to the system. In a set-user-id program, the C library accepts no other
// zone, because otherwise the user could make it open any file.
bool is_of_the_system(std::string_view zone) {
    return zone.find("..") == zone.npos &&
           (!zone.starts_with('/') || zone.starts_with("/usr/share/zoneinfo/") || zone == "/etc/localtime");
}

// Returns the file in which the C library would look for the zone; empty if it would open none.
std::string path_of(std::string_view zone) {
    if (qor::platform::is_privileged() && !is_of_the_system(zone))
        return {};
    if (zone.starts_with('/'))
        return std::string(zone);
    const char* const database = qor::platform::environment("TZDIR");
    const std::string folder = database != nullptr ? database : "/usr/share/zoneinfo";
    return folder + '/' + std::string(zone);
}

bool is_zone_file(const std::string& path) {
    constexpr std::string_view magic = "TZif";
    qor::platform::raw_file file;
    char begin[magic.size()];
    std::size_t count = 0;
    return file.open(path.c_str(), qor::platform::raw_file::access::regular) == 0 &&
           file.read(begin, sizeof begin, &count) == 0 && std::string_view(begin, count) == magic;
}

} // namespace

bool qor::time::is_zone(const char* name) {
    std::string_view zone = name;
    take(zone, ':');
    // UTC is known even without a database.
    return zone.empty() || zone == "UTC" || zone == "GMT" || is_rule(zone) || is_zone_file(path_of(zone));
}

bool qor::time::can_be_asked_for(const char* name) {
    std::string_view zone = name;
    take(zone, ':');
    struct stat status;
    const bool is_there = !zone.empty() && stat(path_of(zone).c_str(), &status) == 0;
    return !is_there || glue::reason_against(status) != ESPIPE;
}
