#include "stack_numbers.h"

namespace qor::heap {

namespace {

uint32 hash_of(const profile::module& of) noexcept {
    return hashing::finish(
        hashing::mix(uint64{hashing::of_text(of.path)} << 32 | hashing::of_text(of.build_id), hashing::key));
}
uint32 hash_of(const profile::frame& of) noexcept {
    return hashing::finish(hashing::mix(hashing::mix(hashing::key, of.address), of.module));
}

} // namespace

template <class ALL, class ITEM, class EQUAL>
uint32 stack_numbers::find_or_add(number_index& index, ALL& all, uint32 hash, const ITEM& wanted, EQUAL equal) {
    if (const number_index::cell* const found = index.find(hash, [&](uint32 each) { return equal(all[each]); }))
        return found->number;
    const auto number = static_cast<uint32>(all.size());
    all.emplace_back(wanted);
    index.add(hash, number);
    return number;
}

uint32 stack_numbers::text(std::string_view text) {
    if (text.empty())
        return 0;
    return find_or_add(m_texts, m_of.texts, hashing::of_text(text), text,
                       [&](const std::string& each) { return each == text; });
}

uint32 stack_numbers::module(const profile::module& wanted) {
    return find_or_add(m_modules, m_of.modules, hash_of(wanted), wanted, [&](const profile::module& each) {
        return each.path == wanted.path && each.build_id == wanted.build_id;
    });
}

uint32 stack_numbers::frame(const profile::frame& wanted) {
    if (wanted == profile::frame{})
        return 0;
    return find_or_add(m_frames, m_of.frames, hash_of(wanted), wanted,
                       [&](const profile::frame& each) { return each == wanted; });
}

uint32 stack_numbers::node(uint32 hash, const profile::node& wanted) {
    return find_or_add(m_nodes, m_of.nodes, hash, wanted, [&](const profile::node& each) {
        return each.parent == wanted.parent && each.frame == wanted.frame;
    });
}

uint32 stack_numbers::node(uint32 frame) { return node(hash_of_node(empty_hash, frame), {0, frame}); }

} // namespace qor::heap
