// Adds up the profiles of several processes, or of several runs.
#pragma once

#include "heap/table/number_index.h"
#include "profile.h"
#include "stack_numbers.h"

#include <vector>

namespace qor::heap {

class profile_sum {
public:
    profile_sum() : m_numbers(m_sum) {}
    profile_sum(const profile_sum&) = delete;
    profile_sum& operator=(const profile_sum&) = delete;

    void add(const profile& one);

    // What was added. With several profiles the peak is the sum of their peaks, and the timeline is that of all, if all
    // have times; otherwise it is empty.
    profile take();

private:
    void add_places(const profile& one);
    void merge_timelines();

    profile m_sum;
    stack_numbers m_numbers;
    number_index m_places;
    std::vector<std::vector<profile::moment>> m_timelines; // of each, the times since 1970
    uint32 m_count = 0;
    bool m_have_times = true;
};

} // namespace qor::heap
