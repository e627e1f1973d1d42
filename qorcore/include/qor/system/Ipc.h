// Messages between the processes of one host. docs/messages-between-processes.md has examples and the form of the
// bytes.
//
// A server has an address, and connections to it carry messages in both directions: any bytes with a length, each
// received whole, once and in order, or not at all. Linux uses Unix sockets, Windows named pipes.
//
// Addresses. "NAME" or "unix:NAME" is a socket in a private folder of the user's: the folder `qor` in XDG_RUNTIME_DIR
// or in /run/user/NUMBER, otherwise /tmp/qor-NUMBER. "unix:/PATH" is a socket anywhere. On Windows, "NAME" and
// "pipe:NAME" are a named pipe. So "NAME" is understood on both systems: letters of ASCII, digits and . _ - up to 64.
//
// Threads. Each server has a thread, and all connections that qorCreateIpcConnection makes share another one. These
// threads do all reading, and call the targets: the calls of one server, and those of all such connections, are made
// one after the other. A target should not take long. A connection without a target has a queue for Receive instead.
//
// A forked child has none of its parent's servers and connections: its copies are closed, and operations on them fail.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/Memory.h"
#include "qor/system/Stream.h"
#include "qor/system/TextView.h"
#include "qor/system/template/Object.h"
#include "qor/system/template/SmartPointer.h"
#include "qor/system/template/TextSink.h"

#include <string>
#include <type_traits>
#include <utility>

// With whom messages are exchanged. Each side decides for itself; both must agree.
enum class qorIpcUsers : uint32 {
    own, // only processes of the user as whom this one runs
    any, // all users of the host. The program looks at the peer (IQORIpcTarget::Accept)
};

// How a connection has ended.
enum class qorIpcEnd : uint32 {
    none,        // it has not
    closed,      // the peer has closed it; all of its messages have arrived
    closed_here, // by Close, by the last Release, or by the server's
    lost,        // the peer has ended without closing it; the last of its messages may be missing
    silent,      // nothing was heard of the peer for the time that the options give
    violation,   // what the peer has sent is not the protocol, or a message was longer than it may be
    overloaded,  // its message took too long while the memory for messages was used up
    failed,      // the system refused to read or write
};

// The longest message that can be allowed: 256 MiB.
inline constexpr uint32 qorIpcLongestMessage = 1u << 28;

// Limits. Memory is used as bytes arrive, not as they are announced.
struct qorIpcOptions {
    // The peers' user.
    qorIpcUsers users = qorIpcUsers::own;
    // The longest message that is received, in bytes; at most qorIpcLongestMessage. The peer knows it, and its Send
    // refuses longer ones.
    uint32 max_message = 16 << 20;
    // How many bytes of messages may wait in one connection until the peer takes them. One message may always wait,
    // whatever its length.
    uint32 send_queue = 1 << 20;
    // How many bytes of received messages may wait for Receive. While there are more, nothing is read, so the peer has
    // to wait; again, one message may always wait.
    uint32 receive_queue = 1 << 20;
    // How many bytes all connections of a server may hold together: messages that wait, and those that have arrived in
    // part. Only bytes beyond 64 KiB in a connection count. When it is reached, senders have to wait, and of the
    // connections with a long message under way one at a time goes on to receive it; it is ended if that takes longer
    // than `silence`, or than 15 s without that. All connections of qorCreateIpcConnection count together, each against
    // its own limit.
    uint64 memory = 64 << 20;
    // How many connections a server has at most; further ones are refused.
    uint32 max_connections = 1000;
    // The longest time, in milliseconds, in which nothing is heard of the peer; 0: no limit; otherwise at least 100.
    // The framework sends signs of life in the peer's stead of messages, so this is the time in which a peer is noticed
    // that is stopped or hangs as a whole. A peer that only is busy, or does not call Receive, lives. A peer that ends
    // is noticed at once. While this side does not read, it does not judge.
    uint32 silence = 15000;
    // How long a connection may take to come about, in milliseconds; 0: no limit.
    uint32 connect = 10000;
};

// The process on the other side, as the system knows it.
struct qorIpcPeer {
    // The user: on Linux the number, on Windows the text form of the security identifier.
    qorString user;
    // The number of the process that has connected, or has set up the server. It may have ended, and passed the
    // connection on, since.
    uint64 process = 0;
    // Whether it is the user as whom this process runs.
    bool is_own_user = false;
};

// One connection. Any thread may call any operation, several at once. `ms`: as in qorGate::Wait, where 0 means no
// limit; a wait whose time is over fails with qorError_timed_out. No wait is a cancellation point.
class IQORIpcConnection : public IQORInterface {
public:
    // Who is on the other side.
    virtual void GetPeer(qorIpcPeer& peer) noexcept = 0;

    // Sends a message. Returns true when the message belongs to the connection: it is in the system's hands, or waits
    // in the queue. It waits for room in the queue, but never in a call of a target: there it is the same as TrySend.
    // Messages of one thread arrive in their order; those of several threads are not mixed. Messages without bytes
    // arrive, too.
    [[nodiscard]] virtual bool Send(const void* bytes, uint64 length, uint32 ms) noexcept = 0;
    // Never waits: fails with qorError_ipc_would_wait if the queue has no room.
    [[nodiscard]] virtual bool TrySend(const void* bytes, uint64 length) noexcept = 0;
    // How many bytes wait in the queue.
    virtual uint64 GetUnsent() noexcept = 0;

    // Writes the next message to the sink, in one piece. For a connection without a target; in a call of a target it
    // does not wait. After the end, it gets the messages that have arrived before, and then fails with
    // qorError_ipc_ended. If the sink fails, so does this, and the message is lost.
    [[nodiscard]] virtual bool Receive(IQORDataSink* sink, uint32 ms) noexcept = 0;

    // Ends the connection: takes no further messages, and waits until the peer's framework has received all that were
    // sent before. They have arrived then, even if the peer's program has not looked at them. Fails if that is not
    // known when the time is over, or the connection ends otherwise; what has not gone then is dropped. In a call of a
    // target it does not wait: the rest goes within `ms`, or 10 s for 0. When it returns, the target is not in a call
    // of this connection and will not be called again, except that a call under way is finished if this is called from
    // it. Messages that arrive meanwhile are dropped.
    virtual bool Close(uint32 ms) noexcept = 0;

    // How it has ended; none: not yet.
    virtual qorIpcEnd GetEnd() noexcept = 0;

    // The same with the bytes of a text. `ms` of 0: no limit.
    [[nodiscard]] bool Send(qorTextView message, uint32 ms = 0) noexcept {
        return Send(message.text, message.length, ms);
    }
    [[nodiscard]] bool TrySend(qorTextView message) noexcept { return TrySend(message.text, message.length); }
    // The same into memory. Throws std::bad_alloc only for the sink itself.
    [[nodiscard]] bool Receive(std::string& message, uint32 ms = 0) {
        message.clear();
        zetSmartPointer<IQORDataSink> sink;
        sink.AttachNew(QOR_NEW qor::glue::text_sink(message));
        return Receive(*sink, ms);
    }

protected:
    ~IQORIpcConnection() = default;
};

// Receives messages and events of connections. The client implements it. All calls are made on the thread of the
// server, or on that of the connections. They may use the connection, and close it; a reference that they add keeps the
// object, not the connection.
class IQORIpcTarget {
public:
    // Like those of IQORInterface.
    virtual void AddRef() noexcept = 0;
    virtual void Release() noexcept = 0;
    virtual int QueryInterface(const char* name, void** out) noexcept = 0;

    // A peer has connected to the server. false refuses it: its qorCreateIpcConnection fails. Not called for those
    // that qorCreateIpcConnection makes.
    virtual bool Accept(IQORIpcConnection* connection) noexcept = 0;
    // A message. The bytes are valid during the call.
    virtual void Received(IQORIpcConnection* connection, const void* bytes, uint64 length) noexcept = 0;
    // The connection has ended (IQORIpcConnection::GetEnd): the last call for it, which every accepted connection
    // gets once.
    virtual void Ended(IQORIpcConnection* connection) noexcept = 0;

protected:
    ~IQORIpcTarget() = default;
};

// A server. The last Release closes it without waiting for messages.
class IQORIpcServer : public IQORInterface {
public:
    // The address in full, such as "unix:/run/user/1000/qor/NAME".
    virtual void GetAddress(qorString& address) noexcept = 0;
    // How many connections are there, with those that are coming about.
    virtual uint32 GetConnectionCount() noexcept = 0;

    // Stops listening, and closes all connections like IQORIpcConnection::Close, all within `ms`. Returns whether all
    // have ended in order. When it returns, no call of the target is made or will be, its thread has ended, and another
    // server may have the address; in a call of the target it does not wait for that. The last Release does the same
    // without a wait for messages.
    virtual bool Close(uint32 ms) noexcept = 0;

protected:
    ~IQORIpcServer() = default;
};

// Sets up a server. Fails if the address is taken (qorError_ipc_address_taken), also by another program's socket or
// pipe. The socket that a killed server has left is replaced. The socket is for the own user only, unless the options
// say otherwise.
[[nodiscard]] inline bool qorCreateIpcServer(const char* address, const qorIpcOptions& options, IQORIpcTarget* target,
                                             IQORIpcServer** out) noexcept {
    return qor::glue::qorCreateIpcServer(address, options, target, out);
}

// Connects to a server, and waits until that has accepted. With a null target, the connection has a queue for Receive.
// Fails if nobody listens (qorError_ipc_no_server), if the server is of another user, or if it refuses. The last
// Release of *out ends the connection without a wait: messages that still wait are dropped. It waits for a call of the
// target that is under way, like Close. Not in a call of a target of a connection that was made like this.
[[nodiscard]] inline bool qorCreateIpcConnection(const char* address, const qorIpcOptions& options,
                                                 IQORIpcTarget* target, IQORIpcConnection** out) noexcept {
    return qor::glue::qorCreateIpcConnection(address, options, target, out);
}

namespace qor::glue {

// A target that passes messages to a function object.
template <class FUNCTION>
class ipc_function_target final : public qor::object<IQORIpcTarget> {
public:
    // Moves or copies the function object.
    explicit ipc_function_target(FUNCTION&& function)
        : object("qor.ipc_function_target", "IQORIpcTarget"), m_function(std::move(function)) {}
    explicit ipc_function_target(const FUNCTION& function)
        : object("qor.ipc_function_target", "IQORIpcTarget"), m_function(function) {}

    bool Accept(IQORIpcConnection*) noexcept override { return true; }
    // An exception has nobody to go to: it is reported, and the connection goes on.
    void Received(IQORIpcConnection* connection, const void* bytes, uint64 length) noexcept override {
        try {
            m_function(*connection,
                       std::string_view(static_cast<const char*>(bytes), static_cast<std::size_t>(length)));
        } catch (...) {
            assert_failed("the function of messages throws nothing", "Received", "qorcore/include/qor/system/Ipc", 1);
        }
    }
    void Ended(IQORIpcConnection*) noexcept override {}

private:
    FUNCTION m_function;
};

// Whether a function object takes messages.
template <class FUNCTION>
concept ipc_function = requires(std::decay_t<FUNCTION>& function, IQORIpcConnection& from, std::string_view message) {
    function(from, message);
};

// Makes a target of a function object. Throws std::bad_alloc.
template <ipc_function FUNCTION>
zetSmartPointer<IQORIpcTarget> make_ipc_target(FUNCTION&& function) {
    zetSmartPointer<IQORIpcTarget> made;
    made.AttachNew(QOR_NEW ipc_function_target<std::decay_t<FUNCTION>>(std::forward<FUNCTION>(function)));
    return made;
}

} // namespace qor::glue

// The same with a function object that gets every message: (IQORIpcConnection&, std::string_view). It is destroyed with
// the end of the server or the connection. Throws std::bad_alloc.
template <qor::glue::ipc_function FUNCTION>
[[nodiscard]] bool qorCreateIpcServer(const char* address, const qorIpcOptions& options, FUNCTION&& function,
                                      IQORIpcServer** out) {
    return qorCreateIpcServer(address, options, *qor::glue::make_ipc_target(std::forward<FUNCTION>(function)), out);
}
template <qor::glue::ipc_function FUNCTION>
[[nodiscard]] bool qorCreateIpcConnection(const char* address, const qorIpcOptions& options, FUNCTION&& function,
                                          IQORIpcConnection** out) {
    return qorCreateIpcConnection(address, options, *qor::glue::make_ipc_target(std::forward<FUNCTION>(function)), out);
}
// A connection with a queue for Receive.
[[nodiscard]] inline bool qorCreateIpcConnection(const char* address, IQORIpcConnection** out) noexcept {
    return qorCreateIpcConnection(address, qorIpcOptions{}, static_cast<IQORIpcTarget*>(nullptr), out);
}
