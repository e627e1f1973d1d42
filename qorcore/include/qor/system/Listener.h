// Listeners on a port of TCP, and the connections that they accept. docs/listeners.md has an example.
//
// One thread of the framework, which the first listener starts, accepts the connections of all listeners. It receives
// no signals, and sleeps where nothing arrives. It calls the targets of listeners without a queue one after the other.
//
// A forked child has none of its parent's listeners and connections: their sockets are closed there, and all operations
// fail. It may make listeners of its own. Windows: a socket is not inherited.
#pragma once

#include "qor/glue/impl_common.h"
#include "qor/system/Interface.h"
#include "qor/system/Memory.h"
#include "qor/system/Network.h"
#include "qor/system/TextView.h"
#include "qor/system/template/Object.h"
#include "qor/system/template/SmartPointer.h"

#include <type_traits>
#include <utility>

// An end of a connection.
struct qorIPEndpoint {
    qorHostAddress address{}; // of the host; never an IPv4 address in the form of an IPv6 one
    uint16 port = 0;          // of TCP

    bool operator==(const qorIPEndpoint&) const noexcept = default;
};

// Where a listener listens, and what it puts up with.
struct qorIPPortOptions {
    // One address of this host, in the form of qorAddressToString: "127.0.0.1", "fe80::1%eth0". "0.0.0.0": all of IPv4;
    // "::": all of IPv6. Null or empty: all of both, with a socket for each family. The two have the same port; where
    // this host lacks one of the families, the other is enough.
    const char* address = nullptr;
    // 0: a free port, which GetPort tells.
    uint16 port = 0;
    // How many connections may wait in the system to be accepted; 0: as many as it allows.
    uint32 backlog = 0;
    // How many connections may be open at once, and how many of them from one source: an IPv4 address, or a network of
    // IPv6 (the first 64 bits, and the interface of a link-local address). 0: no limit. A connection above a limit is
    // turned away: it is accepted and reset at once. Those in a queue count.
    uint32 connections = 1000;
    uint32 connections_of_source = 100;
};

// What has happened at a listener since its creation.
struct qorIPPortCounts {
    uint64 accepted = 0;         // given to the target or the queue
    uint64 beyond_limit = 0;     // turned away, because too many were open
    uint64 beyond_source = 0;    // turned away, because too many of the same source were open
    uint64 without_resource = 0; // how often accepting paused, because descriptors or memory had run out
    uint64 open = 0;             // now
};

// An accepted connection. The last Release closes it. Any thread may call any operation; of Read and Write one each at
// a time. Waits: `ms` as in qorGate::Wait, where 0 means no limit; a wait whose time is over fails with
// qorError_timed_out. No wait is a cancellation point. Other errors: qorError_connection_failed with the system's
// reason, qorError_connection_closed after Close, qorError_connection_of_another_process in a forked child.
class IQORIPConnection : public IQORInterface {
public:
    // The other end, and the own one. Both stay the same when the connection ends.
    virtual void GetPeer(qorIPEndpoint& out) noexcept = 0;
    virtual void GetLocal(qorIPEndpoint& out) noexcept = 0;

    // Reads what there is, at least one byte and at most `length`, which must not be 0. Where the peer has ended its
    // side, `count` is 0.
    [[nodiscard]] virtual bool Read(void* buffer, uint64 length, uint32 ms, uint64& count) noexcept = 0;

    // Passes all bytes to the system. `written`, if not null, is how many it has taken. After a failure, the peer may
    // have got these, or on Windows some more, so nothing sensible can follow but Close.
    [[nodiscard]] virtual bool Write(const void* bytes, uint64 length, uint32 ms, uint64* written) noexcept = 0;

    // The peer reads the end of the stream behind what was written. Reading goes on.
    virtual bool EndWriting() noexcept = 0;

    // Closes the connection; a read or write on another thread fails at once. Bytes that wait to be sent are
    // still sent, unless the peer's bytes were left unread. A second call does nothing.
    virtual void Close() noexcept = 0;

    // The system's socket, for its options; -1 if there is none any more. It does not block (Linux: O_NONBLOCK,
    // Windows: FIONBIO), is not inherited by other programs, sends small pieces at once (TCP_NODELAY), and stays this
    // object's.
    virtual int64 GetSocket() noexcept = 0;
    // The same, and it belongs to the caller, who closes it; the operations here then fail as after Close. It counts
    // for the listener's limits until the last Release. Returns -1 with an error if there is none, or if another thread
    // reads or writes.
    virtual int64 TakeSocket() noexcept = 0;

    // Write without a limit of time or with one, from any text or bytes.
    [[nodiscard]] bool Write(qorTextView bytes, uint32 ms = 0) noexcept {
        return Write(bytes.text, bytes.length, ms, nullptr);
    }

protected:
    ~IQORIPConnection() = default;
};

// Takes the connections of a listener. The client implements it. The listener holds a reference.
class IQORIPConnectionTarget {
public:
    // Like those of IQORInterface.
    virtual void AddRef() noexcept = 0;
    virtual void Release() noexcept = 0;
    virtual int QueryInterface(const char* name, void** out) noexcept = 0;

    // A connection was accepted. A target that keeps it adds a reference; without one it is closed when this returns.
    // On the framework's thread, all listeners wait meanwhile: hand it to a thread of your own, or use a queue.
    virtual void ConnectionAccepted(IQORIPConnection* connection) noexcept = 0;

protected:
    ~IQORIPConnectionTarget() = default;
};

// A connection that waits in a queue for its target.
class IQORIPConnectionEvent : public IQORInterface {
public:
    // Calls the target, on the calling thread. Does nothing if the listener was closed meanwhile, and the second time.
    // An event that is released without a run closes its connection.
    virtual void Run() noexcept = 0;

protected:
    ~IQORIPConnectionEvent() = default;
};

// A queue of the caller's, whose own thread or threads run what is in it. The client implements it.
class IQORIPConnectionQueue {
public:
    // Like those of IQORInterface.
    virtual void AddRef() noexcept = 0;
    virtual void Release() noexcept = 0;
    virtual int QueryInterface(const char* name, void** out) noexcept = 0;

    // Called on the framework's thread, which all listeners wait for: it should not take long. The queue adds a
    // reference to the event and drops it when the event was run or is not wanted. It may also run it at once. The
    // listener's limits bound how many wait.
    virtual void Post(IQORIPConnectionEvent* event) noexcept = 0;

protected:
    ~IQORIPConnectionQueue() = default;
};

// A listener. The last Release closes it like qorCloseListener. Any thread may call any operation.
class IQORIPPortListener : public IQORInterface {
public:
    // The port, also behind the end.
    virtual uint16 GetPort() noexcept = 0;

    // The addresses at which it listens, one for each socket, at least one. Returns false and leaves `out` unchanged if
    // there is no such index.
    virtual uint32 GetAddressCount() noexcept = 0;
    virtual bool GetAddress(uint32 index, qorIPEndpoint& out) noexcept = 0;

    // False after the end, in a forked child, and if other code of this process has closed the listener's sockets.
    virtual bool IsListening() noexcept = 0;

    // What has happened so far.
    virtual void GetCounts(qorIPPortCounts& out) noexcept = 0;

    // The same as qorCloseListener.
    virtual bool Close() noexcept = 0;

protected:
    ~IQORIPPortListener() = default;
};

// Listens on a port of TCP, and calls a target for each connection: with a queue where that runs its events, else on
// the framework's thread. The port can be had again at once after the end of the listener or its process, even while
// old connections are being ended (Linux: SO_REUSEADDR); nobody else can have it meanwhile (Windows:
// SO_EXCLUSIVEADDRUSE). Where descriptors or memory have run out, connections wait in the system, and it is tried again
// several times a second. Returns false and leaves *out unchanged on failure: qorError_cannot_listen with the address
// and the system's reason, qorError_cannot_start_listener without a thread, qorError_invalid_argument for what is no
// address and a null target.
[[nodiscard]] inline bool qorCreateIPPortListener(const qorIPPortOptions& options, IQORIPConnectionTarget* target,
                                                  IQORIPConnectionQueue* queue, IQORIPPortListener** out) noexcept {
    return qor::glue::qorCreateIPPortListener(options, target, queue, out);
}

// Ends a listener. When this returns, its port is free, its target does not run and will not be called again, and the
// listener has released the target and the queue. So the caller must not hold a lock that the target takes, or
// otherwise be what the target waits for. There is one exception: a call from inside the target (or the queue's Post)
// returns at once, with the port free; there, the rest of the promise holds from the return of the calls under way, and
// also for others that close the listener meanwhile. Connections that the target has got stay open; those in a queue
// are closed with their events. Returns whether it was this call that has ended the listener. Not a cancellation point.
inline bool qorCloseListener(IQORIPPortListener* listener) noexcept { return qor::glue::qorCloseListener(listener); }

namespace qor::glue {

// Whether a function object can take connections.
template <class FUNCTION>
concept connection_function = requires(std::decay_t<FUNCTION>& function, IQORIPConnection& connection) {
    function(connection);
};

// A target that calls a function object, which is destroyed with it.
template <class FUNCTION>
class connection_target final : public qor::object<IQORIPConnectionTarget> {
public:
    // Moves or copies the function object.
    explicit connection_target(FUNCTION&& function)
        : object("qor.connection_target", "IQORIPConnectionTarget"), m_function(std::move(function)) {}
    explicit connection_target(const FUNCTION& function)
        : object("qor.connection_target", "IQORIPConnectionTarget"), m_function(function) {}

    // An exception has nobody to go to: it is reported, and the listener goes on.
    void ConnectionAccepted(IQORIPConnection* connection) noexcept override {
        try {
            m_function(*connection);
        } catch (...) {
            assert_failed("the target of a listener throws nothing", "ConnectionAccepted",
                          "qorcore/include/qor/system/Listener", 1);
        }
    }

private:
    FUNCTION m_function;
};

} // namespace qor::glue

// A listener as a member: the destructor closes it, and so returns when its function does not run. Not copyable.
class qorIPPortListener {
public:
    qorIPPortListener() noexcept = default; // does not listen
    qorIPPortListener(const qorIPPortListener&) = delete;
    qorIPPortListener& operator=(const qorIPPortListener&) = delete;
    ~qorIPPortListener() { Close(); }

    // Begins to listen, after closing an earlier one, and calls a function object with an IQORIPConnection&. Returns
    // false on failure. Throws std::bad_alloc.
    template <qor::glue::connection_function FUNCTION>
    [[nodiscard]] bool Begin(const qorIPPortOptions& options, FUNCTION&& function,
                             IQORIPConnectionQueue* queue = nullptr) {
        Close();
        using target = qor::glue::connection_target<std::decay_t<FUNCTION>>;
        zetSmartPointer<target> made;
        made.AttachNew(QOR_NEW target(std::forward<FUNCTION>(function)));
        return qor::glue::qorCreateIPPortListener(options, *made, queue, m_listener.Out());
    }

    // Like qorCloseListener.
    bool Close() noexcept {
        if (m_listener.IsEmpty())
            return false;
        const zetSmartPointer<IQORIPPortListener> ended = std::move(m_listener);
        return qorCloseListener(*ended);
    }

    // 0 if it does not listen.
    uint16 Port() const noexcept { return m_listener.IsEmpty() ? uint16{0} : m_listener->GetPort(); }
    bool IsListening() const noexcept { return !m_listener.IsEmpty() && m_listener->IsListening(); }
    qorIPPortCounts Counts() const noexcept {
        qorIPPortCounts counts;
        if (!m_listener.IsEmpty())
            m_listener->GetCounts(counts);
        return counts;
    }

private:
    zetSmartPointer<IQORIPPortListener> m_listener;
};
