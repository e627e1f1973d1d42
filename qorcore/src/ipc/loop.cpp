#include "ipc/loop.h"

#include "error/error.h"
#include "ipc/thread_start.h"
#include "platform/end_of_process.h"
#include "platform/no_cancellation.h"
#include "platform/own_process.h"

#include <algorithm>
#include <array>

namespace {

constexpr uint64 key_of_listener = 1; // connections have greater ones
constexpr unsigned most_events = 128;
constexpr unsigned most_accepted = 64; // before the connections get their turn
constexpr std::size_t buffer_size = 256 << 10;
// After the system had no descriptor or memory for a connection.
constexpr uint64 accept_pause = 100 * qor::ipc::ticks_per_ms;

// That which the calling thread serves.
thread_local const qor::ipc::loop* s_own = nullptr;

// Tells a peer why nobody talks to it. There is always room for so little.
void refuse(qor::ipc::channel& peer, qor::ipc::refusal why) noexcept {
    char bytes[qor::ipc::header_size + qor::ipc::refused_size];
    qor::ipc::write_header(bytes, qor::ipc::frame_kind::refused, qor::ipc::refused_size);
    qor::ipc::write_number(bytes + qor::ipc::header_size, static_cast<uint32>(why));
    const qor::ipc::piece all = {bytes, sizeof bytes};
    std::size_t ignored = 0;
    peer.write(&all, 1, ignored);
}

} // namespace

// ---- any thread

int qor::ipc::loop::start(const qorIpcOptions& options, IQORIpcTarget* target) noexcept {
    m_options = options;
    if (const int code = m_poller.open())
        return code;
    if (target != nullptr) {
        target->AddRef();
        m_target.AttachNew(target);
        if (const int code = m_poller.add(m_listener, key_of_listener))
            return code;
    }
    m_buffer = std::make_unique_for_overwrite<char[]>(buffer_size);
    auto context = std::make_unique<std::shared_ptr<loop>>(shared_from_this());
    const std::lock_guard hold(m_lock);
    const int code = start_thread(&thread_main, context.get(), m_thread);
    if (code == 0)
        (void)context.release();
    m_has_thread = code == 0;
    return code;
}

void qor::ipc::loop::thread_main(void* context) noexcept {
    const std::unique_ptr<std::shared_ptr<loop>> own(static_cast<std::shared_ptr<loop>*>(context));
    (*own)->run();
}

void qor::ipc::loop::post(std::function<void(loop&)> what) {
    {
        const std::lock_guard hold(m_lock);
        if (!m_takes_posts)
            return;
        m_posted.push_back(std::move(what));
        m_has_posts = true;
    }
    m_poller.wake();
}

bool qor::ipc::loop::is_own_thread() const noexcept { return s_own == this; }

bool qor::ipc::loop::close(uint64 until, bool at_once) noexcept {
    const platform::no_cancellation keep;
    post([until, at_once](loop& own) { own.begin_end(until, at_once); });
    const bool is_inside = is_own_thread();
    std::unique_lock hold(m_lock);
    if (!is_inside && !platform::other_threads_are_gone())
        m_has_ended.wait(hold, [this] { return m_is_over; });
    if (std::exchange(m_has_thread, false)) {
        const thread::handle own = m_thread;
        hold.unlock();
        if (is_inside || platform::other_threads_are_gone())
            thread::detach(own);
        else
            thread::join(own);
    }
    return is_inside || m_is_in_order;
}

// ---- the thread

uint64 qor::ipc::loop::next_due() const noexcept {
    return std::min(m_accept_again, m_checks.empty() ? never : m_checks.top().when);
}

void qor::ipc::loop::run() noexcept {
    thread::set_own_name("qor-ipc");
    s_own = this;
    std::array<event, most_events> events;
    m_now = ticks_now();
    while (!m_is_ending || !m_connections.empty()) {
        const unsigned count = m_poller.wait(events.data(), most_events, next_due(), m_now);
        m_now = ticks_now();
        for (unsigned i = 0; i < count; ++i) {
            if (events[i].key == key_of_listener) {
                accept();
                continue;
            }
            const auto found = m_connections.find(events[i].key);
            if (found == m_connections.end())
                continue;
            const std::shared_ptr<connection> which = found->second;
            if (events[i].can_write)
                which->can_write();
            if (events[i].can_read)
                which->can_read(m_buffer.get(), buffer_size);
            forget_if_gone(*which);
        }
        run_posted();
        run_checks(count + 2 < most_events); // a wake and the timer may have been among them
    }
    std::vector<std::function<void(loop&)>> dropped; // behind the lock
    {
        const std::lock_guard hold(m_lock);
        m_takes_posts = false;
        dropped.swap(m_posted);
    }
    dropped.clear();
    m_target.Empty();
    const std::lock_guard hold(m_lock);
    m_is_over = true;
    m_has_ended.notify_all();
}

void qor::ipc::loop::run_posted() noexcept {
    if (!m_has_posts)
        return;
    std::vector<std::function<void(loop&)>> now;
    {
        const std::lock_guard hold(m_lock);
        now.swap(m_posted);
        m_has_posts = false;
    }
    for (const auto& each : now)
        each(*this);
}

void qor::ipc::loop::check_at(connection& which, uint64 when) {
    if (when >= which.m_next_check)
        return;
    which.m_next_check = when;
    m_checks.push({when, which.id()});
}

// A connection may be in the queue more than once; only the earliest place counts.
void qor::ipc::loop::run_checks(bool has_seen_all) noexcept {
    const uint64 now = m_now;
    if (now >= m_accept_again) {
        m_accept_again = never;
        if (!m_is_ending)
            m_poller.set(m_listener, key_of_listener, true);
    }
    while (!m_checks.empty() && m_checks.top().when <= now) {
        const check due = m_checks.top();
        m_checks.pop();
        const auto found = m_connections.find(due.id);
        if (found == m_connections.end() || found->second->m_next_check != due.when)
            continue;
        const std::shared_ptr<connection> which = found->second;
        which->m_next_check = never;
        const uint64 next = which->check(now, has_seen_all);
        forget_if_gone(*which);
        if (next != never && !which->is_gone())
            check_at(*which, std::max(next, now + 1));
    }
}

void qor::ipc::loop::forget_if_gone(connection& which) noexcept {
    if (!which.is_gone() || m_connections.erase(which.id()) == 0)
        return;
    m_is_in_order = m_is_in_order && (!m_is_ending || which.has_ended_in_order());
    --m_count;
}

void qor::ipc::loop::add(const std::shared_ptr<connection>& made) noexcept {
    m_connections.emplace(made->id(), made);
    ++m_count;
    if (!made->begin()) {
        made->finish(qorIpcEnd::failed);
        forget_if_gone(*made);
        return;
    }
    check_at(*made, 0);
}

void qor::ipc::loop::accept() noexcept {
    for (unsigned i = 0; i < most_accepted && !m_is_ending; ++i) {
        channel made;
        peer from;
        const io result = m_listener.accept(made, from);
        if (result == io::would_wait)
            return;
        if (result != io::done) {
            m_poller.set(m_listener, key_of_listener, false);
            m_accept_again = ticks_now() + accept_pause;
            return;
        }
        if (m_options.users == qorIpcUsers::own && !from.is_own_user)
            refuse(made, refusal::other_user);
        else if (m_count >= m_options.max_connections)
            refuse(made, refusal::full);
        else
            add(std::make_shared<connection>(shared_from_this(), std::move(made), std::move(from), m_options, *m_target,
                                             true, new_id()));
    }
}

void qor::ipc::loop::begin_end(uint64 until, bool at_once) noexcept {
    if (!m_is_ending)
        m_listener.close();
    m_is_ending = true;
    std::vector<std::shared_ptr<connection>> all;
    all.reserve(m_connections.size());
    for (const auto& [id, each] : m_connections)
        all.push_back(each);
    for (const std::shared_ptr<connection>& each : all) {
        if (at_once)
            each->finish(qorIpcEnd::closed_here);
        else
            each->begin_close(until);
        // What the peer has not read yet stays there.
        if (at_once && !each->is_gone())
            each->drop();
        forget_if_gone(*each);
    }
}

bool qor::ipc::loop::may_grow(const connection& which) noexcept {
    if (m_grower != 0)
        return m_grower == which.id();
    m_grower = which.id();
    m_grows_since = ticks_now();
    return true;
}

void qor::ipc::loop::end_growth(const connection& which) noexcept {
    if (m_grower != which.id())
        return;
    m_grower = 0;
    for (const auto& [id, each] : m_connections)
        each->feed_again();
}

// ---- the connections that this process makes

namespace {

// Never destroyed: the thread lives as long as the process. A forked child makes its own, and takes no lock for that
// which its parent may have held.
struct client_side {
    const unsigned generation = qor::ipc::generation();
    std::mutex lock;
    std::shared_ptr<qor::ipc::loop> one;
};
std::atomic<client_side*> s_clients{nullptr};

client_side& the_clients() {
    client_side* known = s_clients.load();
    if (known != nullptr && known->generation == qor::ipc::generation())
        return *known;
    auto made = std::make_unique<client_side>();
    return s_clients.compare_exchange_strong(known, made.get()) ? *made.release() : *known;
}

} // namespace

std::shared_ptr<qor::ipc::loop> qor::ipc::clients() noexcept {
    client_side& own = the_clients();
    const std::lock_guard hold(own.lock);
    if (own.one != nullptr)
        return own.one;
    auto made = std::make_shared<loop>();
    if (const int code = made->start(qorIpcOptions{}, nullptr)) {
        error::set_with_reason(qorError_system, "qorCreateIpcConnection", code);
        return nullptr;
    }
    own.one = made;
    return made;
}
