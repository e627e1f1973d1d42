// Inside the module qor-openssl: the thread that serves the connections of a listener.
#pragma once

#include "debug_gate.h"
#include "debug_session.h"
#include "login/accounts.h"
#include "sockets.h"
#include "tls_channel.h"

#include <atomic>
#include <list>
#include <string>
#include <thread>
#include <vector>

namespace qor::control {

class service {
public:
    service(tls_context context, accounts users, std::vector<sockets::socket> listeners);
    service(const service&) = delete;
    service& operator=(const service&) = delete;
    ~service(); // ends the thread and all connections, and waits for the thread

    void start(); // throws std::system_error

private:
    struct connection {
        connection(sockets::socket taken, const session_host& host, sockets::source from, gate::place place, moment now)
            : socket(std::move(taken)), talk(host, std::move(from), place, now) {}

        sockets::socket socket;
        session talk;
        moment close_at{}; // for a session that is over
    };

    void run();
    bool turn(std::vector<sockets::watched>& watched); // one round; false if the host has closed our sockets
    int time_to_wait(moment now) const noexcept;
    bool wait(moment now, std::vector<sockets::watched>& watched);
    void accept_some(const sockets::socket& listener, moment now);
    void let_in(sockets::socket made, const sockets::endpoint& from, moment now);
    bool serve(connection& of, bool ready, moment now);
    bool receive(connection& of, moment now);
    bool flush(connection& of);

    uint32 m_trace;
    tls_context m_context;
    accounts m_accounts;
    gate m_gate;
    session_host m_host;
    std::vector<sockets::socket> m_listeners;
    sockets::waker m_waker;
    std::list<connection> m_connections;
    moment m_accept_again{}; // set while the host has no descriptors left
    moment m_forget_at{};
    std::atomic<bool> m_ending = false;
    std::thread m_thread;
};

} // namespace qor::control
