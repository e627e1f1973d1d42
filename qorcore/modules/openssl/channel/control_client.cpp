#include "control_client.h"

#include "common/guarded.h"
#include "common/system_reason.h"
#include "debug_link.h"
#include "login/accounts.h"
#include "login/known_hosts.h"
#include "login/scram_client.h"
#include "message_names.h"

#include <cstring>
#include <mutex>
#include <system_error>

namespace framework = qor::messages::framework;

using namespace std::chrono_literals;

namespace {

using qor::control::frame;
using qor::control::frame_type;

constexpr char source[] = "qorcore/modules/openssl/channel/control_client";

constexpr int connect_time = 10'000; // milliseconds, for each address
constexpr auto request_time = 20s;
// A listener may hold back a login for a minute after wrong tries from the same source.
constexpr auto login_time = 130s;

class control_client final : public qor::object<IQORDebugControl2> {
public:
    control_client(qor::control::tls_context context, const char* known_hosts)
        : object("qorcore.openssl.debug_control", "IQORDebugControl2", "IQORDebugControl"),
          m_context(std::move(context)), m_known_hosts(known_hosts) {}

    ~control_client() override { leave(); }

    bool Connect(const char* host, uint16 port) noexcept override {
        return guarded([&] {
            leave();
            {
                const std::lock_guard hold(m_lock);
                m_to = {host, port};
                m_first_key.reset();
            }
            link_pointer made;
            return connect(made);
        });
    }

    bool Login(const char* username, const char* password) noexcept override {
        return guarded([&] {
            if (username == nullptr || password == nullptr) {
                qorSetLastError(qorError_invalid_argument, "IQORDebugControl::Login",
                                username == nullptr ? "username" : "password");
                return false;
            }
            link_pointer to = current();
            if (is_alive(to) && to->is_logged_in()) {
                qorSetLastError(qorError_debug_logged_in);
                return false;
            }
            // No account has such a name, and the listener would end the connection at a frame this long.
            if (std::strlen(username) > qor::control::longest_user_name) {
                qorSetLastError(qorError_credentials_refused);
                return false;
            }
            // A listener closes a connection after several refusals, or if nobody logs in for some time. The user
            // should only have to retype the password, so connect again without an error.
            const bool fresh = !is_alive(to);
            if (fresh && !connect(to))
                return false;
            frame answer;
            qor::control::scram_client login(username, password, to->binding());
            if (to->ask(frame_type::login_first, login.first(), request_time, answer))
                return log_in(to, login, answer);
            if (fresh || !to->was_closed() || !connect(to))
                return false;
            qor::control::scram_client again(username, password, to->binding());
            return to->ask(frame_type::login_first, again.first(), request_time, answer) && log_in(to, again, answer);
        });
    }

    bool SetSink(IQORDebugControlSink* sink) noexcept override {
        return guarded([&] {
            if (sink != nullptr && sink->getver_IQORDebugControlSink() < 1) {
                qorSetLastError(qorError_invalid_argument, "IQORDebugControl::SetSink", "sink");
                return false;
            }
            const link_pointer to = logged_in();
            return to != nullptr && to->set_sink(sink);
        });
    }

    bool GetCodes(qorStringArray& out) noexcept override { return get_list(frame_type::get_codes, out); }
    bool GetEnabledCodes(qorStringArray& out) noexcept override { return get_list(frame_type::get_enabled_codes, out); }

    bool EnableCode(const char* name, bool enable) noexcept override {
        return guarded([&] {
            if (name == nullptr || *name == '\0') {
                qorSetLastError(qorError_invalid_argument, "IQORDebugControl::EnableCode", "name");
                return false;
            }
            const link_pointer to = logged_in();
            if (to == nullptr)
                return false;
            const std::string payload = std::string(1, enable ? '\1' : '\0') + name;
            // No code has a name that does not fit a frame.
            if (payload.size() > qor::control::payload_limit) {
                qorSetLastError(qorError_debug_refused);
                return false;
            }
            frame answer;
            return ask(to, frame_type::enable_code, payload, answer);
        });
    }

    bool GetListenerKey(qorString& fingerprint, bool& is_known) noexcept override {
        return guarded([&] {
            const link_pointer to = current();
            if (to == nullptr || to->is_of_parent())
                return not_connected();
            fingerprint = qor::control::text_of(to->peer_key()).c_str();
            is_known = to->is_proved();
            return true;
        });
    }

    bool DisableAll() noexcept override {
        return guarded([&] {
            frame answer;
            const link_pointer to = logged_in();
            return to != nullptr && ask(to, frame_type::disable_all, {}, answer);
        });
    }

private:
    // Operations hold a reference to their link: a callback of the sink may connect anew while another operation still
    // reports the loss.
    using link_pointer = std::shared_ptr<qor::control::link>;

    using peer_name = qor::control::link::peer_name;

    template <class ACTION>
    bool guarded(ACTION action) const noexcept {
        return qor::modules::guarded(action, [](const std::string& reason) {
            qorSetLastError(qorError_system, "IQORDebugControl", reason.c_str());
            return false;
        });
    }

    static bool not_connected() noexcept {
        qorSetLastError(qorError_debug_not_connected);
        return false;
    }

    link_pointer current() const {
        const std::lock_guard hold(m_lock);
        return m_link;
    }

    static bool is_alive(const link_pointer& link) {
        return link != nullptr && !link->is_of_parent() && !link->is_lost();
    }

    // Returns null on failure; the last error gives the reason.
    link_pointer logged_in() const {
        link_pointer to = current();
        if (to == nullptr || to->is_of_parent()) {
            not_connected();
            return nullptr;
        }
        if (!to->is_logged_in()) {
            qorSetLastError(qorError_debug_not_logged_in);
            return nullptr;
        }
        return to;
    }

    // The thread that takes a link out of m_link stops it.
    void replace(link_pointer by) {
        {
            const std::lock_guard hold(m_lock);
            m_link.swap(by);
        }
        if (by != nullptr)
            by->stop();
    }

    void leave() { replace(nullptr); }

    void leave(const link_pointer& which) {
        {
            const std::lock_guard hold(m_lock);
            if (m_link != which)
                return;
            m_link.reset();
        }
        which->stop();
    }

    bool connect(link_pointer& out) {
        leave();
        peer_name to;
        {
            const std::lock_guard hold(m_lock);
            to = m_to;
        }
        if (to.host.empty())
            return not_connected();
        if (to.port == 0) {
            qorSetLastError(qorError_no_port, "0");
            return false;
        }
        std::vector<qor::sockets::endpoint> places;
        std::string reason;
        qor::sockets::socket made;
        const std::string port = std::to_string(to.port);
        if (qor::sockets::resolve(to.host.c_str(), to.port, false, places, reason) == 0)
            for (const qor::sockets::endpoint& each : places) {
                const int failed = qor::sockets::connect_to(each, connect_time, made);
                if (failed == 0)
                    break;
                reason = qor::modules::system_reason(failed);
            }
        if (!made.is_open()) {
            qorSetLastError(qorError_debug_cannot_connect, to.host.c_str(), port.c_str(), reason.c_str());
            return false;
        }
        out = std::make_shared<qor::control::link>(to, std::move(made), m_context.get());
        bool is_known = false;
        if (!qor::control::link::open(out) ||
            !qor::control::known_hosts(m_known_hosts).check(to.host, to.port, out->peer_key(), is_known) ||
            !is_as_at_first(*out)) {
            out->stop();
            return false;
        }
        if (is_known)
            out->set_proved();
        replace(out);
        return true;
    }

    // The user may have compared the key that Connect received. A login that connects again by itself must meet the
    // same key.
    bool is_as_at_first(const qor::control::link& to) {
        const std::lock_guard hold(m_lock);
        if (!m_first_key)
            m_first_key = to.peer_key();
        if (*m_first_key == to.peer_key())
            return true;
        qorSetLastError(qorError_debug_other_key, to.peer().host.c_str(), std::to_string(to.peer().port).c_str(),
                        qor::control::text_of(to.peer_key()).c_str());
        return false;
    }

    // Continues a login after the answer to the first message.
    bool log_in(const link_pointer& to, qor::control::scram_client& login, frame& answer) {
        std::string last;
        const qor::crypto::wiped_later of_last(last); // an attacker could test guesses at the password against it
        if (!login.final(answer.payload, last)) {
            leave(to);
            qorSetLastError(qorError_debug_protocol, qor::control::reason_text(framework::unsafe_login).c_str());
            return false;
        }
        if (!to->ask(frame_type::login_final, last, login_time, answer))
            return false;
        if (answer.type == frame_type::refusal)
            return login_refused(*to, answer);
        // From here on, the listener must prove its identity.
        const peer_name& peer = to->peer();
        if (!login.verify(answer.payload)) {
            leave(to);
            qorSetLastError(qorError_debug_server_not_proved, peer.host.c_str(), std::to_string(peer.port).c_str());
            return false;
        }
        if (!qor::control::known_hosts(m_known_hosts).remember(peer.host, peer.port, to->peer_key())) {
            leave(to);
            return false;
        }
        to->set_proved();
        to->set_logged_in();
        return true;
    }

    static bool is_no_room(const frame& refusal) noexcept {
        uint32 code = 0;
        return qor::control::read_number(refusal.payload, code) &&
               code == static_cast<uint32>(qor::control::refusal_code::no_room);
    }

    // Any listener can refuse in order to collect retyped passwords, so the message says whether this one has proved
    // its identity.
    static bool login_refused(const qor::control::link& by, const frame& answer) {
        const std::string doubt = by.is_proved()
                                      ? ""
                                      : qor::control::reason_text(framework::listener_not_proved,
                                                                  qor::control::text_of(by.peer_key()).c_str());
        qorSetLastError(is_no_room(answer) ? qorError_debug_sessions_full : qorError_credentials_refused,
                        doubt.c_str());
        return false;
    }

    static bool ask(const link_pointer& to, frame_type type, std::string_view payload, frame& answer) {
        if (!to->ask(type, payload, request_time, answer))
            return false;
        if (answer.type == frame_type::refusal)
            qorSetLastError(is_no_room(answer) ? qorError_debug_switches_full : qorError_debug_refused);
        return answer.type != frame_type::refusal;
    }

    bool get_list(frame_type type, qorStringArray& out) noexcept {
        return guarded([&] {
            out.Empty();
            const link_pointer to = logged_in();
            if (to == nullptr)
                return false;
            uint32 next = 0;
            std::size_t length = 0;
            do {
                frame answer;
                qor::control::name_page page;
                if (!ask(to, type, qor::control::number_payload(next), answer))
                    return false;
                length += answer.payload.size();
                // Bounds the list: each page must bring at least one name, and the total size is limited.
                if (!qor::control::read_page(answer.payload, page) || length > qor::control::list_limit ||
                    (page.next != 0 && (page.next <= next || page.names.empty())))
                    return to->lose_to_nonsense();
                for (const std::string& name : page.names)
                    out.Append(name.c_str());
                next = page.next;
            } while (next != 0);
            return true;
        });
    }

    const qor::control::tls_context m_context;
    const std::string m_known_hosts;
    mutable std::mutex m_lock; // held only while copying the members that it guards
    peer_name m_to;
    std::optional<qor::control::key_fingerprint> m_first_key; // the first key that this listener showed since Connect
    link_pointer m_link;
};

} // namespace

bool create_debug_control(const char* known_hosts, IQORDebugControl** out) noexcept {
    qor::control::tls_context context = qor::control::make_client_context();
    if (context == nullptr)
        return false;
    return qor::modules::make<control_client>(source, __LINE__, out, std::move(context), known_hosts);
}
