// Inside the facility: the target, for sources that let the system copy to it.
#pragma once

#include "platform/replacement.h"
#include "qor/qor.h"
#include "qor/system/template/Object.h"

#include <string>

namespace qor::file {

class file_target final : public qor::object<IQORFileTarget> {
public:
    file_target() noexcept : object("qorcore.file_target", "IQORFileTarget", "IQORDataSink") {}
    ~file_target() override;

    // Returns the object behind an interface if it is one of these, with a reference for the caller; otherwise null.
    static file_target* from(IQORDataSink* sink) noexcept;

    int QueryInterface(const char* name, void** out) noexcept override;

    bool Open(const char* path, uint32 mode) noexcept override;
    bool Write(const void* bytes, uint32 size) noexcept override;
    bool Flush(qorFlushTo where) noexcept override;
    bool Close() noexcept override;
    uint64 GetPosition() noexcept override { return m_position; }

    // Does what raw_file::skip_hole() does; another result than 0 and `no_hole` is the target's failure.
    int skip_hole(platform::raw_file& from, uint64 size) noexcept;

    // Copies up to `limit` bytes from the position of a file, inside the system, and returns their number. The caller
    // copies the rest.
    uint64 copy_from(platform::raw_file& from, uint64 limit) noexcept;

private:
    bool is_usable(const char* operation) noexcept;
    bool put(const void* bytes, std::size_t size) noexcept;
    bool write_out() noexcept;
    bool fail(int reason) noexcept;
    void abandon() noexcept;

    platform::raw_file m_file;
    platform::replacement m_replacement;
    platform::raw_file* m_to = nullptr; // one of the two; null: no file is open
    std::string m_path;
    char* m_block = nullptr;
    std::size_t m_used = 0; // of the block
    uint64 m_position = 0;
    int m_failed = 0; // the system's reason of the first failure; 0: none
};

} // namespace qor::file
