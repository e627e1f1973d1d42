// The interface between libqor and its module for debug control. Clients do not need it.
#pragma once

#include "qor/system/Interface.h"

// The implementation of qorDebugListen. The last Release ends the listener and its connections, and returns once they
// have ended.
class IQORDebugListener : public IQORInterface {
public:
    // Called once per object. The arguments are those of qorDebugListen.
    [[nodiscard]] virtual bool Listen(const char* address, const char* users, uint16* port) noexcept = 0;

protected:
    ~IQORDebugListener() = default;
};
