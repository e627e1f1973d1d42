// Debug control: lists and switches the trace codes of another process of the framework over the network, and lets
// other processes do the same here. docs/debug-control.md describes the protocol, docs/security.md its protection.
#pragma once

#include "qor/glue/binding.h"
#include "qor/system/Interface.h"
#include "qor/system/Memory.h"

class qorString;
class qorStringArray;

// Receives the news that a connection is lost. A callback interface repeats the operations of IQORInterface instead of
// inheriting them, so that a class can implement it beside an IQORInterface of its own.
class IQORDebugControlSink {
public:
    // Like those of IQORInterface.
    virtual void AddRef() noexcept = 0;
    virtual void Release() noexcept = 0;
    virtual int QueryInterface(const char* name, void** out) noexcept = 0;

    // The version of this interface that the sink implements: 1.
    virtual uint32 getver_IQORDebugControlSink() noexcept = 0;

    // The connection is lost, and this side did not end it. Called once per connection, on a thread of the framework
    // that holds no lock of the framework. It may call the control, even while an operation on another thread meets the
    // same loss; it may release the control; and it may end the process.
    virtual void debug_ConnectionLost() noexcept = 0;

protected:
    ~IQORDebugControlSink() = default;
};

// A connection to the trace codes of another process. An operation that fails returns false and sets the last error.
// Any thread may call the operations, one at a time. The last Release ends the connection; after it no call of the sink
// is running, except one that made that release itself.
class IQORDebugControl : public IQORInterface {
public:
    // Connects to a listening process and checks that its key is the known one, if there is a known one. Ends an
    // earlier connection. Takes up to 10 seconds for each of the host's addresses. Port 0, which nothing can listen on,
    // fails at once.
    [[nodiscard]] virtual bool Connect(const char* host, uint16 port) noexcept = 0;

    // Logs in with the given credentials, which are not modified in any way. Error 4 (qorError_credentials_refused):
    // the same object may try again; each try takes longer than the one before. Error 131
    // (qorError_debug_sessions_full): the credentials were right, but too many consoles are logged in there, and the
    // connection has ended. The texts of both errors mention it if the listener has not proved its identity. If the
    // connection is gone, Login connects again; error 128 (qorError_debug_other_key) then reports a key other than the
    // one that Connect met. The password is neither kept nor sent.
    [[nodiscard]] virtual bool Login(const char* username, const char* password) noexcept = 0;

    // Sets the receiver of the news that the connection is lost; null for none. Needs a login. Adds no reference to the
    // sink, because the sink usually owns the control: the sink must live until it is replaced or the control is
    // released.
    virtual bool SetSink(IQORDebugControlSink* sink) noexcept = 0;

    // Replace the content of `out` by the names of all trace codes of the process, or of those that are on.
    virtual bool GetCodes(qorStringArray& out) noexcept = 0;
    virtual bool GetEnabledCodes(qorStringArray& out) noexcept = 0;

    // Switches codes on or off, as qorDebugEnableCode does in the other process: `*` stands for any text, and codes
    // that are allocated later follow. Error 132 (qorError_debug_switches_full): there is no room to keep the name for
    // later codes, and nothing was switched.
    virtual bool EnableCode(const char* name, bool enable) noexcept = 0;

    // Switches all codes off.
    virtual bool DisableAll() noexcept = 0;

protected:
    ~IQORDebugControl() = default;
};

// Adds later operations to IQORDebugControl. A control that supports them returns this interface from QueryInterface.
class IQORDebugControl2 : public IQORDebugControl {
public:
    // Gets the fingerprint of the key that the listener has shown: 64 hexadecimal digits, as printed by `qor-debug-user
    // fingerprint` where the listener runs. `is_known` says whether the file of known hosts contains the key. If it
    // does not, only a successful login proves that it is the right one. Needs a connection.
    [[nodiscard]] virtual bool GetListenerKey(qorString& fingerprint, bool& is_known) noexcept = 0;

protected:
    ~IQORDebugControl2() = default;
};

// Creates an object without a connection. It needs the module qor-openssl; if that cannot be used, Connect sets the
// reason as the last error. Throws std::bad_alloc.
inline void create_IQORDebugControl(IQORDebugControl** out) {
    qor::glue::create_IQORDebugControl(out);
    qor::glue::or_throw(*out);
}

// Lets debug control reach this process, on a thread of the framework's own. `address` is "[HOST:]PORT". Without a host
// it listens on 127.0.0.1 and ::1 only; port 0 picks a free port. `users` names the file of accounts; null means the
// one in the framework's configuration folder. `port`, if not null, receives the port number. Ends an earlier listener;
// a null `address` does nothing else. Trace code "system.debug-control" reports each login, refusal and change. Returns
// false if nobody listens now; the last error says why. A forked child does not continue to listen. Any thread.
[[nodiscard]] inline bool qorDebugListen(const char* address, const char* users = nullptr,
                                         uint16* port = nullptr) noexcept {
    return qor::glue::qorDebugListen(address, users, port);
}

// Stores the key of a listener in the file of known hosts, before the first login there. `host` and `port` are those
// that Connect will get; `fingerprint` is the key's fingerprint in 64 hexadecimal digits. From then on no other key is
// accepted. Succeeds if the key is stored already. Returns false on failure (last error), for instance with error 129
// (qorError_bad_fingerprint), or with 116 (qorError_debug_key_changed) if the file contains another key. Any thread.
// Waits up to 20 seconds while another program changes the file.
inline bool qorTrustDebugListener(const char* host, uint16 port, const char* fingerprint) noexcept {
    return qor::glue::qorTrustDebugListener(host, port, fingerprint);
}
