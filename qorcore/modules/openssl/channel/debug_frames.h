// Inside the module qor-openssl: the frames of debug control, as docs/debug-control.md describes them.
#pragma once

#include "qor/system/Types.h"

#include <string>
#include <string_view>
#include <vector>

namespace qor::control {

inline constexpr char protocol_name[] = "qor-debug/1";

// The type of a frame. The type of an answer is that of the request with the bit 0x80 set.
enum class frame_type : uint16 {
    login_first = 0x01, // the client's first message of SCRAM
    login_final = 0x02,
    get_codes = 0x03,
    get_enabled_codes = 0x04,
    enable_code = 0x05,
    disable_all = 0x06,
    heartbeat = 0x10, // sent by both sides; not answered
    login_first_answer = 0x81,
    login_final_answer = 0x82,
    get_codes_answer = 0x83,
    get_enabled_codes_answer = 0x84,
    enable_code_answer = 0x85,
    disable_all_answer = 0x86,
    refusal = 0xff, // replaces any answer
};

constexpr frame_type answer_to(frame_type request) noexcept {
    return static_cast<frame_type>(static_cast<uint16>(request) | 0x80);
}

// The reason of a refusal.
enum class refusal_code : uint32 {
    credentials = 1, // the login may be tried again
    request = 2,     // the request cannot be carried out
    no_room = 3,     // for another session, of the account or in total, or for remembering the switch of another name
};

// The refusals that a request may receive, as a bit mask. 0 if the request must be answered.
using refusals = uint32;
constexpr refusals one_refusal(refusal_code code) noexcept { return 1u << static_cast<uint32>(code); }
refusals refusals_of(frame_type request, std::string_view payload) noexcept;

inline constexpr uint32 frame_header_size = 12;
inline constexpr uint32 payload_limit_before_login = 2048;
inline constexpr uint32 payload_limit = 65536;

struct frame {
    frame_type type;
    uint32 request; // chosen by the client; the answer repeats it
    std::string payload;
};

// Whether a frame has the form of an answer to the request, or of a possible refusal. Does not check login messages and
// pages; their readers do.
bool is_answer(const frame& answer, frame_type request, refusals possible) noexcept;

// A heartbeat belongs to no request and has no payload.
inline bool is_heartbeat(const frame& found) noexcept { return found.request == 0 && found.payload.empty(); }

void append_frame(std::string& out, frame_type type, uint32 request, std::string_view payload);

// Finds the frames in a stream of bytes that arrives in pieces.
class frame_reader {
public:
    enum class result { nothing, frame, malformed };

    void set_limit(uint32 payload_size) noexcept { m_limit = payload_size; }
    void add(std::string_view bytes) { m_bytes.append(bytes); }

    // Takes the next complete frame. After `malformed`, the rest of the stream is meaningless.
    result next(frame& out);

    // Whether an incomplete frame has arrived.
    bool is_within() const noexcept { return !m_bytes.empty(); }

private:
    result take(frame& out);

    uint32 m_limit = payload_limit_before_login;
    std::string m_bytes;
};

// ---- payloads

// A page of a list of names: the start of the next page, or 0 on the last page, and the names.
struct name_page {
    uint32 next = 0;
    std::vector<std::string> names;
};

// Lists omit longer names.
inline constexpr uint32 name_limit = 4096;

// A console rejects longer lists.
inline constexpr std::size_t list_limit = 64 << 20;

// Returns false if the name does not fit the page.
bool append_name(std::string& page, std::string_view name);
std::string empty_page();
void set_next(std::string& page, uint32 next) noexcept;

// Returns false if the payload is not a valid page.
bool read_page(std::string_view payload, name_page& out);

std::string number_payload(uint32 number);
bool read_number(std::string_view payload, uint32& out) noexcept;

} // namespace qor::control
