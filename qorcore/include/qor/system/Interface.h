// The root of all interfaces, and the interface for process signals.
#pragma once

#include "qor/system/Types.h"

// Every interface of the framework begins with these three operations. Interfaces are never deleted through a pointer:
// the last Release destroys the object.
class IQORInterface {
public:
    // Adds a reference. Any thread.
    virtual void AddRef() noexcept = 0;
    // Drops a reference; the last one destroys the object, on the calling thread. Any thread.
    virtual void Release() noexcept = 0;

    // Returns 1 and stores the interface with a new reference, or returns 0 and leaves *out unchanged. Names are
    // compared byte by byte.
    virtual int QueryInterface(const char* name, void** out) noexcept = 0;

protected:
    ~IQORInterface() = default;
};

// The signals that a process receives. Linux: SIGINT, SIGTERM, SIGHUP, SIGQUIT.
enum class qorSignal : uint32 {
    interrupt = 1,
    terminate = 2,
    hangup = 3,
    quit = 4,
};

// Receives process signals (qorSetSignalHandler). A callback interface repeats the operations of IQORInterface instead
// of inheriting them, so that a class can implement it beside an IQORInterface of its own without inheriting that
// twice.
class IQORSignalHandler {
public:
    // Like those of IQORInterface.
    virtual void AddRef() noexcept = 0;
    virtual void Release() noexcept = 0;
    virtual int QueryInterface(const char* name, void** out) noexcept = 0;

    // Called on a thread of the framework, never inside the operating system's asynchronous handler, so it may lock,
    // allocate and call the framework.
    virtual void Signal(qorSignal signal) noexcept = 0;

protected:
    ~IQORSignalHandler() = default;
};
