// Where a page or an export goes, piece by piece.
#pragma once

#include <string>
#include <string_view>

namespace qor::heap_tool {

class text_sink {
public:
    virtual ~text_sink() = default;
    virtual void write(std::string_view text) = 0;
};

class string_sink final : public text_sink {
public:
    void write(std::string_view more) override { text += more; }

    std::string text;
};

} // namespace qor::heap_tool
