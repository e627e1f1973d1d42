#include "support/recording_table.h"

namespace qor::test {
namespace {

recording_table* s_current = nullptr;

std::string text(const char* of) { return of != nullptr ? of : "null"; }
std::string text(bool of) { return of ? "true" : "false"; }
std::string text(int of) { return std::to_string(of); }
std::string text(uint64 of) { return std::to_string(of); }
std::string text(const std::string& of) { return of; }

// Returns "op(a, b, c)".
template <class... PARTS>
std::string call(const char* op, const PARTS&... parts) {
    std::string result = op;
    const char* between = "(";
    ((result += between + text(parts), between = ", "), ...);
    return result + ")";
}

} // namespace

std::string assertion(const std::string& expr, const std::string& func, const std::string& file, int line) {
    return call("qorAssertFailed", expr, func, file, line);
}

// The functions in the rows of the copied table.
struct recorders {
    static const glue::binding_table& real() { return *s_current->m_real; }

    static void assert_failed(const char* expr, const char* func, const char* file, int line) noexcept {
        s_current->note(call("qorAssertFailed", expr, func, file, line));
    }

    static void announce(const void* object, const char* type_name) noexcept {
        if (s_current->on_announce)
            s_current->on_announce(object);
        s_current->note(call("qorAnnounceObject", type_name));
        real().qorAnnounceObject(object, type_name);
    }

    static void* malloc(uint64 alignment, uint64 size, bool must_succeed, const char* file, int line) noexcept {
        return s_current->noted(call("qor_do_malloc", alignment, size, must_succeed, file, line),
                                s_current->exhausted ? nullptr
                                                     : real().qor_do_malloc(alignment, size, must_succeed, file, line));
    }

    static void* realloc(void* block, uint64 size, const char* file, int line) noexcept {
        std::string name = s_current->name_of(block);
        void* const result = s_current->exhausted ? nullptr : real().qor_do_realloc(block, size, file, line);
        return s_current->noted(call("qor_do_realloc", name, size, file, line), result);
    }

    static void free(void* block, const char* file, int line) noexcept {
        s_current->note(call("qor_do_free", s_current->name_of(block), file, line));
        real().qor_do_free(block, file, line);
    }

    static void* memdup(const void* bytes, uint64 size, const char* file, int line) noexcept {
        return s_current->noted(call("qor_do_memdup", s_current->name_of(bytes), size, file, line),
                                s_current->exhausted ? nullptr : real().qor_do_memdup(bytes, size, file, line));
    }

    static void* do_new(uint64 size, const char* file, int line) noexcept {
        return s_current->noted(call("qor_do_new", size, file, line),
                                s_current->exhausted ? nullptr : real().qor_do_new(size, file, line));
    }

    static void do_delete(void* object) noexcept {
        s_current->note(call("qor_do_delete", s_current->name_of(object)));
        real().qor_do_delete(object);
    }
};

recording_table::recording_table() : rows(*glue::table()), m_real(glue::table()) {
    rows.qorAssertFailed = recorders::assert_failed;
    rows.qorAnnounceObject = recorders::announce;
    rows.qor_do_malloc = recorders::malloc;
    rows.qor_do_realloc = recorders::realloc;
    rows.qor_do_free = recorders::free;
    rows.qor_do_memdup = recorders::memdup;
    rows.qor_do_new = recorders::do_new;
    rows.qor_do_delete = recorders::do_delete;
    s_current = this;
    glue::s_funcs.store(&rows);
}

recording_table::~recording_table() {
    glue::s_funcs.store(m_real);
    s_current = nullptr;
}

std::vector<std::string> recording_table::take() {
    const std::lock_guard held(m_lock);
    return std::exchange(m_calls, {});
}

bool recording_table::unbound(const std::function<void()>& action) {
    const glue::binding_table* const bound = glue::s_funcs.exchange(nullptr);
    action();
    return glue::s_funcs.exchange(bound) == nullptr;
}

void recording_table::note(std::string call) {
    const std::lock_guard held(m_lock);
    m_calls.push_back(std::move(call));
}

std::string recording_table::name_of(const void* block) {
    if (block == nullptr)
        return "null";
    const std::lock_guard held(m_lock);
    const auto found = m_names.find(block);
    return found != m_names.end() ? found->second : "unknown block";
}

template <class POINTER>
POINTER recording_table::noted(std::string call, POINTER block) {
    const std::lock_guard held(m_lock);
    const std::string name = block != nullptr ? "#" + std::to_string(++m_blocks) : "null";
    m_names[block] = name;
    m_calls.push_back(std::move(call) + " = " + name);
    return block;
}

} // namespace qor::test
