// "qor-record control PREFIX start|stop": a word in memory that both name by the path of the logs.
#pragma once

#include "log_names.h"

#include <atomic>
#include <cstdint>
#include <optional>

namespace qor::record {

// The recorder's side.
class control_listener {
public:
    control_listener() = default;
    control_listener(const control_listener&) = delete;
    control_listener& operator=(const control_listener&) = delete;
    ~control_listener();

    // False: another recorder writes these files, or `error` says why there is no memory.
    bool open(const log_names& names, int& error);

    // What is asked for: to stop (true) or to start. Afterwards it has to be answered.
    std::optional<bool> asked();
    void answer();

private:
    struct word;
    void* m_section = nullptr;
    word* m_word = nullptr;
    friend int control(int argc, char** argv);
};

// PREFIX start|stop. The exit code.
int control(int argc, char** argv);

} // namespace qor::record
