// Between libqor and its module for debug control; no client needs it.
#pragma once

#include "qor/system/Interface.h"

// What stands behind qorDebugListen. The last Release ends the listener and its connections, and waits until they are
// gone.
class IQORDebugListener : public IQORInterface {
public:
    // Once for an object. The arguments are those of qorDebugListen.
    [[nodiscard]] virtual bool Listen(const char* address, const char* users, uint16* port) noexcept = 0;

protected:
    ~IQORDebugListener() = default;
};
