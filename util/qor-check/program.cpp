#include "program.h"

#include <cstring>

namespace qor::check {
namespace {

// The text in a field of fixed size.
template <std::size_t SIZE>
std::string text_in(const char (&field)[SIZE]) {
    return {field, strnlen(field, SIZE)};
}

} // namespace

bool find_client(std::string_view file, program& out) {
    using description = glue::client_description;
    constexpr std::size_t head_size = offsetof(description, needed);
    const std::string_view magic(glue::client.magic, sizeof glue::client.magic);
    for (std::size_t at = file.find(magic); at != file.npos; at = file.find(magic, at + 1)) {
        if (file.size() - at < head_size)
            break;
        description head;
        std::memcpy(static_cast<void*>(&head), file.data() + at, head_size);
        const std::size_t bytes = (std::size_t{head.table_length} + 7) / 8;
        // The whole has the size that alignment gives it.
        if (head.layout != glue::client.layout || head.size < head_size + bytes || head.size > file.size() - at)
            continue;
        out.is_described = true;
        out.version = text_in(head.version);
        out.folder = text_in(head.folder);
        out.table_length = head.table_length;
        const char* const needed = file.data() + at + head_size;
        out.needed.assign(needed, needed + bytes);
        return true;
    }
    return false;
}

} // namespace qor::check
