#include "debug_service.h"

#include "common/system_reason.h"

#include <algorithm>

namespace {

using namespace std::chrono_literals;
using qor::control::moment;

// A connection that ends has this long to send its last bytes.
constexpr auto farewell_time = 1s;

// The number of new connections to accept before existing ones are served again, so that a flood of connections delays
// nobody.
constexpr int at_a_time = 64;

} // namespace

qor::control::service::service(tls_context context, accounts users, std::vector<sockets::socket> listeners)
    : m_trace(qorDebugAllocateCode("system.debug-control")), m_context(std::move(context)),
      m_accounts(std::move(users)), m_host{m_context.get(), m_gate, m_accounts, m_trace},
      m_listeners(std::move(listeners)) {}

qor::control::service::~service() {
    m_ending = true;
    m_waker.wake();
    if (m_thread.joinable())
        m_thread.join();
}

void qor::control::service::start() {
    for (const sockets::socket& each : m_listeners)
        qorDebug(m_trace, "listening on %s", sockets::local_end(each).text().c_str());
    m_thread = sockets::start_thread([this] { run(); });
}

void qor::control::service::run() {
    std::vector<sockets::watched> watched;
    bool is_whole = true;
    while (!m_ending && is_whole)
        is_whole = turn(watched);
    for (connection& each : m_connections) {
        each.talk.lost("nobody listens any more");
        flush(each);
    }
    m_connections.clear();
    m_listeners.clear();
    if (!is_whole)
        qorDebug(m_trace, "this process has closed the sockets of its listener: nobody listens any more");
}

bool qor::control::service::turn(std::vector<sockets::watched>& watched) {
    if (!wait(std::chrono::steady_clock::now(), watched))
        return false;
    const moment now = std::chrono::steady_clock::now();
    m_waker.take();
    // `watched` has the connections in the order of m_connections; accept_some() appends new ones only afterwards.
    std::size_t at = 1 + m_listeners.size();
    for (auto each = m_connections.begin(); each != m_connections.end(); ++at)
        each = serve(*each, watched[at].ready, now) ? std::next(each) : m_connections.erase(each);
    for (std::size_t i = 0; i < m_listeners.size(); ++i)
        if (watched[1 + i].ready)
            accept_some(m_listeners[i], now);
    if (now >= m_forget_at) {
        m_gate.forget(now);
        m_forget_at = now + 10s;
    }
    return true;
}

int qor::control::service::time_to_wait(moment now) const noexcept {
    moment next = now + 10s;
    for (const connection& each : m_connections)
        next = std::min(next, each.talk.is_over() ? each.close_at : each.talk.next_look());
    if (m_accept_again > now)
        next = std::min(next, m_accept_again);
    return static_cast<int>(std::max<long long>(0, std::chrono::ceil<std::chrono::milliseconds>(next - now).count()));
}

bool qor::control::service::wait(moment now, std::vector<sockets::watched>& watched) {
    watched.clear();
    watched.push_back({&m_waker.receiver(), true, false});
    for (const sockets::socket& each : m_listeners)
        watched.push_back({&each, now >= m_accept_again, false});
    for (connection& each : m_connections)
        watched.push_back({&each.socket, !each.talk.is_over(), !each.talk.outgoing().empty()});
    return sockets::wait(watched, time_to_wait(now));
}

void qor::control::service::accept_some(const sockets::socket& listener, moment now) {
    for (int i = 0; i < at_a_time; ++i) {
        try {
            sockets::socket made;
            sockets::endpoint from;
            if (const int failed = sockets::accept_from(listener, made, from)) {
                // Most likely the host has no descriptors left. Do not add to its load: try again later.
                if (failed != sockets::would_block)
                    m_accept_again = now + 1s;
                return;
            }
            let_in(std::move(made), from, now);
        } catch (const std::bad_alloc&) {
            // Out of memory: the connection is closed.
        }
    }
}

void qor::control::service::let_in(sockets::socket made, const sockets::endpoint& from, moment now) {
    const sockets::source source = sockets::source_of(from, sockets::local_end(made));
    gate::place loser;
    const gate::place place = m_gate.enter(source.key, now, loser);
    if (place == 0) {
        qorDebug(m_trace, "connection from %s is turned away", source.text.c_str());
        return;
    }
    try {
        for (connection& each : m_connections)
            if (loser != 0 && each.talk.place() == loser)
                each.talk.lost("it made way for another one");
        m_connections.emplace_back(std::move(made), m_host, source, place, now);
    } catch (...) {
        m_gate.leave(place);
        throw;
    }
}

// Returns false if the connection can be closed.
bool qor::control::service::serve(connection& of, bool ready, moment now) {
    try {
        if (ready && !of.talk.is_over() && !receive(of, now))
            return false;
        of.talk.look_at_clock(now);
        if (of.talk.is_over() && of.close_at == moment())
            of.close_at = now + farewell_time;
        if (!flush(of)) {
            of.talk.lost("it is gone");
            return false;
        }
        return !of.talk.is_over() || (!of.talk.outgoing().empty() && now < of.close_at);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool qor::control::service::receive(connection& of, moment now) {
    char bytes[4096]; // small, so that the content of many short records takes no more room than a long one
    std::size_t count;
    const int failed = sockets::receive(of.socket, bytes, sizeof bytes, &count);
    if (failed == sockets::would_block)
        return true;
    if (failed != 0 || count == 0) {
        of.talk.lost(failed != 0 ? modules::system_reason(failed).c_str() : "it closed the connection");
        return false;
    }
    of.talk.receive({bytes, count}, now);
    return true;
}

// Returns false if nothing can be sent any more.
bool qor::control::service::flush(connection& of) {
    std::string& out = of.talk.outgoing();
    while (!out.empty()) {
        std::size_t count;
        const int failed = sockets::send(of.socket, out.data(), out.size(), &count);
        if (failed == sockets::would_block)
            return true;
        if (failed != 0)
            return false;
        out.erase(0, count);
    }
    out.shrink_to_fit();
    return true;
}
