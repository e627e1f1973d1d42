#include "memory/allocator.h"
#include "qor/system/SystemInfo.h"

#include "error/error.h"
#include "qor/system/template/Object.h"
#include "string/string_data.h"
#include "system/facts.h"

namespace {

constexpr char source[] = "qorcore/src/system/system_info";

class system_info final : public qor::object<IQORSystemInfo> {
public:
    system_info() : object("qorcore.system_info", "IQORSystemInfo"), m_facts(qor::system::read_facts()) {}

    bool GetMemoryInfo(qorMemoryInfo& info) noexcept override {
        info = {};
        return qor::system::read_memory(info);
    }
    uint32 GetPageSize() noexcept override { return qor::system::page_size(); }
    uint32 GetLogicalCPUCount() noexcept override { return qor::system::count_processors(); }
    uint32 GetPhysicalCoreCount() noexcept override { return qor::system::count_cores(); }

    bool GetPlatformString(qorString& out) noexcept override { return give(m_facts.platform, out); }
    bool GetEnhancedPlatformString(qorString& out) noexcept override { return give(m_facts.enhanced_platform, out); }
    bool GetSystemType(qorString& out) noexcept override { return give(m_facts.type, out); }
    bool GetSystemVersion(qorString& out) noexcept override { return give(m_facts.version, out); }
    bool GetSystemDescription(qorString& out) noexcept override { return give(m_facts.description, out); }
    bool GetCPUType(qorString& out) noexcept override { return give(m_facts.processor_type, out); }
    bool GetCPUTypeExtended(qorString& out) noexcept override { return give(m_facts.processor_extended, out); }
    bool GetHypervisor(qorString& out) noexcept override { return give(m_facts.hypervisor, out); }
    bool IsVirtualMachine() noexcept override { return !m_facts.hypervisor.empty(); }

private:
    static bool give(const std::string& text, qorString& out) noexcept {
        if (text.empty())
            return false;
        qor::string::assign(out, text);
        return true;
    }

    const qor::system::facts m_facts;
};

} // namespace

std::string qor::system::name_hypervisor(const hypervisor& seen, const firmware& machine) {
    const char* const of_firmware = find_hypervisor(machine);
    if (seen.is_there && !seen.is_ours && !seen.name.empty())
        return seen.name;
    if (of_firmware != nullptr)
        return of_firmware;
    return seen.is_there && !seen.is_ours ? "unknown hypervisor" : "";
}

std::string qor::system::join(const std::vector<std::string>& texts) {
    std::string joined;
    for (const std::string& text : texts)
        if (!text.empty())
            joined += (joined.empty() ? "" : ", ") + text;
    return joined;
}

std::string qor::system::guest_of(const std::string& hypervisor) {
    return hypervisor.empty() ? hypervisor : hypervisor + " guest";
}

void qor::glue::create_IQORSystemInfo(IQORSystemInfo** out) noexcept {
    *out = nullptr;
    memory::make<system_info>(source, __LINE__, out);
}
