// All listeners of the process, and the thread that accepts their connections. One mutex guards everything; no call to
// a client is made with it held.
//
// A closed listener is in no list any more, and its sockets are closed when the thread does not wait for them: a socket
// that somebody waits for keeps its port. A run is a call to the target or to the queue; whoever closes a listener
// waits for the end of its runs, and the last run of a closed listener releases target and queue as a part of it.
#include "error/error.h"
#include "memory/allocator.h"
#include "net/address.h"
#include "net/connection.h"
#include "platform/end_of_process.h"
#include "platform/no_cancellation.h"
#include "platform/own_process.h"
#include "qor/system/template/Object.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <vector>

namespace {

using namespace std::chrono_literals;
using qor::net::acceptance;
using qor::net::stream;
using qor::net::tally;
using steady = std::chrono::steady_clock;

constexpr char source[] = "qorcore/src/net/listener";

// How long nothing is accepted at a listener after descriptors or memory have run out.
constexpr auto pause = 200ms;
// So many connections of a listener are accepted before others have their turn, so that a flood delays nobody.
constexpr int at_a_time = 64;
// How often a free port of one family is sought that is also free in the other.
constexpr int port_attempts = 32;

struct accepter;

struct listener {
    accepter* owner = nullptr;
    std::vector<qorIPEndpoint> addresses; // never change
    std::shared_ptr<tally> counted;

    // Under the lock of `owner`.
    std::vector<qor::net::listening_socket> sockets;
    zetSmartPointer<IQORIPConnectionTarget> target;
    zetSmartPointer<IQORIPConnectionQueue> queue;
    // Nothing is accepted before this time; then the thread tries without being told. It tries a new listener at once,
    // because the event of the first connection may wake the thread before it knows the listener.
    steady::time_point paused_until = steady::now();
    bool is_broken = false; // the host has closed a socket
    bool is_closed = false;
    bool is_free = false; // the sockets are closed, too
    bool is_released = false;
    std::vector<unsigned long> runners; // the threads of the runs
};

using listener_pointer = std::shared_ptr<listener>;

struct accepter {
    std::mutex lock;
    qor::net::bell bell;
    std::condition_variable changed; // a run or a wait has ended
    std::vector<listener_pointer> open;
    std::uint64_t waits = 0; // that have ended
    bool is_waiting = false;
    bool has_thread = false;
    accepter* of_parent = nullptr;
};

// Never destroyed: the thread lives as long as the process. A forked child gets a new one; its parent's stays as it is,
// because threads that do not exist in the child may have been changing it.
std::atomic<accepter*> s_accepter{nullptr};

// What a thread that forks holds meanwhile: another one may make the first listener between the two routines.
thread_local accepter* s_held = nullptr;
thread_local qor::net::open_streams* s_held_streams = nullptr;

void before_fork() noexcept {
    s_held = s_accepter.load();
    if (s_held == nullptr)
        return;
    s_held->lock.lock();
    s_held_streams = &qor::net::the_streams();
    s_held_streams->lock.lock();
}
void in_parent() noexcept {
    if (s_held == nullptr)
        return;
    s_held_streams->lock.unlock();
    s_held->lock.unlock();
}
// What is left open here would keep the parent's ports and connections.
void in_child() noexcept {
    if (s_held == nullptr)
        return;
    for (const listener_pointer& each : s_held->open)
        for (const qor::net::listening_socket& socket : each->sockets)
            qor::net::forget(socket.handle());
    qor::net::forget_streams();
    s_held->bell.close();
    auto* const fresh = new accepter;
    fresh->of_parent = s_held;
    s_accepter.store(fresh);
}

// Takes no lock, which a fork could leave behind. To be called after the first request to the allocator: objects are
// made with our lock held, so a fork has to take it before that of the allocator, which begins to watch forks with the
// first request. Whoever watches last is asked first.
accepter& the_accepter() {
    [[maybe_unused]] static const bool watches_forks =
        (qor::platform::watch_forks(before_fork, in_parent, in_child), true);
    accepter* known = s_accepter.load();
    if (known != nullptr)
        return *known;
    auto made = std::make_unique<accepter>();
    if (s_accepter.compare_exchange_strong(known, made.get()))
        known = made.release();
    return *known;
}

// A target may fork. The child then has another one, and this run is none of its.
bool is_current(const accepter& own) noexcept { return s_accepter.load() == &own; }

// Ends a run of the calling thread.
void end_run(accepter& own, listener& which, std::unique_lock<std::mutex>& hold) noexcept {
    if (which.is_closed && which.runners.size() == 1 && !std::exchange(which.is_released, true)) {
        hold.unlock();
        which.target.Empty();
        which.queue.Empty();
        hold.lock();
    }
    which.runners.erase(std::ranges::find(which.runners, qor::platform::thread_id()));
    own.changed.notify_all();
}

// Calls a client. Returns false in a child that it has forked.
template <class CALL>
bool run(accepter& own, listener& which, std::unique_lock<std::mutex>& hold, CALL call) noexcept {
    which.runners.push_back(qor::platform::thread_id());
    hold.unlock();
    call();
    if (!is_current(own))
        return false;
    hold.lock();
    end_run(own, which, hold);
    return true;
}

class connection_event final : public qor::object<IQORIPConnectionEvent> {
public:
    connection_event(listener_pointer which, zetSmartPointer<IQORIPConnection>& connection)
        : object("qorcore.connection_event", "IQORIPConnectionEvent"), m_listener(std::move(which)),
          m_connection(std::move(connection)) {}

    void Run() noexcept override {
        accepter& own = *m_listener->owner;
        if (!is_current(own))
            return;
        std::unique_lock hold(own.lock);
        if (std::exchange(m_has_run, true))
            return;
        const zetSmartPointer<IQORIPConnection> connection = std::move(m_connection);
        if (!m_listener->is_closed)
            (void)run(own, *m_listener, hold, [&] { m_listener->target->ConnectionAccepted(*connection); });
        if (hold.owns_lock())
            hold.unlock(); // before the connection goes
    }

private:
    const listener_pointer m_listener;
    zetSmartPointer<IQORIPConnection> m_connection; // until it runs, or with the event
    bool m_has_run = false;
};

// Gives a new connection to its target or queue. Returns false in a child that was forked there.
bool pass_on(accepter& own, const listener_pointer& which, stream& made, const qorIPEndpoint& from,
             const qorIPEndpoint& at, std::unique_lock<std::mutex>& hold) noexcept {
    const tally::source source_of_it = tally::source_of(from.address);
    if (!which->counted->enter(source_of_it)) {
        qor::net::reset(made);
        return true;
    }
    zetSmartPointer<IQORIPConnection> connection;
    connection.AttachNew(qor::net::make_connection(made, from, at, which->counted));
    if (connection.IsEmpty()) {
        which->counted->leave(source_of_it);
        qor::net::reset(made);
        return true;
    }
    zetSmartPointer<connection_event> event;
    bool is_here = true;
    if (which->queue.IsEmpty()) {
        is_here = run(own, *which, hold, [&] { which->target->ConnectionAccepted(*connection); });
    } else if (qor::memory::make<connection_event>(source, __LINE__, event.Out(), which, connection)) {
        is_here = run(own, *which, hold, [&] { which->queue->Post(*event); });
    }
    if (!is_here)
        return false;
    // What the client has not kept goes without the lock.
    hold.unlock();
    event.Empty();
    connection.Empty();
    hold.lock();
    return true;
}

// Accepts what waits at a socket. Returns false in a child that a target has forked.
bool accept_some(accepter& own, const listener_pointer& which, std::size_t socket,
                 std::unique_lock<std::mutex>& hold) noexcept {
    const auto is_served = [&] {
        return !which->is_closed && !which->is_broken && which->paused_until == steady::time_point();
    };
    for (int i = 0; i < at_a_time && is_served(); ++i) {
        stream made;
        qorIPEndpoint from;
        qorIPEndpoint at;
        switch (which->sockets[socket].accept(made, from, at)) {
        case acceptance::made:
            if (!pass_on(own, which, made, from, at, hold))
                return false;
            break;
        case acceptance::nothing:
            return true;
        case acceptance::gone:
            break;
        case acceptance::exhausted:
            which->counted->pause();
            which->paused_until = steady::now() + pause;
            return true;
        case acceptance::broken:
            which->is_broken = true;
            // Nobody is to wait at a socket that is left.
            for (qor::net::listening_socket& each : which->sockets)
                each.close();
            return true;
        }
    }
    return true;
}

// A socket that is waited for, and its listener.
struct place {
    listener_pointer which;
    std::size_t socket;
};

// Collects the sockets to wait for. Returns for how many milliseconds; -1: there is no limit.
int plan(const accepter& own, std::vector<place>& places, std::vector<qor::net::watched>& watched) {
    places.clear();
    watched.clear();
    int limit = -1;
    for (const listener_pointer& each : own.open) {
        if (each->is_broken)
            continue;
        if (each->paused_until != steady::time_point()) {
            const auto rest = std::chrono::ceil<std::chrono::milliseconds>(each->paused_until - steady::now()).count();
            const int left = static_cast<int>(std::max<long long>(rest, 0));
            limit = limit < 0 ? left : std::min(limit, left);
            if (left > 0)
                continue;
            each->paused_until = {}; // nothing tells again about those who wait
        }
        for (std::size_t i = 0; i < each->sockets.size(); ++i) {
            places.push_back({each, i});
            watched.push_back({&each->sockets[i]});
        }
    }
    return limit;
}

void serve() noexcept {
    accepter& own = *s_accepter.load();
    std::unique_lock hold(own.lock);
    std::vector<place> places;
    std::vector<qor::net::watched> watched;
    for (;;) {
        const int limit = plan(own, places, watched);
        (void)own.bell.open(); // the host may have closed it; without one, it is tried again soon
        own.is_waiting = true;
        hold.unlock();
        own.bell.wait(watched, limit);
        hold.lock();
        own.is_waiting = false;
        ++own.waits;
        own.changed.notify_all();
        for (std::size_t i = 0; i < places.size(); ++i)
            if (watched[i].ready && !accept_some(own, places[i].which, places[i].socket, hold)) {
                (void)hold.release();
                return;
            }
    }
}

bool close_listener(const listener_pointer& which) noexcept {
    accepter& own = *which->owner;
    if (!is_current(own))
        return false;
    std::unique_lock hold(own.lock);
    const qor::platform::no_cancellation keep;
    const bool are_others_gone = qor::platform::other_threads_are_gone();
    const bool is_first = !std::exchange(which->is_closed, true);
    if (is_first) {
        std::erase(own.open, which);
        if (own.is_waiting && !are_others_gone) {
            own.bell.ring();
            own.changed.wait(hold, [&own, before = own.waits] { return own.waits != before; });
        }
        which->sockets.clear();
        which->is_free = true;
        own.changed.notify_all();
    }
    const auto is_inside = [&] {
        return std::ranges::find(which->runners, qor::platform::thread_id()) != which->runners.end();
    };
    if (are_others_gone || is_inside())
        return is_first;
    own.changed.wait(hold, [&] { return which->is_free && which->runners.empty(); });
    if (!which->is_released) {
        // A run of its own, so that others who close the listener wait for it, too.
        which->runners.push_back(qor::platform::thread_id());
        end_run(own, *which, hold);
    }
    return is_first;
}

class ip_port_listener final : public qor::object<IQORIPPortListener> {
public:
    explicit ip_port_listener(listener_pointer which) noexcept
        : object("qorcore.ip_port_listener", "IQORIPPortListener"), m_listener(std::move(which)) {}
    ~ip_port_listener() override { close_listener(m_listener); }

    uint16 GetPort() noexcept override { return m_listener->addresses.front().port; }
    uint32 GetAddressCount() noexcept override { return static_cast<uint32>(m_listener->addresses.size()); }

    bool GetAddress(uint32 index, qorIPEndpoint& out) noexcept override {
        if (index >= m_listener->addresses.size()) {
            qor::error::set(qorError_invalid_argument,
                            {"IQORIPPortListener::GetAddress", std::to_string(index).c_str()});
            return false;
        }
        out = m_listener->addresses[index];
        return true;
    }

    bool IsListening() noexcept override {
        accepter& own = *m_listener->owner;
        if (!is_current(own))
            return false;
        const std::lock_guard hold(own.lock);
        return !m_listener->is_closed && !m_listener->is_broken;
    }

    void GetCounts(qorIPPortCounts& out) noexcept override {
        out = is_current(*m_listener->owner) ? m_listener->counted->counts() : qorIPPortCounts();
    }

    bool Close() noexcept override { return close_listener(m_listener); }

private:
    const listener_pointer m_listener;
};

// Opens a socket for each address, at the same port. Returns 0 or a code, with the address to which it belongs. An
// address that this host lacks is left out, unless it is the last one.
int open_all(std::vector<qorIPEndpoint>& addresses, uint32 backlog, qor::net::bell& bell,
             std::vector<qor::net::listening_socket>& sockets, qorIPEndpoint& failed) {
    std::vector<qorIPEndpoint> opened;
    int missing = 0;
    for (qorIPEndpoint at : addresses) {
        if (at.port == 0 && !opened.empty())
            at.port = opened.front().port;
        qor::net::listening_socket made;
        const int code = made.open(at, backlog, bell);
        if (code == 0) {
            opened.push_back(made.local_end());
            sockets.push_back(std::move(made));
            continue;
        }
        failed = at;
        missing = code;
        if (!qor::net::is_not_here(code) || addresses.size() == 1) {
            sockets.clear();
            return code;
        }
    }
    if (opened.empty())
        return missing;
    addresses = std::move(opened);
    return 0;
}

bool find_addresses(const qorIPPortOptions& options, std::vector<qorIPEndpoint>& out) {
    qorHostAddress address;
    if (options.address != nullptr && *options.address != '\0') {
        if (!qor::net::from_text(options.address, address)) {
            qor::error::set(qorError_invalid_argument, {"qorCreateIPPortListener", options.address});
            return false;
        }
        out.push_back({address, options.port});
        return true;
    }
    for (const qorAddressFamily each : {qorAddressFamily::ipv4, qorAddressFamily::ipv6}) {
        address.family = each;
        out.push_back({address, options.port});
    }
    return true;
}

bool open_sockets(const qorIPPortOptions& options, accepter& own, listener& out) {
    std::vector<qorIPEndpoint> wanted;
    if (!find_addresses(options, wanted))
        return false;
    qorIPEndpoint failed = wanted.front();
    int code = 0;
    for (int i = 0; i < port_attempts; ++i) {
        out.addresses = wanted;
        code = open_all(out.addresses, options.backlog, own.bell, out.sockets, failed);
        // Where any port will do, one that is free in one family only is a reason to try another.
        if (code == 0 || options.port != 0 || failed.port == 0 || !qor::net::is_in_use(code))
            break;
    }
    if (code != 0)
        qor::error::set_with_reason(qorError_cannot_listen, qor::net::to_text(failed).c_str(), code);
    return code == 0;
}

template <class INTERFACE>
void hold_reference(zetSmartPointer<INTERFACE>& in, INTERFACE* object) noexcept {
    object->AddRef();
    in.AttachNew(object);
}

} // namespace

bool qor::glue::qorCreateIPPortListener(const qorIPPortOptions& options, IQORIPConnectionTarget* target,
                                        IQORIPConnectionQueue* queue, IQORIPPortListener** out) noexcept {
    if (target == nullptr) {
        error::set(qorError_invalid_argument, {"qorCreateIPPortListener", "target"});
        return false;
    }
    const auto made = std::make_shared<listener>();
    made->counted = std::make_shared<tally>(options.connections, options.connections_of_source);
    zetSmartPointer<ip_port_listener> object;
    if (!memory::make<ip_port_listener>(source, __LINE__, object.Out(), made))
        return false;
    accepter& own = the_accepter();
    made->owner = &own;
    std::unique_lock hold(own.lock);
    // Later, the thread itself looks after the bell.
    if (const int code = own.has_thread ? 0 : own.bell.open()) {
        hold.unlock();
        error::set_with_reason(qorError_cannot_start_listener, "qorCreateIPPortListener", code);
        return false;
    }
    if (!open_sockets(options, own, *made)) {
        hold.unlock();
        return false;
    }
    if (!own.has_thread) {
        if (const int code = platform::start_thread(serve)) {
            hold.unlock();
            error::set_with_reason(qorError_cannot_start_listener, "qorCreateIPPortListener", code);
            return false;
        }
        own.has_thread = true;
    }
    hold_reference(made->target, target);
    if (queue != nullptr)
        hold_reference(made->queue, queue);
    own.open.push_back(made);
    if (own.is_waiting)
        own.bell.ring();
    *out = object.Detach();
    return true;
}

bool qor::glue::qorCloseListener(IQORIPPortListener* listener) noexcept {
    if (listener == nullptr) {
        error::set(qorError_invalid_argument, {"qorCloseListener", "listener"});
        return false;
    }
    return listener->Close();
}
