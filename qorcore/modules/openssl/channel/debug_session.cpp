#include "debug_session.h"

#include <algorithm>

namespace {

using qor::control::frame_type;

// Returns the page of a list that begins at `start` among all codes. Codes are only ever added, so the pages fit
// together even if codes are added between them.
std::string list_page(bool only_enabled, uint32 start) {
    // Read this list first: the second list then contains all its names, in the same order.
    qorStringArray enabled;
    if (only_enabled)
        qorDebugGetEnabledCodes(enabled);
    qorStringArray all;
    qorDebugGetCodes(all);
    std::string page = qor::control::empty_page();
    uint32 next_enabled = 0;
    for (uint32 i = 0; i < all.GetCount(); ++i) {
        if (only_enabled && (next_enabled == enabled.GetCount() || std::strcmp(all[i], enabled[next_enabled]) != 0))
            continue;
        ++next_enabled;
        const std::string_view name = all[i];
        if (i < start || name.size() > qor::control::name_limit)
            continue;
        if (!qor::control::append_name(page, name)) {
            qor::control::set_next(page, i);
            break;
        }
    }
    return page;
}

} // namespace

std::string qor::control::quoted(std::string_view text) {
    std::string out = "'";
    for (const char c : text.substr(0, longest_user_name)) {
        const auto byte = static_cast<uint8>(c);
        if (byte >= 0x20 && byte < 0x7f && byte != '\\' && byte != '\'') {
            out += c;
            continue;
        }
        char escaped[5];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
        out += escaped;
    }
    out += '\'';
    return text.size() > longest_user_name ? out + '+' + std::to_string(text.size() - longest_user_name) : out;
}

qor::control::session::session(const session_host& host, sockets::source peer, gate::place place, moment now)
    : m_host(host), m_peer(std::move(peer)), m_place(place), m_channel(host.context, tls_channel::side::server),
      m_begun(now), m_heard(now), m_sent(now) {
    m_channel.set_record_limit(tls_channel::longest_hello);
}

qor::control::session::~session() { leave_gate(); }

void qor::control::session::leave_gate() {
    m_host.doorway.leave(std::exchange(m_place, 0));
    if (std::exchange(m_logged_in, false))
        m_host.doorway.end_session(m_account);
}

void qor::control::session::receive(std::string_view wire, moment now) {
    if (m_over)
        return;
    m_heard = now;
    std::string plain;
    m_channel.receive(wire, plain);
    if (!m_open && m_channel.now() == tls_channel::state::open) {
        if (!m_channel.speaks_protocol())
            return end("it does not speak the protocol");
        m_open = true;
        m_channel.set_record_limit(frame_header_size + payload_limit_before_login);
    }
    m_frames.add(plain);
    bool complete = false;
    for (frame request; !m_over;) {
        const frame_reader::result found = m_frames.next(request);
        if (found == frame_reader::result::malformed)
            return end("a malformed frame");
        if (found == frame_reader::result::nothing)
            break;
        complete = true;
        handle(request, now);
    }
    if (m_over)
        return;
    if (m_channel.now() == tls_channel::state::failed)
        return end(m_channel.reason().c_str());
    if (m_channel.now() == tls_channel::state::ended)
        return end("it said so");
    if (!m_frames.is_within() && !m_channel.is_within())
        m_within_since.reset();
    else if (complete || !m_within_since)
        m_within_since = now;
}

void qor::control::session::handle(const frame& request, moment now) {
    if (request.type == frame_type::heartbeat) {
        if (!is_heartbeat(request))
            end("a malformed frame");
        return;
    }
    if (m_logged_in)
        return carry_out(request);
    // One step at a time: no request may arrive before the previous one is answered.
    if (m_waiting == waiting::nothing && request.type == frame_type::login_first && !m_login)
        return begin_login(request);
    if (m_waiting == waiting::nothing && request.type == frame_type::login_final && m_login) {
        m_waiting_request = request;
        m_waiting = waiting::try_to_log_in;
        m_try_at = now + m_host.doorway.delay(m_account, now);
        return look_at_clock(now);
    }
    end("a request that is out of turn");
}

void qor::control::session::begin_login(const frame& request) {
    std::string answer;
    const std::array<uint8, 32> binding = m_channel.binding();
    m_login.emplace(m_host.users, binding);
    if (!m_login->first(request.payload, answer))
        return end("a malformed login");
    m_account = m_login->user();
    m_user = quoted(m_account);
    send(frame_type::login_first_answer, request.request, answer);
}

void qor::control::session::finish_login(moment now) {
    m_waiting = waiting::nothing;
    std::string answer;
    const scram_server::verdict verdict = m_login->final(m_waiting_request.payload, answer);
    m_login.reset();
    if (verdict != scram_server::verdict::accepted)
        m_host.doorway.count_wrong_try(m_peer.key, m_account, now);
    switch (verdict) {
    case scram_server::verdict::malformed:
        return end("a malformed login");
    case scram_server::verdict::refused:
        return refuse_later(now);
    case scram_server::verdict::accepted:
        if (!m_host.doorway.begin_session(m_account)) {
            qorDebug(m_host.trace, "no room for another session of %s from %s", m_user.c_str(), m_peer.text.c_str());
            refuse(m_waiting_request, refusal_code::no_room);
            return end("too many are logged in");
        }
        leave_gate();
        m_logged_in = true;
        m_frames.set_limit(payload_limit);
        m_channel.set_record_limit(tls_channel::longest_record);
        qorDebug(m_host.trace, "login of %s from %s", m_user.c_str(), m_peer.text.c_str());
        send(frame_type::login_final_answer, m_waiting_request.request, answer);
    }
}

void qor::control::session::refuse_later(moment now) {
    m_waiting = waiting::refusal;
    m_refuse_at = now + refusal_delay * (1 << m_refused);
    ++m_refused;
    qorDebug(m_host.trace, "refused %s from %s", m_user.c_str(), m_peer.text.c_str());
}

void qor::control::session::refuse_now() {
    m_waiting = waiting::nothing;
    refuse(m_waiting_request, refusal_code::credentials);
    if (m_refused == refusals)
        end("too many refusals");
}

void qor::control::session::carry_out(const frame& request) {
    uint32 start = 0;
    switch (request.type) {
    case frame_type::get_codes:
    case frame_type::get_enabled_codes:
        if (!read_number(request.payload, start))
            break;
        return send(answer_to(request.type), request.request,
                    list_page(request.type == frame_type::get_enabled_codes, start));
    case frame_type::enable_code:
        return enable_code(request);
    case frame_type::disable_all:
        if (!request.payload.empty())
            break;
        qorDebug(m_host.trace, "%s from %s switches all codes off", m_user.c_str(), m_peer.text.c_str());
        qorDebugEnableCode("*", false);
        return send(frame_type::disable_all_answer, request.request, {});
    default:
        break;
    }
    end("a malformed request");
}

void qor::control::session::enable_code(const frame& request) {
    const std::string_view payload = request.payload;
    if (payload.empty() || static_cast<uint8>(payload[0]) > 1 || payload.find('\0', 1) != payload.npos)
        return end("a malformed request");
    const bool enable = payload[0] == 1;
    const std::string name(payload.substr(1));
    if (name.empty() || name.size() > name_limit)
        return refuse(request, refusal_code::request);
    qorDebug(m_host.trace, "%s from %s switches %s %s", m_user.c_str(), m_peer.text.c_str(), quoted(name).c_str(),
             enable ? "on" : "off");
    if (!qorDebugEnableCode(name.c_str(), enable)) {
        qorDebug(m_host.trace, "no room to remember %s", quoted(name).c_str());
        return refuse(request, refusal_code::no_room);
    }
    send(frame_type::enable_code_answer, request.request, {});
}

void qor::control::session::refuse(const frame& request, refusal_code reason) {
    send(frame_type::refusal, request.request, number_payload(static_cast<uint32>(reason)));
}

void qor::control::session::send(frame_type type, uint32 request, std::string_view payload) {
    std::string bytes;
    append_frame(bytes, type, request, payload);
    m_channel.send(bytes);
    if (outgoing().size() > queue_limit) {
        end("it does not read its answers");
        outgoing().clear();
    }
}

void qor::control::session::look_at_clock(moment now) {
    if (m_over)
        return;
    if (!m_open && now >= m_begun + frame_time)
        return end("the handshake took too long");
    if (m_within_since && now >= *m_within_since + frame_time)
        return end("a frame took too long");
    if (!m_logged_in && now >= m_begun + login_time)
        return end("the login took too long");
    if (m_open && now >= m_heard + silence_limit)
        return end("it was silent for too long");
    if (m_waiting == waiting::try_to_log_in && now >= m_try_at) {
        if (m_host.doorway.may_try(m_peer.key, m_account, now, m_try_at))
            finish_login(now);
    } else if (m_waiting == waiting::refusal && now >= m_refuse_at) {
        refuse_now();
    }
    if (m_open && !m_over && now >= m_sent + heartbeat_time) {
        m_sent = now;
        send(frame_type::heartbeat, 0, {});
    }
}

qor::control::moment qor::control::session::next_look() const noexcept {
    if (!m_open)
        return m_begun + frame_time;
    moment next = std::min(m_heard + silence_limit, m_sent + heartbeat_time);
    if (m_within_since)
        next = std::min(next, *m_within_since + frame_time);
    if (!m_logged_in)
        next = std::min(next, m_begun + login_time);
    if (m_waiting == waiting::try_to_log_in)
        next = std::min(next, m_try_at);
    if (m_waiting == waiting::refusal)
        next = std::min(next, m_refuse_at);
    return next;
}

void qor::control::session::lost(const char* reason) {
    if (!m_over)
        end(reason);
}

void qor::control::session::end(const char* reason) {
    m_over = true;
    if (m_logged_in)
        qorDebug(m_host.trace, "%s from %s has left: %s", m_user.c_str(), m_peer.text.c_str(), reason);
    else
        qorDebug(m_host.trace, "connection from %s ends before a login: %s", m_peer.text.c_str(), reason);
    leave_gate();
    m_channel.end();
}
