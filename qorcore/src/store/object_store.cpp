// The operation that opens object stores, by the module qor-store.
#include "error/error.h"
#include "module/module.h"
#include "qor/glue/object_store_opener.h"

bool qor::glue::qorOpenObjectStore(const char* path, const qorObjectStoreOptions& options,
                                   IQORObjectStore** out) noexcept {
    if (path == nullptr || *path == '\0') {
        error::set(qorError_invalid_argument, {"qorOpenObjectStore", "path"});
        return false;
    }
    void* made = nullptr;
    if (!module::create_object("qor-store", "IQORObjectStoreOpener", "sqlite", &made))
        return false;
    zetSmartPointer<IQORObjectStoreOpener> opener;
    opener.AttachNew(static_cast<IQORObjectStoreOpener*>(made));
    return opener->Open(path, options, out);
}
