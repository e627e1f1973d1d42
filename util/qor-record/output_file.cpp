#include "output_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace qor::record {

const char* suffix_of(compression kind) noexcept {
    return kind == compression::zstd ? ".zst" : kind == compression::gzip ? ".gz" : "";
}

output_file::~output_file() {
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

int output_file::create(const std::string& path, std::unique_ptr<compressor> compressed) {
    m_descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (m_descriptor < 0)
        return errno;
    m_path = path;
    m_compressor = std::move(compressed);
    m_buffer = std::make_unique_for_overwrite<char[]>(buffer_size);
    return 0;
}

bool output_file::write(const char* data, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = ::write(m_descriptor, data + done, size - done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) {
            const int reason = count < 0 ? errno : ENOSPC;
            // Plain text ends behind its last whole line; what is compressed is read up to where it ends.
            std::size_t whole = done;
            if (!m_compressor)
                while (whole > 0 && data[whole - 1] != '\n')
                    --whole;
            (void)!::ftruncate(m_descriptor, static_cast<off_t>(m_written + whole));
            fail(reason);
            return false;
        }
        done += static_cast<std::size_t>(count);
    }
    m_written += size;
    return true;
}

void output_file::fail(int reason) {
    m_failure = reason;
    ::close(m_descriptor);
    m_descriptor = -1;
}

void output_file::flush_buffer(bool ends_here, bool is_last) {
    const std::size_t size = m_used;
    m_used = 0;
    if (m_descriptor < 0)
        return;
    if (m_compressor)
        (void)m_compressor->put(m_buffer.get(), size, ends_here, is_last, *this);
    else if (size > 0)
        (void)write(m_buffer.get(), size);
    m_has_unflushed = !ends_here && (size > 0 || m_has_unflushed);
}

void output_file::flush() {
    if (m_used > 0 || m_has_unflushed)
        flush_buffer(true, false);
}

void output_file::finish() {
    if (m_descriptor < 0)
        return;
    flush_buffer(true, true);
    if (m_descriptor >= 0)
        ::close(m_descriptor);
    m_descriptor = -1;
}

void output_file::remove() {
    if (m_descriptor >= 0)
        ::close(m_descriptor);
    m_descriptor = -1;
    if (!m_path.empty())
        ::unlink(m_path.c_str());
    m_path.clear();
}

void output_file::rename(const std::string& path) {
    if (::rename(m_path.c_str(), path.c_str()) == 0)
        m_path = path;
}

} // namespace qor::record
