// Inside the module qor-openssl: the frames of debug control, as docs/debug-control.md describes them.
#pragma once

#include "qor/system/Types.h"

#include <string>
#include <string_view>
#include <vector>

namespace qor::control {

inline constexpr char protocol_name[] = "qor-debug/1";

// What a frame is for. Answers have the request's type and the bit 0x80.
enum class frame_type : uint16 {
    login_first = 0x01, // the client's first message of SCRAM
    login_final = 0x02,
    get_codes = 0x03,
    get_enabled_codes = 0x04,
    enable_code = 0x05,
    disable_all = 0x06,
    heartbeat = 0x10, // from both sides; there is no answer
    login_first_answer = 0x81,
    login_final_answer = 0x82,
    get_codes_answer = 0x83,
    get_enabled_codes_answer = 0x84,
    enable_code_answer = 0x85,
    disable_all_answer = 0x86,
    refusal = 0xff, // in place of any answer
};

constexpr frame_type answer_to(frame_type request) noexcept {
    return static_cast<frame_type>(static_cast<uint16>(request) | 0x80);
}

// What a refusal says.
enum class refusal_code : uint32 {
    credentials = 1, // the login may be tried again
    request = 2,     // the request cannot be carried out
    no_room = 3, // for another session of the account or at all, or for another name that a switch is remembered for
};

// The refusals that a request may get, a bit for each. 0: an answer has to come.
using refusals = uint32;
constexpr refusals one_refusal(refusal_code code) noexcept { return 1u << static_cast<uint32>(code); }
refusals refusals_of(frame_type request, std::string_view payload) noexcept;

inline constexpr uint32 frame_header_size = 12;
inline constexpr uint32 payload_limit_before_login = 2048;
inline constexpr uint32 payload_limit = 65536;

struct frame {
    frame_type type;
    uint32 request; // of the client's choice; the answer repeats it
    std::string payload;
};

// Whether a frame has the form of an answer to a request, or of a refusal that it may get. Messages of a login and
// pages are for who reads them to judge.
bool is_answer(const frame& answer, frame_type request, refusals possible) noexcept;

// A heartbeat belongs to no request, and says nothing.
inline bool is_heartbeat(const frame& found) noexcept { return found.request == 0 && found.payload.empty(); }

void append_frame(std::string& out, frame_type type, uint32 request, std::string_view payload);

// Finds the frames in a run of bytes that comes in pieces.
class frame_reader {
public:
    enum class result { nothing, frame, malformed };

    void set_limit(uint32 payload_size) noexcept { m_limit = payload_size; }
    void add(std::string_view bytes) { m_bytes.append(bytes); }

    // Takes the next whole frame out. Malformed: what follows means nothing any more.
    result next(frame& out);

    // Whether a frame has begun that is not whole.
    bool is_within() const noexcept { return !m_bytes.empty(); }

private:
    result take(frame& out);

    uint32 m_limit = payload_limit_before_login;
    std::string m_bytes;
};

// ---- payloads

// A page of a list of names: what comes on the next one, or 0, and the names.
struct name_page {
    uint32 next = 0;
    std::vector<std::string> names;
};

// A name that is longer is left out of lists.
inline constexpr uint32 name_limit = 4096;

// A longer list is none that a console takes.
inline constexpr std::size_t list_limit = 64 << 20;

// False: it would be too long with this name.
bool append_name(std::string& page, std::string_view name);
std::string empty_page();
void set_next(std::string& page, uint32 next) noexcept;

// False: it is none.
bool read_page(std::string_view payload, name_page& out);

std::string number_payload(uint32 number);
bool read_number(std::string_view payload, uint32& out) noexcept;

} // namespace qor::control
