// A sequence that grows in pieces which never move, so that growth neither copies nor needs twice the memory.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace qor::heap {

template <class ITEM>
class piecewise {
public:
    std::size_t size() const noexcept { return m_size; }

    ITEM& operator[](std::size_t at) noexcept { return m_pieces[at / piece][at % piece]; }
    const ITEM& operator[](std::size_t at) const noexcept { return m_pieces[at / piece][at % piece]; }

    void push_back(const ITEM& item) {
        if (m_size == m_pieces.size() * piece)
            m_pieces.emplace_back(new ITEM[piece]);
        (*this)[m_size] = item;
        ++m_size;
    }

    // Adds items that are made without arguments.
    void grow(std::size_t size) {
        while (m_size < size)
            push_back(ITEM());
    }

private:
    static constexpr std::size_t piece = std::size_t{1} << 12;

    std::vector<std::unique_ptr<ITEM[]>> m_pieces;
    std::size_t m_size = 0;
};

} // namespace qor::heap
