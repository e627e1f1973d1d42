#include "folder/removable_disks.h"

#include "error/error.h"
#include "memory/allocator.h"
#include "qor/system/template/Object.h"

#include <utility>

namespace {

constexpr char source[] = "qorcore/src/folder/removable_disks";

class removable_disk_list final : public qor::object<IQORRemovableDiskList> {
public:
    explicit removable_disk_list(std::vector<qorRemovableDisk>&& disks) noexcept
        : object("qorcore.removable_disk_list", "IQORRemovableDiskList"), m_disks(std::move(disks)) {}

    uint32 GetCount() noexcept override { return static_cast<uint32>(m_disks.size()); }
    const qorRemovableDisk* GetDisks() noexcept override { return m_disks.data(); }

private:
    std::vector<qorRemovableDisk> m_disks;
};

} // namespace

bool qor::glue::qorGetRemovableDiskList(IQORRemovableDiskList** out) noexcept {
    std::vector<qorRemovableDisk> disks;
    std::string failed;
    if (const int code = folder::read_removable_disks({}, disks, failed)) {
        error::set_with_reason(qorError_cannot_list_disks, failed.c_str(), code);
        return false;
    }
    return memory::make<removable_disk_list>(source, __LINE__, out, std::move(disks));
}
