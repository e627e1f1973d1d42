// The root of all interfaces, and process signals.
#pragma once

#include "qor/system/Types.h"

// Every interface of the framework begins with these three operations. Interfaces are never deleted through
// their pointer: the last Release ends the object.
class IQORInterface {
public:
    // Adds a reference. Any thread.
    virtual void AddRef() noexcept = 0;
    // Drops a reference; the last one ends the object, on the thread that drops it. Any thread.
    virtual void Release() noexcept = 0;

    // Returns 1 and an interface with a reference of its own, or 0 and leaves *out as it was. Names compare byte
    // for byte.
    virtual int QueryInterface(const char* name, void** out) noexcept = 0;

protected:
    ~IQORInterface() = default;
};

// What the system told the process. Linux: SIGINT, SIGTERM, SIGHUP, SIGQUIT.
enum class qorSignal : uint32 {
    interrupt = 1,
    terminate = 2,
    hangup = 3,
    quit = 4,
};

// Receives process signals (qorSetSignalHandler). A callback interface repeats the root's operations instead of
// inheriting them, so that a class can offer it beside an IQORInterface of its own without two such bases.
class IQORSignalHandler {
public:
    // As those of IQORInterface.
    virtual void AddRef() noexcept = 0;
    virtual void Release() noexcept = 0;
    virtual int QueryInterface(const char* name, void** out) noexcept = 0;

    // Called on a thread of the framework, never inside the operating system's asynchronous handler: it may
    // lock, allocate and call the framework.
    virtual void Signal(qorSignal signal) noexcept = 0;

protected:
    ~IQORSignalHandler() = default;
};
