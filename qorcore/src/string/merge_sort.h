// Inside the library: a stable sort that tolerates any comparison function.
#pragma once

#include <algorithm>
#include <cstddef>

namespace qor::string {

// Sorts `count` elements; `spare` has room for as many. `before(a, b)` is true if a belongs before b. If the comparison
// is inconsistent, the elements end up in some order, but no access leaves the arrays. The sorts of the C++ library do
// not guarantee that, and the comparison may come from a client.
template <class TYPE, class BEFORE>
void merge_sort(TYPE* elements, TYPE* spare, std::size_t count, const BEFORE& before) {
    TYPE* from = elements;
    TYPE* to = spare;
    for (std::size_t width = 1; width < count; width *= 2) {
        for (std::size_t begin = 0; begin < count; begin += 2 * width) {
            const std::size_t middle = std::min(begin + width, count);
            const std::size_t end = std::min(middle + width, count);
            std::size_t left = begin;
            std::size_t right = middle;
            for (std::size_t at = begin; at < end; ++at) {
                // If two elements are equal, take the left one first, which keeps the sort stable.
                const bool take_right = left == middle || (right < end && before(from[right], from[left]));
                to[at] = from[take_right ? right++ : left++];
            }
        }
        std::swap(from, to);
    }
    if (from != elements)
        std::copy(from, from + count, elements);
}

} // namespace qor::string
