#include "net/connection.h"

#include "error/error.h"
#include "memory/allocator.h"
#include "net/address.h"
#include "platform/no_cancellation.h"
#include "platform/own_process.h"
#include "qor/system/template/Object.h"

#include <algorithm>
#include <atomic>

namespace {

using qor::net::deadline;
using qor::net::stream;
using qor::net::tally;

constexpr char source[] = "qorcore/src/net/connection";

std::atomic<qor::net::open_streams*> s_streams{nullptr};

class ip_connection final : public qor::object<IQORIPConnection> {
public:
    ip_connection(stream& taken, const qorIPEndpoint& peer, const qorIPEndpoint& own, std::shared_ptr<tally> counted)
        : object("qorcore.ip_connection", "IQORIPConnection"), m_peer(peer), m_local(own),
          m_counted(std::move(counted)) {
        qor::net::open_streams& all = qor::net::the_streams();
        const std::lock_guard hold(all.lock);
        m_stream = std::exchange(taken, {});
        all.all.insert(&m_stream);
    }

    ~ip_connection() override {
        if (m_own != qor::platform::process_id())
            return;
        end();
        leave();
    }

    void GetPeer(qorIPEndpoint& out) noexcept override { out = m_peer; }
    void GetLocal(qorIPEndpoint& out) noexcept override { out = m_local; }

    bool Read(void* buffer, uint64 length, uint32 ms, uint64& count) noexcept override {
        count = 0;
        if (length == 0) {
            qor::error::set(qorError_invalid_argument, {"IQORIPConnection::Read", "length"});
            return false;
        }
        const use now(*this, "Read");
        return now.is_possible() && now.has_worked(qor::net::receive(m_stream, buffer, length, deadline(ms), count));
    }

    bool Write(const void* bytes, uint64 length, uint32 ms, uint64* written) noexcept override {
        uint64 ignored = 0;
        uint64& done = written != nullptr ? *written : ignored;
        done = 0;
        const use now(*this, "Write");
        return now.is_possible() && now.has_worked(qor::net::send(m_stream, bytes, length, deadline(ms), done));
    }

    bool EndWriting() noexcept override {
        const use now(*this, "EndWriting");
        return now.is_possible() && now.has_worked(qor::net::end_writing(m_stream));
    }

    void Close() noexcept override {
        if (m_own != qor::platform::process_id())
            return;
        end();
        leave();
    }

    int64 GetSocket() noexcept override {
        if (m_own != qor::platform::process_id())
            return -1;
        const std::lock_guard hold(m_lock);
        return m_is_closed ? -1 : m_stream.socket.number;
    }

    int64 TakeSocket() noexcept override {
        if (!is_own())
            return -1;
        const std::lock_guard hold(m_lock);
        if (m_is_closed) {
            say_closed("TakeSocket");
            return -1;
        }
        if (m_users != 0) {
            qor::error::set(qorError_connection_busy, {qor::net::to_text(m_peer).c_str()});
            return -1;
        }
        m_is_closed = true;
        qor::net::open_streams& all = qor::net::the_streams();
        const std::lock_guard hold_all(all.lock);
        all.all.erase(&m_stream);
        return qor::net::take(m_stream);
    }

private:
    // A call that uses the stream, which is closed behind the last of them.
    class use {
    public:
        use(ip_connection& of, const char* operation) noexcept : m_of(of), m_operation(operation) {
            if (!m_of.is_own())
                return;
            const std::lock_guard hold(m_of.m_lock);
            if (m_of.m_is_closed) {
                m_of.say_closed(operation);
                return;
            }
            ++m_of.m_users;
            m_is_possible = true;
        }
        use(const use&) = delete;
        use& operator=(const use&) = delete;
        ~use() {
            if (!m_is_possible)
                return;
            const std::lock_guard hold(m_of.m_lock);
            if (--m_of.m_users == 0 && m_of.m_is_closed)
                m_of.close_stream();
        }

        bool is_possible() const noexcept { return m_is_possible; }

        // Whether the system's code is a success, and the connection was not closed meanwhile.
        bool has_worked(int code) const noexcept {
            bool is_closed;
            {
                const std::lock_guard hold(m_of.m_lock);
                is_closed = m_of.m_is_closed;
            }
            if (is_closed)
                m_of.say_closed(m_operation);
            else if (code == qor::net::timed_out)
                qor::error::set(qorError_timed_out);
            else if (code != 0)
                qor::error::set_with_reason(qorError_connection_failed, qor::net::to_text(m_of.m_peer).c_str(), code);
            return !is_closed && code == 0;
        }

    private:
        ip_connection& m_of;
        const char* m_operation;
        bool m_is_possible = false;
        qor::platform::no_cancellation m_keep;
    };

    bool is_own() const noexcept {
        if (m_own == qor::platform::process_id())
            return true;
        qor::error::set(qorError_connection_of_another_process, {qor::net::to_text(m_peer).c_str()});
        return false;
    }

    void say_closed(const char* operation) const noexcept {
        qor::error::set(qorError_connection_closed, {operation, qor::net::to_text(m_peer).c_str()});
    }

    void end() noexcept {
        const std::lock_guard hold(m_lock);
        if (std::exchange(m_is_closed, true))
            return;
        qor::net::interrupt(m_stream);
        if (m_users == 0)
            close_stream();
    }

    // A fork finds the stream either open and in the list, or closed and not in it.
    void close_stream() noexcept {
        qor::net::open_streams& all = qor::net::the_streams();
        const std::lock_guard hold(all.lock);
        all.all.erase(&m_stream);
        qor::net::close(m_stream);
    }

    // Once, after the end or with it.
    void leave() noexcept {
        if (!m_has_left.exchange(true))
            m_counted->leave(tally::source_of(m_peer.address));
    }

    const qorIPEndpoint m_peer;
    const qorIPEndpoint m_local;
    const std::shared_ptr<tally> m_counted;
    const unsigned long m_own = qor::platform::process_id();
    std::mutex m_lock;
    stream m_stream;
    uint32 m_users = 0;
    bool m_is_closed = false;
    std::atomic<bool> m_has_left{false};
};

} // namespace

tally::source tally::source_of(const qorHostAddress& address) noexcept {
    source made{};
    made[0] = static_cast<uint8>(address.family);
    if (address.family == qorAddressFamily::ipv4) {
        std::copy_n(address.ipv4.bytes, 4, made.begin() + 1);
        return made;
    }
    std::copy_n(address.ipv6.bytes, 8, made.begin() + 1);
    for (int i = 0; i < 4; ++i)
        made[9 + static_cast<std::size_t>(i)] = static_cast<uint8>(address.scope >> 8 * i);
    return made;
}

bool tally::enter(const source& from) {
    const std::lock_guard hold(m_lock);
    if (m_limit != 0 && m_counts.open >= m_limit) {
        ++m_counts.beyond_limit;
        return false;
    }
    uint32& of_source = m_open[from];
    if (m_limit_of_source != 0 && of_source >= m_limit_of_source) {
        ++m_counts.beyond_source;
        return false;
    }
    ++of_source;
    ++m_counts.open;
    ++m_counts.accepted;
    return true;
}

void tally::leave(const source& from) noexcept {
    const std::lock_guard hold(m_lock);
    const auto found = m_open.find(from);
    if (--found->second == 0)
        m_open.erase(found);
    --m_counts.open;
}

void tally::pause() noexcept {
    const std::lock_guard hold(m_lock);
    ++m_counts.without_resource;
}

qorIPPortCounts tally::counts() const noexcept {
    const std::lock_guard hold(m_lock);
    return m_counts;
}

std::string qor::net::to_text(const qorIPEndpoint& at) {
    qorString host;
    qor::glue::qorAddressToString_host(at.address, true, host);
    std::string text(host.Text(), host.Length());
    text.append(" port ").append(std::to_string(at.port));
    return text;
}

qor::net::open_streams& qor::net::the_streams() noexcept {
    open_streams* known = s_streams.load();
    if (known == nullptr) {
        auto made = std::make_unique<open_streams>();
        if (s_streams.compare_exchange_strong(known, made.get()))
            known = made.release();
    }
    return *known;
}

void qor::net::forget_streams() noexcept {
    for (const stream* each : the_streams().all)
        forget(each->socket);
    s_streams.store(new open_streams);
}

IQORIPConnection* qor::net::make_connection(stream& taken, const qorIPEndpoint& peer, const qorIPEndpoint& own,
                                            const std::shared_ptr<tally>& counted) noexcept {
    ip_connection* made = nullptr;
    return memory::make<ip_connection>(source, __LINE__, &made, taken, peer, own, counted) ? made : nullptr;
}
