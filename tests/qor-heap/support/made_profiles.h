// Profiles that are made by hand, with the names of their frames.
#pragma once

#include "qor-heap/export/named_profile.h"

#include <deque>
#include <initializer_list>
#include <string>
#include <string_view>

namespace qor::test {

class made_profile {
public:
    using symbol = heap::source_place;
    using counts = heap::profile::counts;

    uint32 module(const std::string& path, const std::string& build_id, uint64 base, uint64 size);
    uint32 frame(uint32 module, uint64 address, std::initializer_list<symbol> innermost_first = {});
    uint32 node(uint32 parent, uint32 frame);
    uint32 text(const std::string& text);
    heap::profile::place& place(uint32 node, counts live, counts at_peak, counts allocated, counts temporary);

    // A text that lives as long as this object.
    std::string_view keep(std::string text) { return m_kept.emplace_back(std::move(text)); }

    // Sets the totals to the sums of the places.
    void sum_up();

    heap::profile profile;
    heap_tool::named_profile::symbol_names symbols{1};

private:
    std::deque<std::string> m_kept;
};

// A small program with one of everything; page_test.py and export_test.py know its numbers.
void make_shop(made_profile& into);

// An earlier run of it: less of one place, another one less, and one that is gone.
void make_earlier_shop(made_profile& into);

// `places` distinct places, 16 functions deep.
void make_large(made_profile& into, uint32 places, uint32 growth);

// Long names that do not compress.
void make_random_names(made_profile& into, uint32 places);

// Places whose innermost functions are those of the C++ library.
void make_library_code(made_profile& into);

// Names that are meant to do harm where they are shown.
void make_hostile(made_profile& into);

} // namespace qor::test
