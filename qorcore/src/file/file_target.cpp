// The file target: collects small writes in a block and passes large ones on.
#include "file/file_target.h"

#include "file/file_mode.h"
#include "memory/allocator.h"

#include <cstring>
#include <utility>

namespace {

constexpr char source[] = "qorcore/src/file/file_target";

// Large enough to make the system calls cheap, small enough to stay in the second-level cache.
constexpr std::size_t block_size = 256 * 1024;

// From this size on, the system call costs less than a second copy of the bytes.
constexpr std::size_t large_write = 32 * 1024;

// The query that only this class answers. It is known by its address, so that no other name can match.
constexpr char own_name[] = "qorcore.file_target";

} // namespace

qor::file::file_target::~file_target() {
    abandon();
    qor::glue::qor_do_free(m_block, source, __LINE__);
}

qor::file::file_target* qor::file::file_target::from(IQORDataSink* sink) noexcept {
    void* found = nullptr;
    return sink->QueryInterface(own_name, &found) != 0 ? static_cast<file_target*>(found) : nullptr;
}

int qor::file::file_target::QueryInterface(const char* name, void** out) noexcept {
    if (name != own_name)
        return object::QueryInterface(name, out);
    AddRef();
    *out = this;
    return 1;
}

bool qor::file::file_target::Open(const char* path, uint32 mode) noexcept {
    abandon();
    m_used = 0;
    m_position = 0;
    m_failed = 0;
    m_path = path;
    const bool replaces = (mode & ~uint32{qorFileWriting}) == qorFileReplace;
    platform::raw_file::terms terms;
    if (!replaces &&
        (!to_terms(mode == 0 ? qorFileWriting | qorFileTruncate : mode | qorFileWriting, terms) || terms.reads)) {
        error::set(qorError_invalid_argument, {"IQORFileTarget::Open", "mode"});
        return false;
    }
    const int reason = replaces ? m_replacement.begin(path, false) : m_file.open(path, terms);
    if (reason != 0)
        set_open_error(path, reason);
    else
        m_to = replaces ? &m_replacement.file() : &m_file;
    return reason == 0;
}

bool qor::file::file_target::Write(const void* bytes, uint32 size) noexcept {
    if (!is_usable("IQORFileTarget::Write"))
        return false;
    if (size >= large_write) {
        if (!write_out() || !put(bytes, size))
            return false;
    } else if (size != 0) {
        if (m_block == nullptr)
            m_block = static_cast<char*>(memory::require(block_size, source, __LINE__));
        const std::size_t fits = std::min<std::size_t>(size, block_size - m_used);
        std::memcpy(m_block + m_used, bytes, fits);
        m_used += fits;
        if (m_used == block_size && !write_out())
            return false;
        if (fits != size) {
            std::memcpy(m_block, static_cast<const char*>(bytes) + fits, size - fits);
            m_used = size - fits;
        }
    }
    m_position += size;
    return true;
}

bool qor::file::file_target::Flush(qorFlushTo where) noexcept {
    if (!is_usable("IQORFileTarget::Flush") || !write_out())
        return false;
    const int reason = where == qorFlushTo::disk ? m_to->sync() : 0;
    return reason == 0 || fail(reason);
}

bool qor::file::file_target::Close() noexcept {
    const bool is_written = is_usable("IQORFileTarget::Close") && write_out();
    platform::raw_file* const to = std::exchange(m_to, nullptr);
    if (to == &m_file) {
        const int reason = m_file.close();
        return is_written && (reason == 0 || fail(reason));
    }
    if (!is_written) {
        m_replacement.drop();
        return false;
    }
    const int reason = m_replacement.commit();
    return reason == 0 || fail(reason);
}

int qor::file::file_target::skip_hole(platform::raw_file& from, uint64 size) noexcept {
    if (m_to == nullptr || m_failed != 0 || !write_out())
        return platform::raw_file::no_hole;
    const int reason = m_to->skip_hole(from, size);
    if (reason == 0)
        m_position += size;
    else if (reason != platform::raw_file::no_hole)
        fail(reason);
    return reason;
}

uint64 qor::file::file_target::copy_from(platform::raw_file& from, uint64 limit) noexcept {
    if (m_to == nullptr || m_failed != 0 || !write_out())
        return 0;
    const uint64 count = m_to->copy_from(from, limit);
    m_position += count;
    return count;
}

// Sets the last error if no file is open, or if there was a failure already.
bool qor::file::file_target::is_usable(const char* operation) noexcept {
    if (m_to == nullptr)
        error::set(qorError_not_open, {operation});
    else if (m_failed != 0)
        fail(m_failed);
    return m_to != nullptr && m_failed == 0;
}

bool qor::file::file_target::put(const void* bytes, std::size_t size) noexcept {
    const int reason = m_to->write(bytes, size);
    return reason == 0 || fail(reason);
}

bool qor::file::file_target::write_out() noexcept { return m_used == 0 || put(m_block, std::exchange(m_used, 0)); }

bool qor::file::file_target::fail(int reason) noexcept {
    m_failed = reason;
    error::set_with_reason(qorError_cannot_write_file, m_path.c_str(), reason);
    return false;
}

// Ends the use of the file without a result: what a target that is broken off leaves behind.
void qor::file::file_target::abandon() noexcept {
    if (m_to == &m_file && m_failed == 0 && m_used != 0)
        m_file.write(m_block, m_used);
    m_to = nullptr;
    m_file.close();
    m_replacement.drop();
}

void qor::glue::create_IQORFileTarget(IQORFileTarget** out) noexcept {
    *out = nullptr;
    memory::make<qor::file::file_target>(source, __LINE__, out);
}
