// A reference-counted implementation of one interface: derive from it, and write the interface's own operations.
#pragma once

#include "qor/glue/impl_common.h"

#include <cstring>

namespace qor {

// `interface_name` is what a query may ask for, beside the root's name. Both names are kept by pointer.
template <class INTERFACE>
class object : public qorRefObject, public INTERFACE {
public:
    object(const char* type_name, const char* interface_name) noexcept
        : qorRefObject(type_name), m_interface_name(interface_name) {}

    void AddRef() noexcept override { qorRefObject::AddRef(); }
    void Release() noexcept override { qorRefObject::Release(); }
    int QueryInterface(const char* name, void** out) noexcept override {
        if (std::strcmp(name, m_interface_name) != 0 && std::strcmp(name, "IQORInterface") != 0)
            return 0;
        *out = static_cast<INTERFACE*>(this);
        AddRef();
        return 1;
    }

private:
    const char* m_interface_name;
};

} // namespace qor
