#include "debug_frames.h"

namespace {

// Numbers are sent in big-endian order.
void append_number(std::string& out, uint32 number, int bytes) {
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
        out += static_cast<char>(number >> shift & 0xff);
}

uint32 number_at(std::string_view bytes, std::size_t at, int count) noexcept {
    uint32 number = 0;
    for (int i = 0; i < count; ++i)
        number = number << 8 | static_cast<uint8>(bytes[at + static_cast<std::size_t>(i)]);
    return number;
}

} // namespace

qor::control::refusals qor::control::refusals_of(frame_type request, std::string_view payload) noexcept {
    if (request == frame_type::login_final)
        return one_refusal(refusal_code::credentials) | one_refusal(refusal_code::no_room);
    if (request != frame_type::enable_code)
        return 0;
    // The name follows one byte. No code has an empty name or one that long.
    const bool has_name = payload.size() > 1 && payload.size() - 1 <= name_limit;
    return one_refusal(has_name ? refusal_code::no_room : refusal_code::request);
}

bool qor::control::is_answer(const frame& answer, frame_type request, refusals possible) noexcept {
    uint32 code;
    if (answer.type == frame_type::refusal)
        return read_number(answer.payload, code) && code < 32 && (possible >> code & 1) != 0;
    const bool is_bare = request == frame_type::enable_code || request == frame_type::disable_all;
    return answer.type == answer_to(request) && (!is_bare || answer.payload.empty());
}

void qor::control::append_frame(std::string& out, frame_type type, uint32 request, std::string_view payload) {
    append_number(out, static_cast<uint32>(payload.size()), 4);
    append_number(out, static_cast<uint32>(type), 2);
    append_number(out, 0, 2);
    append_number(out, request, 4);
    out += payload;
}

qor::control::frame_reader::result qor::control::frame_reader::next(frame& out) {
    const result found = take(out);
    if (found == result::nothing)
        m_bytes.shrink_to_fit(); // the peer may stay idle for long
    return found;
}

qor::control::frame_reader::result qor::control::frame_reader::take(frame& out) {
    if (m_bytes.size() < frame_header_size)
        return result::nothing;
    const uint32 size = number_at(m_bytes, 0, 4);
    if (size > m_limit || number_at(m_bytes, 6, 2) != 0)
        return result::malformed;
    if (m_bytes.size() - frame_header_size < size)
        return result::nothing;
    out.type = static_cast<frame_type>(number_at(m_bytes, 4, 2));
    out.request = number_at(m_bytes, 8, 4);
    out.payload.assign(m_bytes, frame_header_size, size);
    m_bytes.erase(0, frame_header_size + size);
    return result::frame;
}

std::string qor::control::empty_page() { return number_payload(0); }

bool qor::control::append_name(std::string& page, std::string_view name) {
    if (page.size() + 2 + name.size() > payload_limit)
        return false;
    append_number(page, static_cast<uint32>(name.size()), 2);
    page += name;
    return true;
}

void qor::control::set_next(std::string& page, uint32 next) noexcept { page.replace(0, 4, number_payload(next)); }

bool qor::control::read_page(std::string_view payload, name_page& out) {
    if (payload.size() < 4)
        return false;
    out = {number_at(payload, 0, 4), {}};
    for (std::size_t at = 4; at < payload.size();) {
        if (payload.size() - at < 2)
            return false;
        const std::size_t size = number_at(payload, at, 2);
        at += 2;
        if (size > name_limit || payload.size() - at < size)
            return false;
        const std::string_view name = payload.substr(at, size);
        if (name.find('\0') != name.npos)
            return false;
        out.names.emplace_back(name);
        at += size;
    }
    return true;
}

std::string qor::control::number_payload(uint32 number) {
    std::string payload;
    append_number(payload, number, 4);
    return payload;
}

bool qor::control::read_number(std::string_view payload, uint32& out) noexcept {
    if (payload.size() != 4)
        return false;
    out = number_at(payload, 0, 4);
    return true;
}
