// The target of the log, and its free operations.
#include "log/log.h"

#include "catalog/catalog.h"
#include "catalog/inserts.h"
#include "debug/line_output.h"
#include "error/error.h"
#include "log/line_text.h"
#include "log/system_sender.h"
#include "message_names.h"
#include "platform/own_process.h"
#include "stream/text_output.h"

#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace framework = qor::messages::framework;

namespace {

using qor::debug::line_output;
using qor::log::system_sender;

enum class target { system, lines };

// How long the end of the process waits for a slow daemon.
constexpr std::chrono::milliseconds last_wait{1000};

std::atomic<target> chosen{target::system};
std::atomic<qorLogLevel> least_level{qorLogLevel::info};

std::string text_about_losses(uint64 lost) {
    const std::string count = std::to_string(lost);
    const char* const inserts[10] = {count.c_str()};
    std::string line;
    qor::log::append_line_text(line, qor::platform::name(), " ");
    line.append(" warning -: ");
    line.append(qor::catalog::expand(qor::catalog::find(framework::catalog, framework::log_dropped), inserts));
    return line;
}

line_output& lines() {
    static auto* const made = new line_output(text_about_losses);
    return *made;
}

// In one piece, and without waiting for standard output.
void say(const std::string& text) noexcept {
    std::string line = qor::platform::name();
    line.append(": ").append(text).append("\n");
    (void)qor::stream::write_this_text_only(stderr, line);
    std::fflush(stderr);
}

std::atomic<bool> sender_exists{false};
system_sender& sender();

int start_sending() noexcept {
    return qor::platform::start_thread([]() noexcept { sender().run(); });
}

system_sender& sender() {
    static auto* const made = [] {
        auto* const sender_of_process = new system_sender(qor::log::own_system_log(), start_sending, say);
        return sender_of_process;
    }();
    static const bool is_watching = [] {
        qor::platform::watch_forks([]() noexcept { made->before_fork(); },
                                   []() noexcept { made->after_fork_in_parent(); },
                                   []() noexcept { made->after_fork_in_child(); });
        sender_exists.store(true, std::memory_order_release);
        return std::atexit([] { made->finish(true, last_wait); }) == 0;
    }();
    (void)is_watching;
    return *made;
}

// Most texts and words stay as they are, and `changed` remains empty.
std::string_view shown_text(std::string_view text, std::string& changed) {
    if (qor::log::is_line_text(text))
        return text;
    qor::log::append_line_text(changed, text);
    return changed;
}
std::string_view shown_word(std::string_view word, std::string& changed) {
    if (qor::log::is_line_word(word))
        return word;
    qor::log::append_line_text(changed, word, " ");
    return changed;
}

void send_as_line(const qor::log::entry& sent) noexcept {
    std::string program, file, text, fields;
    char place[16] = "-";
    char* place_end = place + 1;
    const std::string_view file_name = shown_word(qor::log::base_name(sent.place.file), file);
    if (!file_name.empty()) {
        *place = ':';
        place_end = std::to_chars(place + 1, std::end(place), sent.place.line).ptr;
    }
    if (!sent.fields.empty())
        qor::log::append_fields(fields, sent.fields);
    lines().write({shown_word(qor::platform::name(), program),
                   " ",
                   qor::log::level_name(sent.level),
                   " ",
                   file_name,
                   {place, static_cast<std::size_t>(place_end - place)},
                   fields,
                   ": ",
                   shown_text(sent.text, text)});
}

} // namespace

bool qor::log::is_wanted(qorLogLevel level) noexcept { return level <= least_level.load(std::memory_order_relaxed); }

bool qor::log::check_level(qorLogLevel level, const char* operation) noexcept {
    if (level <= qorLogLevel::debug)
        return true;
    error::set(qorError_invalid_argument, {operation, "level"});
    return false;
}

bool qor::log::check_size(std::size_t bytes, std::size_t fields) noexcept {
    if (bytes <= qorMaxLogEntry && fields <= qorMaxLogFields)
        return true;
    error::set(qorError_log_entry_too_large,
               {std::to_string(qorMaxLogFields).c_str(), std::to_string(qorMaxLogEntry).c_str()});
    return false;
}

std::string qor::log::message_text(const char* catalog, uint32 number, const char* const* inserts) {
    const std::string_view name = catalog != nullptr ? catalog : "";
    if (const std::string_view text = catalog::find(name, number); !text.empty())
        return catalog::expand(text, inserts);
    std::string text(name);
    text.append(":").append(std::to_string(number));
    for (std::size_t i = 0; inserts != nullptr && i < catalog::max_inserts; ++i)
        if (inserts[i] != nullptr)
            text.append(" ").append(inserts[i]);
    return text;
}

std::vector<qor::log::field> qor::log::message_fields(const char* catalog, uint32 number, const char* const* inserts) {
    std::vector<field> fields;
    std::string message = catalog != nullptr ? catalog : "";
    message.append(":").append(std::to_string(number));
    fields.push_back({"QOR_MESSAGE", std::move(message)});
    for (std::size_t i = 0; inserts != nullptr && i < catalog::max_inserts; ++i)
        if (inserts[i] != nullptr) {
            std::string name = "QOR_INSERT_";
            name.append(std::to_string(i + 1));
            fields.push_back({std::move(name), inserts[i]});
        }
    return fields;
}

void qor::log::send(const entry& sent) noexcept {
    if (chosen.load(std::memory_order_acquire) == target::lines)
        send_as_line(sent);
    else
        sender().send(make_system_entry(sent));
}

int qor::log::set_target(const char* name) noexcept {
    if (std::string_view(name) == "system") {
        chosen.store(target::system, std::memory_order_release);
        lines().detach();
        return 0;
    }
    if (std::string_view(name) == "stderr")
        lines().detach();
    else if (const int reason = lines().attach(name))
        return reason;
    chosen.store(target::lines, std::memory_order_release);
    return 0;
}

void qor::log::finish() noexcept {
    if (sender_exists.load(std::memory_order_acquire))
        sender().finish(false, last_wait);
    if (chosen.load(std::memory_order_acquire) == target::lines)
        lines().settle();
}

bool qor::glue::qorSetLogTarget(const char* name) noexcept {
    if (name == nullptr || *name == '\0') {
        error::set(qorError_invalid_argument, {"qorSetLogTarget", "target"});
        return false;
    }
    if (const int reason = log::set_target(name)) {
        error::set_with_reason(qorError_cannot_write_file, name, reason);
        return false;
    }
    return true;
}

bool qor::glue::qorSetLogLevel(qorLogLevel least) noexcept {
    if (!log::check_level(least, "qorSetLogLevel"))
        return false;
    least_level.store(least, std::memory_order_relaxed);
    return true;
}

bool qor::glue::qorFlushLog(uint32 wait) noexcept {
    std::size_t waiting = 0;
    std::string reason;
    if (!sender_exists.load(std::memory_order_acquire) || sender().flush(wait, waiting, reason))
        return true;
    error::set(qorError_log_still_waits, {std::to_string(waiting).c_str(), reason.c_str()});
    return false;
}

uint64 qor::glue::qorGetDroppedLogCount() noexcept {
    return lines().lost() + (sender_exists.load(std::memory_order_acquire) ? sender().dropped() : 0);
}

bool qor::glue::qorSendLogText(qorLogLevel level, const char* text, uint64 length, const qorLogPlace& place) noexcept {
    if (!log::check_level(level, "qorSendLogText") || !log::check_size(length, 0))
        return false;
    static const std::vector<log::field> no_fields;
    if (log::is_wanted(level))
        log::send({level, {text, length}, no_fields, place});
    return true;
}

bool qor::glue::qorSendLogMessage(qorLogLevel level, const char* catalog, uint32 number, const char* const* inserts,
                                  const qorLogPlace& place) noexcept {
    if (!log::check_level(level, "qorSendLogMessage"))
        return false;
    if (!log::is_wanted(level))
        return true;
    const std::string text = log::message_text(catalog, number, inserts);
    const std::vector<log::field> fields = log::message_fields(catalog, number, inserts);
    std::size_t size = text.size();
    for (const log::field& each : fields)
        size += each.value.size();
    if (!log::check_size(size, fields.size()))
        return false;
    log::send({level, text, fields, place});
    return true;
}
