#include "platform/file_info.h"

void qor::platform::copy_status(const file_status& from, qorFileInfoEx& to) noexcept {
    static_cast<qorFileInfo&>(to) = from.info;
    to.changed = from.changed;
    to.allocated = from.allocated;
    to.links = from.links;
    to.device = from.device;
    to.id[0] = from.id[0];
    to.id[1] = from.id[1];
    to.owner = from.owner;
    to.group = from.group;
    to.modified_rest = from.modified_rest;
    to.accessed_rest = from.accessed_rest;
    to.created_rest = from.created_rest;
    to.changed_rest = from.changed_rest;
}
