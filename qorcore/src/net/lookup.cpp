#include "net/lookup.h"
#include "memory/allocator.h"

#include "error/error.h"
#include "qor/system/template/Object.h"

#include <algorithm>

namespace {

constexpr char source[] = "qorcore/src/net/lookup";

class host_address_list final : public qor::object<IQORHostAddressList> {
public:
    explicit host_address_list(std::vector<qorHostAddress> addresses) noexcept
        : object("qorcore.host_address_list", "IQORHostAddressList"), m_addresses(std::move(addresses)) {}

    uint32 GetCount() noexcept override { return static_cast<uint32>(m_addresses.size()); }

    bool GetAddress(uint32 index, qorHostAddress& out) noexcept override {
        if (index >= m_addresses.size()) {
            qor::error::set(qorError_invalid_argument,
                            {"IQORHostAddressList::GetAddress", std::to_string(index).c_str()});
            return false;
        }
        out = m_addresses[index];
        return true;
    }

private:
    const std::vector<qorHostAddress> m_addresses;
};

} // namespace

bool qor::glue::qorLookupHost(const char* name, IQORHostAddressList** out) noexcept {
    // Systems disagree on the meaning of an empty name: this host, or nothing.
    if (name == nullptr || *name == '\0') {
        error::set(qorError_no_such_host, {""});
        return false;
    }
    std::vector<qorHostAddress> found, addresses;
    net::lookup_failure failure;
    if (!net::resolve(name, net::names::all, found, failure)) {
        error::set(failure.number, {name, failure.reason.c_str()});
        return false;
    }
    // A hosts file or a name server may list an address twice.
    for (const qorHostAddress& address : found)
        if (std::find(addresses.begin(), addresses.end(), address) == addresses.end())
            addresses.push_back(address);
    return memory::make<host_address_list>(source, __LINE__, out, std::move(addresses));
}

bool qor::glue::qorStringToAddress(const char* text, qorHostAddress& out) noexcept {
    std::vector<qorHostAddress> found;
    net::lookup_failure failure;
    if (text == nullptr || *text == '\0' || !net::resolve(text, net::names::numeric_only, found, failure) ||
        found.empty()) {
        error::set(qorError_invalid_argument, {"qorStringToAddress", text});
        return false;
    }
    out = found.front();
    return true;
}
