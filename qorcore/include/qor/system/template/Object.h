// A reference-counted implementation of one interface. Derive from it and implement the interface's own operations.
#pragma once

#include "qor/glue/impl_common.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace qor {

// Queries succeed for `interface_name`, for the interface that it extends, if any, and for the root. Names are kept by
// pointer and must outlive the object.
template <class OFFERED>
class object : public qorRefObject, public OFFERED {
public:
    // The object starts with one reference.
    object(const char* type_name, const char* interface_name, const char* extended_name = root_name) noexcept
        : qorRefObject(type_name), m_names{interface_name, extended_name, root_name} {}

    // Like those of IQORInterface.
    void AddRef() noexcept override { qorRefObject::AddRef(); }
    void Release() noexcept override { qorRefObject::Release(); }
    int QueryInterface(const char* name, void** out) noexcept override {
        if (std::none_of(std::begin(m_names), std::end(m_names),
                         [name](const char* known) { return std::strcmp(name, known) == 0; }))
            return 0;
        *out = static_cast<OFFERED*>(this);
        AddRef();
        return 1;
    }

private:
    static constexpr char root_name[] = "IQORInterface";

    const char* m_names[3];
};

} // namespace qor
