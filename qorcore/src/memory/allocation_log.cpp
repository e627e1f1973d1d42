#include "memory/allocation_log.h"

#include "error/error.h"
#include "process/process.h"

#include <cinttypes>
#include <cstdio>

namespace {

// A word of the log holds no white space, whatever a file or a type is called.
std::string word(const char* text) {
    std::string result = text;
    for (char& c : result)
        if (static_cast<unsigned char>(c) <= ' ')
            c = '_';
    return result;
}

unsigned long long number(const void* address) noexcept {
    return static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(address));
}

} // namespace

int qor::memory::allocation_log::open(const std::string& path) {
    m_first_path = path;
    return open_file(path);
}

int qor::memory::allocation_log::open_file(const std::string& path) {
    m_path = path;
    m_buffer.clear();
    if (const int reason = m_file.open(path.c_str(), file::raw_file::access::truncate))
        return reason;
    m_buffer.reserve(buffer_size);
    char text[128];
    const int length = std::snprintf(text, sizeof text, "# allocation log of process %lu; replay it with: qortool memcheck\n",
                                     process::process_id());
    line(text, static_cast<std::size_t>(length));
    return 0;
}

void qor::memory::allocation_log::allocated(const live_block& block) {
    char text[96];
    int length = std::snprintf(text, sizeof text, "A %llx %llu %u", number(block.address), block.size,
                               static_cast<unsigned>(block.type));
    if (block.file == nullptr || *block.file == '\0') {
        text[length++] = '\n';
        line(text, static_cast<std::size_t>(length));
        return;
    }
    std::string whole(text, static_cast<std::size_t>(length));
    whole += ' ';
    whole += word(block.file);
    length = std::snprintf(text, sizeof text, " %d\n", block.line);
    whole.append(text, static_cast<std::size_t>(length));
    line(whole.data(), whole.size());
}

void qor::memory::allocation_log::freed(const void* address, block_type type) {
    char text[64];
    const int length =
        std::snprintf(text, sizeof text, "F %llx %u\n", number(address), static_cast<unsigned>(type));
    line(text, static_cast<std::size_t>(length));
}

void qor::memory::allocation_log::named(const void* address, const char* type_name) {
    char text[32];
    const int length = std::snprintf(text, sizeof text, "T %llx ", number(address));
    const std::string whole = std::string(text, static_cast<std::size_t>(length)) + word(type_name) + '\n';
    line(whole.data(), whole.size());
}

void qor::memory::allocation_log::finish() {
    m_finishing = true;
    flush();
}

void qor::memory::allocation_log::continue_in_child(const live_blocks& blocks) {
    if (!is_open())
        return;
    if (const int reason = open_file(m_first_path + '.' + std::to_string(process::process_id()))) {
        give_up(reason);
        return;
    }
    for (const live_block& block : blocks.in_order()) {
        allocated(block);
        if (block.type_name != nullptr)
            named(block.address, block.type_name);
    }
}

void qor::memory::allocation_log::line(const char* text, std::size_t length) {
    if (m_buffer.size() + length > buffer_size)
        flush();
    m_buffer.append(text, length);
    if (m_finishing)
        flush();
}

void qor::memory::allocation_log::flush() {
    if (is_open() && !m_buffer.empty())
        if (const int reason = m_file.write(m_buffer.data(), m_buffer.size()))
            give_up(reason);
    m_buffer.clear();
}

// A full disk ends the log, never the program that is being watched.
void qor::memory::allocation_log::give_up(int reason) {
    m_file.close();
    std::fprintf(stderr, "%s: the allocation log '%s' ends here: %s\n", process::name(), m_path.c_str(),
                 error::system_reason(reason).c_str());
}
