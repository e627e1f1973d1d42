#include "memory/allocation_log.h"

#include "error/error.h"
#include "platform/end_of_process.h"
#include "platform/own_process.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace {

constexpr std::string_view process_mark = "%p";

} // namespace

std::string qor::memory::log_name_for_children(const std::string& name) {
    return name.find(process_mark) != std::string::npos ? name : name + '.' + std::string(process_mark);
}

int qor::memory::allocation_log::open(const std::string& name, const live_blocks& blocks) {
    m_name = name;
    if (const int reason = open_file())
        return reason;
    for (const live_block& block : blocks.in_order()) {
        allocated(block);
        if (block.type_name != nullptr)
            named(block.address, block.type_name);
    }
    // Many child processes end with _exit or run another program, and neither would write the buffer.
    flush();
    return 0;
}

// A log whose name contains the process id never replaces another file: process ids are reused, and one process may run
// several programs in turn.
int qor::memory::allocation_log::open_file() {
    using access = platform::raw_file::access;
    m_buffer.clear();
    m_buffer.reserve(buffer_size);
    m_whole = 0;
    m_written = 0;
    const std::string process = std::to_string(platform::process_id());
    m_path = m_name;
    const std::size_t mark = m_name.find(process_mark);
    if (mark != std::string::npos)
        m_path.replace(mark, process_mark.size(), process);
    const std::string first = m_path;
    int reason = m_file.open(m_path.c_str(), mark != std::string::npos ? access::create : access::truncate);
    for (int i = 2; reason == platform::raw_file::is_taken; ++i) {
        m_path = first + '.' + std::to_string(i);
        reason = m_file.open(m_path.c_str(), access::create);
    }
    if (reason != 0)
        return reason;
    add("# allocation log of process " + process + "; replay it with: qortool memcheck");
    end_line();
    return 0;
}

void qor::memory::allocation_log::allocated(const live_block& block) {
    add_address('A', block.address);
    add(" ");
    add_number(block.size, 10);
    add(" ");
    add_number(static_cast<unsigned>(block.type), 10);
    if (block.file != nullptr && *block.file != '\0') {
        add(" ");
        add_word(block.file);
        add(block.line < 0 ? " -" : " ");
        add_number(block.line < 0 ? 0u - static_cast<unsigned>(block.line) : static_cast<unsigned>(block.line), 10);
    }
    end_line();
}

void qor::memory::allocation_log::freed(const void* address, block_type type) {
    add_address('F', address);
    add(" ");
    add_number(static_cast<unsigned>(type), 10);
    end_line();
}

void qor::memory::allocation_log::named(const void* address, const char* type_name) {
    add_address('T', address);
    add(" ");
    add_word(type_name);
    end_line();
}

void qor::memory::allocation_log::finish() {
    m_finishing = true;
    // A thread that was ended while it wrote may have written lines that it did not count. They are written once more.
    if (is_open() && platform::other_threads_are_gone())
        m_file.cut(m_written);
    flush();
}

void qor::memory::allocation_log::continue_in_child(const live_blocks& blocks) {
    if (!is_open())
        return;
    if (const int reason = open(log_name_for_children(m_name), blocks))
        give_up(reason);
}

std::string qor::memory::allocation_log::take_last_words() { return std::exchange(m_last_words, {}); }

void qor::memory::allocation_log::add(std::string_view text) { m_buffer += text; }

void qor::memory::allocation_log::add_number(unsigned long long value, int base) {
    char text[24];
    add({text, std::to_chars(text, text + sizeof text, value, base).ptr});
}

// The first word of a line. If the end of the process has ended a thread in the middle of a line, that part is dropped.
void qor::memory::allocation_log::add_address(char letter, const void* address) {
    m_whole = std::min(m_whole, m_buffer.size());
    m_buffer.erase(m_whole);
    const char begin[] = {letter, ' '};
    add({begin, sizeof begin});
    add_number(reinterpret_cast<std::uintptr_t>(address), 16);
}

// Words of the log contain no white space, whatever the name of a file or a type contains.
void qor::memory::allocation_log::add_word(const char* text) {
    for (; *text != '\0'; ++text)
        m_buffer += static_cast<unsigned char>(*text) <= ' ' ? '_' : *text;
}

void qor::memory::allocation_log::end_line() {
    m_buffer += '\n';
    // If the new line makes the buffer too long, write the lines before it.
    if (m_buffer.size() > buffer_size)
        flush();
    m_whole = m_buffer.size();
    if (m_finishing || m_whole > buffer_size)
        flush();
}

void qor::memory::allocation_log::flush() {
    m_whole = std::min(m_whole, m_buffer.size());
    if (is_open() && m_whole != 0) {
        int reason = m_file.recover(m_path.c_str());
        if (reason == 0)
            reason = m_file.write(m_buffer.data(), m_whole);
        if (reason != 0)
            give_up(reason);
        else
            m_written += m_whole;
    }
    m_buffer.erase(0, m_whole);
    m_whole = 0;
}

// A full disk ends the log, after a whole line, but never the program being watched.
void qor::memory::allocation_log::give_up(int reason) {
    if (is_open())
        m_file.cut(m_written);
    m_file.close();
    m_last_words = std::string(platform::name()) + ": the allocation log '" + m_path +
                   "' ends here: " + error::system_reason(reason) + '\n';
}
