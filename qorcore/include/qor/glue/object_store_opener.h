// Between libqor and its module for object stores. Clients do not need it.
#pragma once

#include "qor/system/ObjectStore.h"

// Opens stores.
class IQORObjectStoreOpener : public IQORInterface {
public:
    // Like qorOpenObjectStore.
    virtual bool Open(const char* path, const qorObjectStoreOptions& options, IQORObjectStore** out) noexcept = 0;

protected:
    ~IQORObjectStoreOpener() = default;
};
