// Shows on a terminal how far the reading of a log is: a line that the next one overwrites. Nothing elsewhere.
#pragma once

#include "qor/system/Types.h"

#include <chrono>
#include <string>
#include <string_view>

namespace qor::heap_tool {

class progress {
public:
    progress();
    progress(const progress&) = delete;
    progress& operator=(const progress&) = delete;
    ~progress() { clear(); }

    // Another log begins. `size` in bytes; 0: unknown.
    void begin(std::string_view name, uint64 size);

    // Call it as often as you like.
    void update(uint64 position, uint64 records);

    void show_modules(uint32 done, uint32 all);
    void show(const std::string& text);

    // So that other output can follow.
    void clear();

private:
    using clock = std::chrono::steady_clock;

    bool is_due();

    bool m_is_shown; // whether there is a terminal
    bool m_has_line = false;
    std::string m_name;
    uint64 m_size = 0;
    clock::time_point m_begin{};
    clock::time_point m_last{};
};

} // namespace qor::heap_tool
