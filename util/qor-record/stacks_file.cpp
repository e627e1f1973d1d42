#include "stacks_file.h"

#include "thread_name.h"
#include "version.h"

#include <algorithm>

namespace qor::record {

void stacks_file::begin(std::int32_t process, std::int32_t parent, std::uint64_t start_time, unsigned depth) {
    m_process = process;
    char* at = m_file.room();
    std::memcpy(at, stacks_magic, stacks_magic_size);
    at = number(at + stacks_magic_size, stacks_entry::process);
    at = number(at, static_cast<std::uint64_t>(process));
    at = number(at, static_cast<std::uint64_t>(parent));
    at = number(at, start_time);
    at = number(at, depth);
    at = text(at, std::string_view(m_host.program()).substr(0, 4096));
    m_file.advance(text(at, qor_version));
}

// The first line with this stack, or the first one since a module went.
void stacks_file::add_stack(std::uint32_t node) {
    add_node(node);
    bring_modules_back(node);
    m_stack_count += m_nodes[node].generation == 0 ? 1 : 0;
    m_nodes[node].generation = m_generation;
}

// A frame in a module shows that the module is loaded.
void stacks_file::bring_modules_back(std::uint32_t node) {
    for (unsigned depth = 0; m_gone_count != 0 && node != 0 && depth < most_frames; ++depth) {
        const record::node* const found = m_host.node_at(node);
        if (found == nullptr)
            return;
        if (found->module < m_modules.size() && m_modules[found->module].is_gone) {
            entry(stacks_entry::module_back, m_modules[found->module].number);
            m_modules[found->module].is_gone = false;
            --m_gone_count;
        }
        node = found->parent;
    }
}

// Parents first: an entry refers only to those before it.
void stacks_file::add_node(std::uint32_t wanted) {
    std::vector<std::uint32_t> path;
    for (std::uint32_t each = wanted; path.size() <= most_frames;) {
        if (each >= m_nodes.size())
            m_nodes.resize(std::max<std::size_t>(each + 1, 2 * m_nodes.size()));
        if (each == 0 || m_nodes[each].number != 0)
            break;
        path.push_back(each);
        const node* const found = m_host.node_at(each);
        each = found != nullptr ? found->parent : 0;
    }
    for (; !path.empty(); path.pop_back()) {
        const node* const found = m_host.node_at(path.back());
        const node made = found != nullptr ? *found : node{};
        const std::uint32_t module = module_number(made.module);
        const std::uint64_t base = module != 0 ? m_host.shared().modules[made.module].base : 0;
        entry(stacks_entry::node, m_nodes[made.parent].number, module, made.address - base);
        m_nodes[path.back()].number = static_cast<std::uint32_t>(m_file_nodes.size());
        m_file_nodes.push_back(path.back());
    }
}

std::uint32_t stacks_file::module_number(std::uint32_t module) {
    if (module == 0 || module >= most_modules)
        return 0;
    if (module >= m_modules.size())
        m_modules.resize(module + 1);
    seen_module& seen = m_modules[module];
    if (seen.number == 0) {
        const record::module& of = m_host.shared().modules[module];
        char* at = m_file.room();
        at = number(at, stacks_entry::module);
        at = number(at, of.base);
        at = number(at, of.begin);
        at = number(at, of.end);
        at = text(at, m_host.path_of(of).substr(0, 4096));
        m_file.advance(text(at, {reinterpret_cast<const char*>(of.build_id), of.build_id_size}));
        seen.number = ++m_module_count;
    }
    return seen.number;
}

void stacks_file::change_thread(std::uint32_t thread) {
    m_thread = thread;
    entry(stacks_entry::thread, thread);
    const auto named = std::ranges::lower_bound(m_named_threads, thread);
    if (named != m_named_threads.end() && *named == thread)
        return;
    m_named_threads.insert(named, thread);
    if (const std::string name = name_of_thread(m_process, thread); !name.empty()) {
        char* at = m_file.room();
        at = number(at, stacks_entry::thread_name);
        at = number(at, thread);
        m_file.advance(text(at, name));
    }
}

void stacks_file::module_gone(std::uint32_t module) {
    // If no stack has shown that the module was back, the file need not say that it went again.
    if (module >= m_modules.size() || m_modules[module].number == 0 || m_modules[module].is_gone)
        return;
    entry(stacks_entry::module_gone, m_modules[module].number);
    m_modules[module].is_gone = true;
    ++m_gone_count;
    ++m_generation;
}

std::vector<std::uint32_t> stacks_file::modules_gone() const {
    std::vector<std::uint32_t> found;
    for (std::uint32_t module = 0; module < m_modules.size(); ++module)
        if (m_modules[module].is_gone)
            found.push_back(module);
    return found;
}

void stacks_file::time(std::uint64_t since_start) { entry(stacks_entry::time, since_start); }

void stacks_file::loss(std::uint64_t records, std::string_view reason) {
    char* at = m_file.room();
    at = number(at, stacks_entry::loss);
    at = number(at, records);
    m_file.advance(text(at, reason));
}

void stacks_file::inherited(std::uint64_t lines) { entry(stacks_entry::inherited, lines); }

} // namespace qor::record
