#include "output_file.h"

#include "compression/system_reason.h"

#include <random>

namespace qor::heap_tool {

output_file::~output_file() {
    if (m_beside.empty())
        return;
    close();
    remove(m_beside);
}

bool output_file::fail(int error) {
    if (error != 0 && m_reason.empty())
        m_reason = compression::system_reason(error);
    return m_reason.empty();
}

bool output_file::open(const std::string& path) {
    if (path == "-")
        return fail(use_standard_output());
    if (!fail(check_place(path)))
        return false;
    std::random_device random;
    int error = 0;
    for (int i = 0; i < most_tries; ++i) {
        const std::string beside = path + '.' + std::to_string(random()) + ".part";
        error = create(beside);
        if (error == 0) {
            m_path = path;
            m_beside = beside;
            return true;
        }
        if (!is_taken(error))
            break;
    }
    return fail(error);
}

void output_file::write(std::string_view text) {
    m_buffer += text;
    if (m_buffer.size() < buffer_size || !m_reason.empty())
        return;
    fail(write_out(m_buffer));
    m_buffer.clear();
}

bool output_file::finish() {
    if (m_reason.empty())
        fail(write_out(m_buffer));
    m_buffer.clear();
    if (m_beside.empty())
        return m_reason.empty();
    fail(close());
    if (m_reason.empty())
        fail(replace(m_path, m_beside));
    if (!m_reason.empty())
        remove(m_beside);
    m_beside.clear();
    return m_reason.empty();
}

} // namespace qor::heap_tool
