#include "output_file.h"

namespace qor::record {

int output_file::create(const std::string& path, compression::format kind) {
    m_buffer = std::make_unique_for_overwrite<char[]>(buffer_size);
    if (kind != compression::format::none) {
        m_compressor = std::make_unique<compression::compressor>();
        if (!m_compressor->start(kind, level))
            return m_failure = out_of_memory; // the library is there, as its caller has seen
    }
    m_failure = m_file.create(path);
    if (m_failure != 0)
        return m_failure;
    m_path = path;
    m_kind = kind;
    return 0;
}

void output_file::refuse(int reason) {
    m_buffer = std::make_unique_for_overwrite<char[]>(buffer_size);
    m_failure = reason;
}

void output_file::write(const char* data, std::size_t size) {
    std::size_t done = 0;
    m_failure = m_file.write(data, size, done);
    if (m_failure != 0) {
        // Plain text ends behind its last whole line; a compressed file can be read up to where it ends.
        if (!m_compressor)
            while (done > 0 && data[done - 1] != '\n')
                --done;
        m_file.cut_to(m_written + done);
        m_file.close();
    }
    m_written += done;
}

void output_file::pass_on(ending until) {
    const std::size_t size = m_used;
    m_used = 0;
    if (!m_file.is_open())
        return;
    if (!m_compressor) {
        write(m_buffer.get(), size);
    } else {
        m_compressed.clear();
        const bool is_whole = m_compressor->add({m_buffer.get(), size}, until, m_compressed);
        write(m_compressed.data(), m_compressed.size());
        if (!is_whole && m_failure == 0) {
            m_failure = out_of_memory;
            m_file.close();
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
    m_file.close();
    m_buffer.reset();
    m_compressor.reset();
    m_compressed = {};
}

void output_file::remove() {
    m_file.close();
    if (!m_path.empty())
        (void)remove_file(m_path);
    m_path.clear();
}

void output_file::rename(const std::string& path) {
    if (rename_file(m_path, path) == 0)
        m_path = path;
}

} // namespace qor::record
