// Debug control: the trace codes of another process of the framework, seen and switched over the network, and the
// listener that lets others do so here. docs/debug-control.md tells of the protocol, docs/security.md of what it
// protects against.
#pragma once

#include "qor/glue/binding.h"
#include "qor/system/Interface.h"
#include "qor/system/Memory.h"

class qorString;
class qorStringArray;

// Told when a connection is lost. A callback interface repeats the root's operations instead of inheriting them, so
// that a class can offer it beside an IQORInterface of its own.
class IQORDebugControlSink {
public:
    // As those of IQORInterface.
    virtual void AddRef() noexcept = 0;
    virtual void Release() noexcept = 0;
    virtual int QueryInterface(const char* name, void** out) noexcept = 0;

    // The version of this interface that the sink implements: 1.
    virtual uint32 getver_IQORDebugControlSink() noexcept = 0;

    // The connection is gone, and not because this side ended it. Called once for a connection, on a thread of the
    // framework, with no lock of the framework held: it may call the control, also beside an operation of another
    // thread that meets the same loss; release it; or end the process.
    virtual void debug_ConnectionLost() noexcept = 0;

protected:
    ~IQORDebugControlSink() = default;
};

// A connection to the trace codes of another process. Operations return false and set the last error where they fail.
// Any thread may call them, one at a time. The last Release ends the connection; after it no call of the sink runs any
// more (but for one that made the release itself).
class IQORDebugControl : public IQORInterface {
public:
    // Connects to a process that listens there, and checks that it is the one known from earlier; an earlier connection
    // is ended. Takes up to 10 seconds for each of the host's addresses; port 0, where nothing can be reached, fails at
    // once.
    [[nodiscard]] virtual bool Connect(const char* host, uint16 port) noexcept = 0;

    // Presents the credentials, as they are given. Error 4 (qorError_credentials_refused): another try may follow on
    // the same object; each takes longer than the one before. Error 131 (qorError_debug_sessions_full): they were
    // right, but too many are logged in there, and the connection has ended. Both say so where the listener has not
    // proved itself. A login that finds the connection gone connects anew, and error 128 (qorError_debug_other_key)
    // tells that another key was met there than by Connect. The password is not kept, and never sent.
    [[nodiscard]] virtual bool Login(const char* username, const char* password) noexcept = 0;

    // Who is told when the connection is lost; null: nobody. Needs a login. The sink is not referenced, because it
    // usually owns the control: it must live until it is replaced or the control is released.
    virtual bool SetSink(IQORDebugControlSink* sink) noexcept = 0;

    // The names of all trace codes of the process, and of those that are on, in place of what `out` held.
    virtual bool GetCodes(qorStringArray& out) noexcept = 0;
    virtual bool GetEnabledCodes(qorStringArray& out) noexcept = 0;

    // Switches a code on or off by its name, as qorDebugEnableCode does there: `*` stands for any text, and codes
    // that are allocated later follow. Error 132 (qorError_debug_switches_full): there is no room to keep the name for
    // them, and nothing was switched.
    virtual bool EnableCode(const char* name, bool enable) noexcept = 0;

    // Switches all codes off.
    virtual bool DisableAll() noexcept = 0;

protected:
    ~IQORDebugControl() = default;
};

// The same with what came later. A control that has it gives it out by QueryInterface.
class IQORDebugControl2 : public IQORDebugControl {
public:
    // The fingerprint of the key that the listener has shown, as `qor-debug-user fingerprint` prints it where the
    // listener runs: 64 hexadecimal digits. `is_known`: a line of the known hosts names it. Where none does, nothing
    // but a login that succeeds proves that it is the right one. Needs a connection.
    [[nodiscard]] virtual bool GetListenerKey(qorString& fingerprint, bool& is_known) noexcept = 0;

protected:
    ~IQORDebugControl2() = default;
};

// A new object without a connection. It needs the module qor-openssl; where that cannot be used, Connect says why.
// Throws std::bad_alloc.
inline void create_IQORDebugControl(IQORDebugControl** out) {
    qor::glue::create_IQORDebugControl(out);
    qor::glue::or_throw(*out);
}

// Lets debug control reach this process, on a thread of the framework's own. `address` is "[HOST:]PORT"; without a host
// it listens on 127.0.0.1 and ::1 only, and port 0 is any free one. `users` names the file of accounts, null the one in
// the framework's configuration folder. `port`, where it is not null, gets the port number. An earlier listener is
// ended; an address that is null only does that. Trace code "system.debug-control" tells of each login, refusal and
// change. False: the last error says why; nobody listens then. A forked child does not go on listening.
[[nodiscard]] inline bool qorDebugListen(const char* address, const char* users = nullptr,
                                         uint16* port = nullptr) noexcept {
    return qor::glue::qorDebugListen(address, users, port);
}

// Notes the key of a listener before the first login there, in the file of known hosts: `host` and `port` as Connect
// will get them, and the 64 hexadecimal digits of the key's fingerprint. From then on no other key is taken. True where
// it was noted before. False: the last error says why, for instance 129 (qorError_bad_fingerprint), or 116
// (qorError_debug_key_changed) where the file knows another key. Any thread; waits for another program's change of the
// file for 20 seconds at most.
inline bool qorTrustDebugListener(const char* host, uint16 port, const char* fingerprint) noexcept {
    return qor::glue::qorTrustDebugListener(host, port, fingerprint);
}
