// The module qor-store: object stores in SQLite.
#include "qor/glue/module.h"

#include "common/guarded.h"
#include "qor/glue/object_store_opener.h"
#include "qor/system/template/Object.h"
#include "store.h"

#include <cstring>

namespace {

class opener final : public qor::object<IQORObjectStoreOpener> {
public:
    opener() noexcept : object("qor-store.opener", "IQORObjectStoreOpener") {}

    bool Open(const char* path, const qorObjectStoreOptions& options, IQORObjectStore** out) noexcept override {
        return store::open(path, options, out);
    }
};

bool create_object(const char* interface_name, const char*, void** out) noexcept {
    if (std::strcmp(interface_name, "IQORObjectStoreOpener") != 0) {
        qorSetLastError(qorError_not_supported);
        return false;
    }
    return qor::modules::guarded([&] {
        *out = static_cast<IQORObjectStoreOpener*>(new (__FILE__, __LINE__) opener);
        return true;
    });
}

} // namespace

QOR_OWN_MODULE("qor-store", &create_object, nullptr)
