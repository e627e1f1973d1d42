#include "net/lookup.h"

#include "catalog/catalog.h"
#include "error/error.h"
#include "memory/allocator.h"
#include "message_names.h"
#include "net/address.h"
#include "qor/system/template/Object.h"
#include "string/string_data.h"
#include "string/unicode.h"

#include <algorithm>

namespace framework = qor::messages::framework;

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

// Whether a text may be the name of a host: nothing in it disturbs a log, a list or a terminal.
bool is_host_name(std::string_view text) {
    if (text.empty())
        return false;
    while (!text.empty()) {
        const qor::string::decoded next = qor::string::decode(text);
        if (!next.valid || next.character <= ' ' || (next.character >= 0x7f && next.character <= 0xa0))
            return false;
        text.remove_prefix(next.size);
    }
    return true;
}

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

bool qor::glue::qorGetHostDNSName(const char* name, const qorHostAddress* address, qorString& out) noexcept {
    net::lookup_failure failure;
    std::string subject = name != nullptr ? name : "";
    std::string found;
    std::vector<qorHostAddress> numeric;
    bool is_found = false;
    if (address == nullptr && !subject.empty() &&
        net::resolve(subject.c_str(), net::names::numeric_only, numeric, failure) && !numeric.empty())
        address = &numeric.front();
    if (address != nullptr) {
        qorString text;
        qor::glue::qorAddressToString_host(*address, true, text);
        subject.assign(text.Text(), text.Length());
        if (address->family == qorAddressFamily::none) {
            error::set(qorError_invalid_argument, {"qorGetHostDNSName", "address"});
            return false;
        }
        is_found = net::name_of(*address, found, failure);
    } else if (name != nullptr && *name == '\0') {
        failure.number = qorError_no_such_host;
    } else {
        is_found = (name != nullptr || net::own_name(subject, failure)) &&
                   net::canonical_name(subject.c_str(), found, failure);
        if (is_found && found.empty())
            found = subject;
    }
    // The answer comes from somebody's name server.
    if (is_found && !is_host_name(found)) {
        is_found = false;
        failure = {qorError_lookup_failed, std::string(catalog::find(framework::catalog, framework::odd_host_name))};
    }
    if (!is_found) {
        error::set(failure.number, {subject.c_str(), failure.reason.c_str()});
        return false;
    }
    string::assign(out, found);
    return true;
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
