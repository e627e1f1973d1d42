// Messages between processes: the operations, and the objects of the program.
#include "error/error.h"
#include "ipc/loop.h"
#include "memory/allocator.h"
#include "platform/end_of_process.h"
#include "platform/own_process.h"
#include "qor/system/template/Object.h"

namespace {

using qor::ipc::channel;
using qor::ipc::connection;
using qor::ipc::loop;
using qor::ipc::peer;

constexpr char source[] = "qorcore/src/ipc/ipc";

bool is_own(unsigned of) noexcept {
    if (of == qor::ipc::generation())
        return true;
    qor::error::set(qorError_ipc_of_another_process);
    return false;
}

// In a forked child, the locks of what the parent's threads were using are never released: it is left as it is.
template <class TYPE>
void leave(std::shared_ptr<TYPE>& what) noexcept {
    new std::shared_ptr<TYPE>(std::move(what));
}

class face final : public qor::object<IQORIpcConnection> {
public:
    face(std::shared_ptr<connection> of, bool owns) noexcept
        : object("qorcore.ipc_connection", "IQORIpcConnection"), m_of(std::move(of)), m_owns(owns) {}
    ~face() override {
        if (m_generation != qor::ipc::generation() || qor::platform::other_threads_are_gone())
            leave(m_of);
        else if (m_owns)
            m_of->abort();
    }

    void GetPeer(qorIpcPeer& out) noexcept override {
        const peer& who = m_of->who();
        out.user.Set(who.user.data(), static_cast<int32>(who.user.size()));
        out.process = who.process;
        out.is_own_user = who.is_own_user;
    }
    bool Send(const void* bytes, uint64 length, uint32 ms) noexcept override { return send(bytes, length, true, ms); }
    bool TrySend(const void* bytes, uint64 length) noexcept override { return send(bytes, length, false, 0); }
    uint64 GetUnsent() noexcept override { return m_generation == qor::ipc::generation() ? m_of->unsent() : 0; }
    bool Receive(IQORDataSink* sink, uint32 ms) noexcept override {
        if (sink == nullptr) {
            qor::error::set(qorError_invalid_argument, {"Receive", "sink"});
            return false;
        }
        return is_own(m_generation) && m_of->receive(sink, ms);
    }
    bool Close(uint32 ms) noexcept override { return is_own(m_generation) && m_of->close(ms); }
    qorIpcEnd GetEnd() noexcept override {
        return m_generation == qor::ipc::generation() ? m_of->end() : qorIpcEnd::closed_here;
    }

private:
    bool send(const void* bytes, uint64 length, bool may_wait, uint32 ms) const noexcept {
        if (bytes == nullptr && length != 0) {
            qor::error::set(qorError_invalid_argument, {"Send", "bytes"});
            return false;
        }
        return is_own(m_generation) && m_of->send(static_cast<const char*>(bytes), length, may_wait, ms);
    }

    std::shared_ptr<connection> m_of;
    const bool m_owns;
    const unsigned m_generation = qor::ipc::generation();
};

class server final : public qor::object<IQORIpcServer> {
public:
    server(std::shared_ptr<loop> of, std::string address) noexcept
        : object("qorcore.ipc_server", "IQORIpcServer"), m_of(std::move(of)), m_address(std::move(address)) {}
    ~server() override {
        if (m_generation == qor::ipc::generation() && !qor::platform::other_threads_are_gone())
            m_of->close(0, true);
        else
            leave(m_of);
    }

    void GetAddress(qorString& address) noexcept override {
        address.Set(m_address.data(), static_cast<int32>(m_address.size()));
    }
    uint32 GetConnectionCount() noexcept override { return m_of->count(); }
    bool Close(uint32 ms) noexcept override {
        if (!is_own(m_generation))
            return false;
        if (m_of->close(qor::ipc::in_ms(ms), false))
            return true;
        qor::error::set(qorError_timed_out);
        return false;
    }

private:
    std::shared_ptr<loop> m_of;
    const std::string m_address;
    const unsigned m_generation = qor::ipc::generation();
};

bool are_right(const char* operation, const char* address, const qorIpcOptions& options) noexcept {
    const char* const wrong = address == nullptr                                                       ? "address"
                              : options.max_message == 0 || options.max_message > qorIpcLongestMessage ? "max_message"
                              : options.send_queue == 0                                                ? "send_queue"
                              : options.receive_queue == 0                                             ? "receive_queue"
                              : options.max_connections == 0                                         ? "max_connections"
                              : options.silence != 0 && options.silence < qor::ipc::shortest_silence ? "silence"
                              : options.users != qorIpcUsers::own && options.users != qorIpcUsers::any ? "users"
                                                                                                       : nullptr;
    if (wrong == nullptr)
        return true;
    qor::error::set(qorError_invalid_argument, {operation, wrong});
    return false;
}

} // namespace

bool qor::ipc::make_face(const std::shared_ptr<connection>& of, bool owns, IQORIpcConnection** out) noexcept {
    return memory::make<face>(source, __LINE__, out, of, owns);
}

bool qor::glue::qorCreateIpcServer(const char* address, const qorIpcOptions& options, IQORIpcTarget* target,
                                   IQORIpcServer** out) noexcept {
    if (target == nullptr) {
        error::set(qorError_invalid_argument, {"qorCreateIpcServer", "target"});
        return false;
    }
    if (!are_right("qorCreateIpcServer", address, options))
        return false;
    auto made = std::make_shared<loop>();
    std::string full;
    if (!made->own_listener().open(address, options.users == qorIpcUsers::any, full))
        return false;
    if (const int code = made->start(options, target)) {
        made->own_listener().close();
        error::set_with_reason(qorError_ipc_cannot_listen, full.c_str(), code);
        return false;
    }
    if (memory::make<server>(source, __LINE__, out, made, full))
        return true;
    made->close(0, true);
    return false;
}

bool qor::glue::qorCreateIpcConnection(const char* address, const qorIpcOptions& options, IQORIpcTarget* target,
                                       IQORIpcConnection** out) noexcept {
    if (!are_right("qorCreateIpcConnection", address, options))
        return false;
    const std::shared_ptr<loop> own = ipc::clients();
    if (own == nullptr)
        return false;
    if (own->is_own_thread()) {
        error::set(qorError_ipc_own_thread, {"qorCreateIpcConnection"});
        return false;
    }
    channel to;
    peer who;
    std::string full;
    if (!ipc::connect(address, options.connect, to, who, full))
        return false;
    if (options.users == qorIpcUsers::own && !who.is_own_user) {
        error::set(qorError_ipc_other_user, {full.c_str(), who.user.c_str()});
        return false;
    }
    const auto made =
        std::make_shared<connection>(own, std::move(to), std::move(who), options, target, false, own->new_id());
    IQORIpcConnection* created = nullptr;
    if (!ipc::make_face(made, true, &created))
        return false;
    zetSmartPointer<IQORIpcConnection> object;
    object.AttachNew(created);
    own->post([made](loop& which) { which.add(made); });
    if (!made->wait_until_open(full.c_str()))
        return false;
    *out = object.Detach();
    return true;
}
