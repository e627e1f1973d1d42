// Makes text of a log that is compressed, by its first bytes.
#pragma once

#include "compression/decompressor.h"
#include "qor/qor.h"

#include <string>

namespace qor::heap {

// Its errors name the file. Memory that runs out ends the process.
class decompressing_filter final : public IQORFileFilter {
public:
    explicit decompressing_filter(const char* path) : m_path(path) {}

    answer IsFor(const char* beginning, uint64 size) noexcept override;
    bool Convert(const char** next, const char* end, bool is_at_end, char** out, char* out_end) noexcept override;

    // In bytes of the compressed file, from its beginning.
    uint64 position() const noexcept { return m_decompressor.position(); }

private:
    void set_error(compression::decompressor::outcome what) const;

    std::string m_path;
    compression::decompressor m_decompressor;
};

} // namespace qor::heap
