#include "debug_listener.h"

#include "common/guarded.h"
#include "common/system_reason.h"
#include "debug_service.h"
#include "sockets.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace {

constexpr char source[] = "qorcore/modules/openssl/channel/debug_listener";

struct listening_address {
    std::vector<std::string> hosts; // the given host, or both loopback addresses
    uint16 port = 0;
};

// "[HOST:]PORT"; a host that contains colons is written in brackets.
bool read_address(std::string_view text, listening_address& out) {
    const std::size_t colon = text.rfind(':');
    const std::string_view port = text.substr(colon + 1);
    const auto [end, failed] = std::from_chars(port.data(), port.data() + port.size(), out.port);
    if (failed != std::errc() || end != port.data() + port.size())
        return false;
    if (colon == text.npos) {
        out.hosts = {"127.0.0.1", "::1"};
        return true;
    }
    std::string_view host = text.substr(0, colon);
    const bool in_brackets = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (in_brackets)
        host = host.substr(1, host.size() - 2);
    else if (host.find_first_of(":[]") != host.npos)
        return false;
    out.hosts = {std::string(host)};
    return !host.empty();
}

bool cannot_listen(const char* address, const std::string& reason) noexcept {
    qorSetLastError(qorError_debug_cannot_listen, address, reason.c_str());
    return false;
}

// Listens at all addresses, on the same port. Returns 0 or the system's error code. An address that this host lacks is
// an error only if the host lacks all of them.
int listen_at_all(std::vector<qor::sockets::endpoint> places, std::vector<qor::sockets::socket>& out) {
    int missing = 0;
    for (qor::sockets::endpoint& each : places) {
        if (each.port() == 0 && !out.empty())
            each.set_port(qor::sockets::local_end(out.front()).port());
        qor::sockets::socket made;
        const int failed = qor::sockets::listen_at(each, made);
        if (qor::sockets::is_not_here(failed))
            missing = failed;
        else if (failed != 0)
            return failed;
        else
            out.push_back(std::move(made));
    }
    return out.empty() ? missing : 0;
}

// The system chooses a free port for the first address. The port may be in use at another address, so try several
// times.
int listen_with_retries(const std::vector<qor::sockets::endpoint>& places, std::vector<qor::sockets::socket>& out) {
    int failed = 0;
    for (int i = 0; i < 16; ++i) {
        out.clear();
        failed = listen_at_all(places, out);
        if (failed != qor::sockets::in_use || places.front().port() != 0)
            break;
    }
    return failed;
}

class debug_listener final : public qor::object<IQORDebugListener> {
public:
    debug_listener() noexcept : object("qorcore.openssl.debug_listener", "IQORDebugListener") {}

    ~debug_listener() override {
        // In a forked child, the thread does not exist and its locks may stay locked, so leave the service alone.
        if (m_forks == qor::sockets::fork_count())
            delete m_service;
    }

    bool Listen(const char* address, const char* users, uint16* port) noexcept override {
        return qor::modules::guarded([&] { return listen(address, users, port); },
                                     [&](const std::string& reason) { return cannot_listen(address, reason); });
    }

private:
    bool listen(const char* address, const char* users, uint16* port) {
        listening_address wanted;
        if (!read_address(address, wanted)) {
            qorSetLastError(qorError_debug_bad_address, address);
            return false;
        }
        // Do not listen if nobody could log in.
        qor::control::accounts users_of_file;
        qor::control::key_pointer key;
        if (!users_of_file.open(users) || !users_of_file.open_key(key))
            return false;
        qor::control::tls_context context = qor::control::make_server_context(key.get());
        if (context == nullptr)
            return false;
        std::vector<qor::sockets::endpoint> places;
        std::string reason;
        for (const std::string& host : wanted.hosts)
            if (qor::sockets::resolve(host.c_str(), wanted.port, true, places, reason) != 0 && wanted.hosts.size() == 1)
                return cannot_listen(address, reason);
        std::vector<qor::sockets::socket> sockets;
        if (const int failed = listen_with_retries(places, sockets))
            return cannot_listen(address, qor::modules::system_reason(failed));
        const uint16 chosen = qor::sockets::local_end(sockets.front()).port();
        auto made =
            std::make_unique<qor::control::service>(std::move(context), std::move(users_of_file), std::move(sockets));
        made->start();
        m_service = made.release();
        m_forks = qor::sockets::fork_count();
        if (port != nullptr)
            *port = chosen;
        return true;
    }

    qor::control::service* m_service = nullptr;
    unsigned m_forks = 0;
};

} // namespace

bool create_debug_listener(IQORDebugListener** out) noexcept {
    return qor::modules::make<debug_listener>(source, __LINE__, out);
}
