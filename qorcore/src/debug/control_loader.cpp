// Debug control: creates the objects of the module qor-openssl, which implements the channel.
#include "error/error.h"
#include "error/error_state.h"
#include "memory/allocator.h"
#include "module/module.h"
#include "qor/glue/debug_listener.h"

#include <mutex>

namespace {

constexpr char source[] = "qorcore/src/debug/control_loader";
constexpr char module_name[] = "qor-openssl";

// Returned to a client if the module is unusable. Every operation fails with that reason, so that clients need not
// check for a null pointer.
class no_control final : public qor::object<IQORDebugControl> {
public:
    no_control() : object("qorcore.no_debug_control", "IQORDebugControl"), m_reason(qor::error::current()) {}

    bool Connect(const char*, uint16) noexcept override { return fail(); }
    bool Login(const char*, const char*) noexcept override { return fail(); }
    bool SetSink(IQORDebugControlSink*) noexcept override { return fail(); }
    bool GetCodes(qorStringArray&) noexcept override { return fail(); }
    bool GetEnabledCodes(qorStringArray&) noexcept override { return fail(); }
    bool EnableCode(const char*, bool) noexcept override { return fail(); }
    bool DisableAll() noexcept override { return fail(); }

private:
    bool fail() const noexcept {
        qor::error::make_current(m_reason);
        return false;
    }

    const qor::error::state m_reason;
};

std::mutex listening;
IQORDebugListener* listener = nullptr;

} // namespace

void qor::glue::create_IQORDebugControl(IQORDebugControl** out) noexcept {
    *out = nullptr;
    void* made = nullptr;
    if (module::create_object(module_name, "IQORDebugControl", "", &made))
        *out = static_cast<IQORDebugControl*>(made);
    else
        memory::make<no_control>(source, __LINE__, out);
}

bool qor::glue::qorDebugListen(const char* address, const char* users, uint16* port) noexcept {
    const std::lock_guard hold(listening);
    if (listener != nullptr)
        listener->Release();
    listener = nullptr;
    if (address == nullptr)
        return true;
    void* made = nullptr;
    if (!module::create_object(module_name, "IQORDebugListener", "", &made))
        return false;
    auto* const fresh = static_cast<IQORDebugListener*>(made);
    if (!fresh->Listen(address, users, port)) {
        fresh->Release();
        return false;
    }
    listener = fresh;
    return true;
}
