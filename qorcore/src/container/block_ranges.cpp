#include "container/block_ranges.h"

#include <algorithm>

namespace qor::container {

namespace {

constexpr std::size_t most_ranges = 512; // in a leaf
constexpr std::size_t few_ranges = 128;  // a shorter leaf is joined with its neighbour, if there is room
constexpr std::size_t full_leaf = 448;   // when a sequence is built
constexpr std::size_t block_size = 64;   // in leaves
constexpr uint64 last_place = ~uint64{0};

// Gives a leaf room for one more range and little beyond, and takes it away again.
void fit(std::vector<qorBlockRange>& ranges, std::size_t wanted) {
    if (wanted > ranges.capacity()) {
        ranges.reserve(wanted + wanted / 8);
    } else if (ranges.capacity() > wanted + wanted / 4 + 8) {
        std::vector<qorBlockRange> smaller;
        smaller.reserve(wanted + wanted / 8);
        smaller = ranges;
        ranges.swap(smaller);
    }
}

} // namespace

block_ranges::place block_ranges::next(place where) const noexcept {
    if (++where.index < m_leaves[where.leaf].size())
        return where;
    return {where.leaf + 1, 0};
}

block_ranges::place block_ranges::ending_behind(uint64 from) const noexcept {
    // The last leaf that begins at or before the place: if none of its ranges will do, it is the next leaf's first.
    const auto above = std::upper_bound(m_firsts.begin(), m_firsts.end(), from);
    if (above == m_firsts.begin())
        return {0, 0}; // which is the end, if there are no leaves
    const std::size_t index = static_cast<std::size_t>(above - m_firsts.begin()) - 1;
    const leaf& ranges = m_leaves[index];
    const auto found = std::lower_bound(ranges.begin(), ranges.end(), from,
                                        [](const qorBlockRange& each, uint64 sought) { return each.last < sought; });
    if (found == ranges.end())
        return {index + 1, 0};
    return {index, static_cast<std::size_t>(found - ranges.begin())};
}

bool block_ranges::add(qorBlockRange range) noexcept {
    const place begin = ending_behind(range.first != 0 ? range.first - 1 : 0);
    place behind = begin;
    uint64 merged = 0;
    if (begin != end() && at(begin).first <= range.first && at(begin).last >= range.last)
        return false;
    qorBlockRange whole = range;
    for (; behind != end() && (range.last == last_place || at(behind).first <= range.last + 1); behind = next(behind)) {
        whole.first = std::min(whole.first, at(behind).first);
        whole.last = std::max(whole.last, at(behind).last);
        ++merged;
    }
    m_count = m_count + 1 - merged;
    replace(begin, behind, &whole, 1);
    return true;
}

bool block_ranges::remove(qorBlockRange range) noexcept {
    const place begin = ending_behind(range.first);
    place behind = begin;
    qorBlockRange pieces[2];
    std::size_t count = 0;
    uint64 removed = 0;
    uint64 last = 0;
    for (; behind != end() && at(behind).first <= range.last; behind = next(behind)) {
        if (at(behind).first < range.first)
            pieces[count++] = {at(behind).first, range.first - 1};
        last = at(behind).last;
        ++removed;
    }
    if (removed == 0)
        return false;
    if (last > range.last)
        pieces[count++] = {range.last + 1, last};
    m_count = m_count + count - removed;
    replace(begin, behind, pieces, count);
    return true;
}

bool block_ranges::are_taken(qorBlockRange range) const noexcept {
    const place found = ending_behind(range.last);
    return found != end() && at(found).first <= range.first;
}

bool block_ranges::any_taken(qorBlockRange range) const noexcept {
    const place found = ending_behind(range.first);
    return found != end() && at(found).first <= range.last;
}

bool block_ranges::find_gap(uint64 size, uint64 from, uint64& first) const noexcept {
    const place begin = ending_behind(from);
    uint64 free = from; // the places from here to the next range are free
    for (std::size_t index = begin.leaf; index < m_leaves.size(); ++index) {
        // The gap before the first range of the first leaf may begin before `from`, so that leaf is always walked.
        if (index != begin.leaf && m_gaps[index] < size) {
            if (index % block_size == 0 && m_block_gaps[index / block_size] < size)
                index = std::min(index + block_size, m_leaves.size()) - 1;
            free = m_leaves[index].back().last + 1;
            continue;
        }
        const leaf& ranges = m_leaves[index];
        for (std::size_t i = index == begin.leaf ? begin.index : 0; i < ranges.size(); ++i) {
            if (ranges[i].first > free && ranges[i].first - free >= size) {
                first = free;
                return true;
            }
            free = ranges[i].last + 1;
        }
    }
    if (begin != end() && m_leaves.back().back().last == last_place)
        return false; // `free` has passed the end of the space
    first = last_place - free >= size - 1 ? free : first;
    return last_place - free >= size - 1;
}

uint64 block_ranges::get(uint64 from, qorBlockRange* ranges, uint64 room) const noexcept {
    uint64 count = 0;
    for (place where = ending_behind(from); where != end() && count < room;) {
        const leaf& all = m_leaves[where.leaf];
        const std::size_t piece = static_cast<std::size_t>(std::min<uint64>(room - count, all.size() - where.index));
        std::copy_n(all.begin() + static_cast<std::ptrdiff_t>(where.index), piece, ranges + count);
        count += piece;
        where = {where.leaf + 1, 0};
    }
    return count;
}

void block_ranges::append(qorBlockRange range) noexcept {
    if (!m_leaves.empty()) {
        qorBlockRange& last = m_leaves.back().back();
        if (last.last >= range.first || last.last + 1 == range.first) {
            last.last = std::max(last.last, range.last);
            return;
        }
    }
    if (m_leaves.empty() || m_leaves.back().size() == full_leaf)
        m_leaves.emplace_back();
    fit(m_leaves.back(), m_leaves.back().size() + 1);
    m_leaves.back().push_back(range);
    ++m_count;
}

void block_ranges::finish() noexcept {
    m_firsts.resize(m_leaves.size());
    m_gaps.resize(m_leaves.size());
    for (std::size_t i = 0; i < m_leaves.size(); ++i)
        refresh(i);
    refresh_blocks(0);
}

void block_ranges::replace(place begin, place behind, const qorBlockRange* pieces, std::size_t count) noexcept {
    bool has_moved = false; // whether leaves are new or gone
    bool next_gap = true;   // whether the gap before the next leaf may be another one
    if (begin.leaf == behind.leaf && begin.leaf < m_leaves.size()) {
        leaf& ranges = m_leaves[begin.leaf];
        const uint64 last = ranges.back().last;
        const std::size_t removed = behind.index - begin.index;
        const std::size_t common = std::min(removed, count);
        const auto changed = ranges.begin() + static_cast<std::ptrdiff_t>(begin.index);
        std::copy_n(pieces, common, changed);
        if (removed > common) {
            ranges.erase(changed + static_cast<std::ptrdiff_t>(common), changed + static_cast<std::ptrdiff_t>(removed));
            fit(ranges, ranges.size());
        } else if (count > common) {
            fit(ranges, ranges.size() + count - common);
            ranges.insert(ranges.begin() + static_cast<std::ptrdiff_t>(begin.index + common), pieces + common,
                          pieces + count);
        }
        next_gap = ranges.empty() || ranges.back().last != last;
    } else {
        // The ranges are in several leaves, or behind the last one: what is left of the first leaf gets the pieces.
        if (behind.leaf < m_leaves.size()) {
            leaf& ranges = m_leaves[behind.leaf];
            ranges.erase(ranges.begin(), ranges.begin() + static_cast<std::ptrdiff_t>(behind.index));
        }
        if (begin.leaf < m_leaves.size()) {
            m_leaves[begin.leaf].resize(begin.index);
            has_moved = begin.leaf + 1 < behind.leaf;
            erase_leaves(begin.leaf + 1, behind.leaf);
        } else if (!m_leaves.empty()) {
            --begin.leaf;
        } else {
            insert_leaf(0, {});
            has_moved = true;
        }
        leaf& ranges = m_leaves[begin.leaf];
        fit(ranges, ranges.size() + count);
        ranges.insert(ranges.end(), pieces, pieces + count);
        if (begin.leaf + 1 < m_leaves.size())
            has_moved |= balance(begin.leaf + 1);
    }
    has_moved |= balance(begin.leaf);
    if (!has_moved) {
        refresh(begin.leaf);
        if (next_gap && begin.leaf + 1 < m_leaves.size())
            refresh(begin.leaf + 1);
        return;
    }
    // Balancing may have joined the leaf with the one before, or the next one with the one behind it.
    const std::size_t from = begin.leaf != 0 ? begin.leaf - 1 : 0;
    for (std::size_t i = from; i < std::min(begin.leaf + 4, m_leaves.size()); ++i)
        refresh(i);
    refresh_blocks(from / block_size);
}

bool block_ranges::balance(std::size_t index) noexcept {
    leaf& ranges = m_leaves[index];
    if (ranges.empty()) {
        erase_leaves(index, index + 1);
        return true;
    }
    if (ranges.size() > most_ranges) {
        const auto middle = ranges.begin() + static_cast<std::ptrdiff_t>(ranges.size() / 2);
        leaf upper(middle, ranges.end());
        ranges.erase(middle, ranges.end());
        fit(ranges, ranges.size());
        insert_leaf(index + 1, std::move(upper));
        return true;
    }
    if (ranges.size() >= few_ranges)
        return false;
    // Joins it with the next one, or with the one before.
    std::size_t lower = index;
    if (index + 1 == m_leaves.size() || m_leaves[index + 1].size() + ranges.size() > full_leaf) {
        if (index == 0 || m_leaves[index - 1].size() + ranges.size() > full_leaf)
            return false;
        lower = index - 1;
    }
    leaf& into = m_leaves[lower];
    const leaf& from = m_leaves[lower + 1];
    fit(into, into.size() + from.size());
    into.insert(into.end(), from.begin(), from.end());
    erase_leaves(lower + 1, lower + 2);
    return true;
}

void block_ranges::erase_leaves(std::size_t begin, std::size_t behind) noexcept {
    const auto erase = [&](auto& list) {
        list.erase(list.begin() + static_cast<std::ptrdiff_t>(begin),
                   list.begin() + static_cast<std::ptrdiff_t>(behind));
    };
    if (begin >= behind)
        return;
    erase(m_leaves);
    erase(m_firsts);
    erase(m_gaps);
}

void block_ranges::insert_leaf(std::size_t index, leaf ranges) noexcept {
    m_leaves.insert(m_leaves.begin() + static_cast<std::ptrdiff_t>(index), std::move(ranges));
    m_firsts.insert(m_firsts.begin() + static_cast<std::ptrdiff_t>(index), 0);
    m_gaps.insert(m_gaps.begin() + static_cast<std::ptrdiff_t>(index), 0);
}

uint64 block_ranges::gap_before(std::size_t index, std::size_t range) const noexcept {
    const uint64 first = m_leaves[index][range].first;
    if (range != 0)
        return first - m_leaves[index][range - 1].last - 1;
    return index != 0 ? first - m_leaves[index - 1].back().last - 1 : first;
}

void block_ranges::refresh(std::size_t index) noexcept {
    const leaf& ranges = m_leaves[index];
    uint64 most = gap_before(index, 0);
    for (std::size_t i = 1; i < ranges.size(); ++i)
        most = std::max(most, ranges[i].first - ranges[i - 1].last - 1);
    m_firsts[index] = ranges.front().first;
    const uint64 before = std::exchange(m_gaps[index], most);
    const std::size_t block = index / block_size;
    if (block >= m_block_gaps.size())
        return; // refresh_blocks() follows
    if (most >= m_block_gaps[block]) {
        m_block_gaps[block] = most;
    } else if (before == m_block_gaps[block]) {
        const auto begin = m_gaps.begin() + static_cast<std::ptrdiff_t>(block * block_size);
        m_block_gaps[block] =
            *std::max_element(begin, begin + std::min<std::ptrdiff_t>(block_size, m_gaps.end() - begin));
    }
}

void block_ranges::refresh_blocks(std::size_t from) noexcept {
    m_block_gaps.resize((m_gaps.size() + block_size - 1) / block_size);
    for (std::size_t block = from; block < m_block_gaps.size(); ++block) {
        const auto begin = m_gaps.begin() + static_cast<std::ptrdiff_t>(block * block_size);
        m_block_gaps[block] =
            *std::max_element(begin, begin + std::min<std::ptrdiff_t>(block_size, m_gaps.end() - begin));
    }
}

} // namespace qor::container
