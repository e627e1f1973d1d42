// The file source: reads large blocks from the system and hands out parts of them.
#include "error/error.h"
#include "file/file_target.h"
#include "memory/allocator.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace {

constexpr char source[] = "qorcore/src/file/file_source";

// As for the target.
constexpr std::size_t block_size = 256 * 1024;
constexpr std::size_t large_read = 32 * 1024;

class file_source final : public qor::object<IQORFileSource> {
public:
    file_source() noexcept : object("qorcore.file_source", "IQORFileSource", "IQORDataSource") {}

    ~file_source() override { qor::glue::qor_do_free(m_block, source, __LINE__); }

    bool Open(const char* path) noexcept override {
        m_next = m_end = 0;
        m_position = 0;
        m_failed = 0;
        m_path = path;
        if (const int reason = m_file.open(path, qor::platform::raw_file::access::read)) {
            qor::error::set_with_reason(qorError_cannot_open_file, path, reason);
            return false;
        }
        return true;
    }

    void Close() noexcept override {
        m_file.close();
        m_next = m_end = 0;
    }

    bool Read(void* bytes, uint32 size) noexcept override {
        uint64 count = 0;
        if (!read_up_to("IQORFileSource::Read", bytes, size, &count))
            return false;
        if (count < size)
            qor::error::set(qorError_file_ends, {m_path.c_str(), std::to_string(m_position).c_str()});
        return count == size;
    }

    bool ReadSome(void* bytes, uint64 size, uint64* count) noexcept override {
        return read_up_to("IQORFileSource::ReadSome", bytes, size, count);
    }

    bool ReadBlock(const void** bytes, uint64* size) noexcept override {
        *bytes = nullptr;
        *size = 0;
        if (!is_usable("IQORFileSource::ReadBlock") || (m_next == m_end && !load()))
            return false;
        take(qorToTheEnd, bytes, size);
        return true;
    }

    bool CopyTo(IQORDataSink* target, uint64 limit, uint64* copied) noexcept override {
        *copied = 0;
        if (!is_usable("IQORFileSource::CopyTo") || !pass_on(target, limit, copied))
            return false;
        qor::file::file_target* const own = qor::file::file_target::from(target);
        if (own == nullptr)
            return copy_blocks(target, limit, true, copied);
        bool done = true;
        while (done && *copied < limit) {
            const uint64 before = *copied;
            done = copy_run(own, limit, copied);
            if (*copied == before)
                break; // the end of the file
        }
        own->Release();
        return done;
    }

    uint64 GetPosition() noexcept override { return m_position; }
    bool HasFailed() noexcept override { return m_failed != 0; }

private:
    // Sets the last error if no file is open, or if a read has failed.
    bool is_usable(const char* operation) {
        if (!m_file.is_open())
            qor::error::set(qorError_not_open, {operation});
        else if (m_failed != 0)
            fail(m_failed);
        return m_file.is_open() && m_failed == 0;
    }

    bool fail(int reason) {
        m_failed = reason;
        qor::error::set_with_reason(qorError_cannot_read_file, m_path.c_str(), reason);
        return false;
    }

    // Fills the empty block by one read. It stays empty at the end of the file.
    bool load(std::size_t most = block_size) {
        if (m_block == nullptr)
            m_block = static_cast<char*>(qor::memory::require(block_size, source, __LINE__));
        m_next = m_end = 0;
        const int reason = m_file.read(m_block, most, &m_end);
        return reason == 0 || fail(reason);
    }

    // Takes bytes off the block, at most `limit`.
    void take(uint64 limit, const void** bytes, uint64* size) {
        const std::size_t count = static_cast<std::size_t>(std::min<uint64>(limit, m_end - m_next));
        *bytes = m_block + m_next;
        *size = count;
        m_next += count;
        m_position += count;
    }

    // Writes what the block holds to the target.
    bool pass_on(IQORDataSink* target, uint64 limit, uint64* copied) {
        const void* bytes = nullptr;
        uint64 size = 0;
        take(limit - *copied, &bytes, &size);
        if (size != 0 && !target->Write(bytes, static_cast<uint32>(size)))
            return false;
        *copied += size;
        return true;
    }

    // Copies blocks to the target until `end` bytes are copied or the file ends. If it may not read ahead, it reads no
    // byte behind that end.
    bool copy_blocks(IQORDataSink* target, uint64 end, bool reads_ahead, uint64* copied) {
        while (*copied < end) {
            const uint64 most = reads_ahead ? block_size : std::min<uint64>(end - *copied, block_size);
            if (!load(static_cast<std::size_t>(most)) || m_next == m_end)
                return m_failed == 0;
            if (!pass_on(target, end, copied))
                return false;
        }
        return true;
    }

    // Copies the next hole, or the bytes up to the next hole: inside the system as far as it does that.
    bool copy_run(qor::file::file_target* target, uint64 limit, uint64* copied) {
        qor::platform::raw_file::run run;
        if (const int reason = m_file.next_run(limit - *copied, run))
            return fail(reason);
        const uint64 end = *copied + run.length;
        const int reason = run.is_hole ? target->skip_hole(m_file, run.length) : int{qor::platform::raw_file::no_hole};
        uint64 count = run.length;
        if (reason == qor::platform::raw_file::no_hole)
            count = target->copy_from(m_file, run.length);
        else if (reason != 0)
            return false;
        m_position += count;
        *copied += count;
        return copy_blocks(target, end, end == limit, copied);
    }

    bool read_up_to(const char* operation, void* bytes, uint64 size, uint64* count) {
        *count = 0;
        if (!is_usable(operation))
            return false;
        char* const begin = static_cast<char*>(bytes);
        for (uint64 done = 0; done < size;) {
            const void* from = nullptr;
            uint64 length = 0;
            take(size - done, &from, &length);
            if (length != 0) {
                std::memcpy(begin + done, from, static_cast<std::size_t>(length));
            } else if (size - done >= large_read) {
                std::size_t got = 0;
                if (const int reason = m_file.read(begin + done, static_cast<std::size_t>(size - done), &got))
                    return fail(reason);
                m_position += got;
                length = got;
                if (got == 0)
                    break;
            } else if (!load()) {
                return false;
            } else if (m_next == m_end) {
                break;
            }
            done += length;
            *count = done;
        }
        return true;
    }

    qor::platform::raw_file m_file;
    std::string m_path;
    char* m_block = nullptr;
    std::size_t m_next = 0; // the next byte to hand out
    std::size_t m_end = 0;  // behind what was read
    uint64 m_position = 0;
    int m_failed = 0; // the system's reason of a failed read; 0: none
};

} // namespace

void qor::glue::create_IQORFileSource(IQORFileSource** out) noexcept {
    *out = nullptr;
    memory::make<file_source>(source, __LINE__, out);
}
