#include "output_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace qor::record {

output_file::~output_file() { close(); }

void output_file::close() {
    if (m_descriptor >= 0)
        ::close(m_descriptor);
    m_descriptor = -1;
}

int output_file::create(const std::string& path, compression::format kind) {
    m_buffer = std::make_unique_for_overwrite<char[]>(buffer_size);
    if (kind != compression::format::none) {
        m_compressor = std::make_unique<compression::compressor>();
        if (!m_compressor->start(kind, level))
            return m_failure = ENOMEM; // the library is there, as its caller has seen
    }
    m_descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (m_descriptor < 0)
        return m_failure = errno;
    m_path = path;
    m_kind = kind;
    m_failure = 0;
    return 0;
}

void output_file::write(const char* data, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = ::write(m_descriptor, data + done, size - done);
        if (count > 0) {
            done += static_cast<std::size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            m_failure = count < 0 ? errno : ENOSPC;
            break;
        }
    }
    if (m_failure != 0) {
        // Plain text ends behind its last whole line; a compressed file can be read up to where it ends.
        if (!m_compressor)
            while (done > 0 && data[done - 1] != '\n')
                --done;
        (void)!::ftruncate(m_descriptor, static_cast<off_t>(m_written + done));
        close();
    }
    m_written += done;
}

void output_file::pass_on(ending until) {
    const std::size_t size = m_used;
    m_used = 0;
    if (m_descriptor < 0)
        return;
    if (!m_compressor) {
        write(m_buffer.get(), size);
    } else {
        m_compressed.clear();
        const bool is_whole = m_compressor->add({m_buffer.get(), size}, until, m_compressed);
        write(m_compressed.data(), m_compressed.size());
        if (!is_whole && m_failure == 0) {
            m_failure = ENOMEM;
            close();
        }
    }
    m_is_flushed = until != ending::none;
}

void output_file::flush() {
    if (m_used > 0 || !m_is_flushed)
        pass_on(ending::flush);
}

void output_file::finish() {
    pass_on(ending::whole);
    close();
    m_buffer.reset();
    m_compressor.reset();
    m_compressed = {};
}

void output_file::remove() {
    close();
    if (!m_path.empty())
        ::unlink(m_path.c_str());
    m_path.clear();
}

void output_file::rename(const std::string& path) {
    if (::rename(m_path.c_str(), path.c_str()) == 0)
        m_path = path;
}

} // namespace qor::record
