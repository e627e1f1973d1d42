// A sink into a text of the C++ library.
#pragma once

#include "qor/system/Error.h"
#include "qor/system/Stream.h"
#include "qor/system/template/Object.h"

#include <new>
#include <string>

namespace qor::glue {

// A sink into a text of the C++ library.
class text_sink final : public qor::object<IQORDataSink> {
public:
    // The text must outlive it.
    explicit text_sink(std::string& text) noexcept : object("qor.text_sink", "IQORDataSink"), m_text(text) {}

    bool Write(const void* bytes, uint32 size) noexcept override {
        try {
            m_text.append(static_cast<const char*>(bytes), size);
            return true;
        } catch (const std::bad_alloc&) {
            ::qorSetLastError(qorError_out_of_memory);
            return false;
        }
    }

private:
    std::string& m_text;
};

} // namespace qor::glue
