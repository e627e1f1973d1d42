// A binding table that records a client's calls of the library.
#pragma once

#include "qor/qor.h"

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace qor::test {

// While an object lives, calls of this client go through a copy of the library's table. Memory operations and
// announcements of objects are recorded as text and then carried out; assertions are only recorded. Blocks are named
// #1, #2, … in the order in which they were allocated. Only one object may live at a time. Its operations are
// thread-safe.
class recording_table {
public:
    recording_table();
    recording_table(const recording_table&) = delete;
    recording_table& operator=(const recording_table&) = delete;
    ~recording_table();

    // Returns the calls since the last take(), in order.
    std::vector<std::string> take();

    // Runs `action` as a client that is not bound yet. Returns whether it is still unbound afterwards.
    static bool unbound(const std::function<void()>& action);

    // The table in use: a test may replace more rows.
    glue::binding_table rows;

    // Called for each announced object, before the call is recorded.
    std::function<void(const void* object)> on_announce;

    // While it is true, the memory operations find no memory.
    bool exhausted = false;

private:
    friend struct recorders;

    void note(std::string call);
    std::string name_of(const void* block);
    template <class POINTER>
    POINTER noted(std::string call, POINTER block);

    const glue::binding_table* m_real;
    std::mutex m_lock;
    std::vector<std::string> m_calls;
    std::map<const void*, std::string> m_names;
    unsigned m_blocks = 0;
};

// The recorded form of a failed assertion.
std::string assertion(const std::string& expr, const std::string& func, const std::string& file, int line);

} // namespace qor::test
