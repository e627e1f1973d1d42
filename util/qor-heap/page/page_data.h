// The data of a page: what its script draws from.
//
//     "QHP1"  the length of the head  the head, JSON  columns
//
// All numbers outside of the head are unsigned LEB128. A column is a number for each entry, its own for each field, so
// that like stands beside like and compresses well. The head has the number of entries; entry 0 of functions, frames
// and nodes is the absent one, and number 0 of its `texts` the empty text.
//
//     functions   name, module, file: texts; marks: 1, code of the language's own library. Functions of the same name
//     in
//                 different modules or files are different
//     frames      function, line
//     nodes       own number minus that of the parent, which is smaller; frame. Node 0 is the empty stack
//     places      node, type: a text, marks: 1, it grows
//     counts      for each run, and each of live, peak, allocated, temporary: bytes, blocks; by place
//     moments     for each run: nanoseconds or records, minus those of the moment before; bytes; blocks
#pragma once

#include "qor-heap/export/json_writer.h"
#include "qor-heap/export/named_profile.h"

#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace qor::heap_tool {

class page_data {
public:
    // `earlier`: null, or a run to compare with. In a comparison, lines do not tell places apart, because they move
    // when the program changes.
    page_data(const named_profile& now, const named_profile* earlier);

    std::size_t size() const noexcept { return m_all.places.size(); }

    // The data of at most `most` places. The smaller ones are summed up in one more place, whose name others(count)
    // gives. The head has what `more` writes in it.
    std::string pack(std::size_t most, const std::function<std::string(std::size_t)>& others,
                     const std::function<void(json_writer&)>& more) const;

private:
    static constexpr std::size_t most_runs = 2;
    static constexpr std::size_t longest_text = 1000; // bytes

    struct function_entry {
        uint32 name = 0, module = 0, file = 0;
        bool is_library_code = false;
        auto operator<=>(const function_entry&) const = default;
    };
    struct frame_entry {
        uint32 function = 0, line = 0;
    };
    struct node_entry {
        uint32 parent = 0, frame = 0;
    };
    struct place_entry {
        uint32 node = 0, type = 0;
        bool is_growing = false;
        heap::profile::counts counts[most_runs][std::size(measures)];
    };

    // Numbers of pairs of numbers.
    using pairs = std::unordered_map<uint64, uint32>;
    static uint64 pair(uint32 first, uint32 second) noexcept { return uint64{first} << 32 | second; }

    // What the page gets. Entry 0 of texts, functions, frames and nodes is the absent one.
    struct tables {
        std::vector<std::string> texts;
        std::vector<function_entry> functions{1};
        std::vector<frame_entry> frames{1};
        std::vector<node_entry> nodes{1};
        std::vector<place_entry> places;
    };

    void add_run(const named_profile& run, std::size_t number);
    uint32 text_of(const std::string& text);
    uint32 frame_of(const named_profile& run, const named_profile::function& one);
    uint32 child_of(uint32 parent, uint32 frame);

    std::vector<uint32> largest(std::size_t most) const;
    tables selected(std::size_t most, const std::function<std::string(std::size_t)>& others) const;
    static tables compacted(const tables& all);
    void append_head(std::string& data, const tables& of, const std::function<void(json_writer&)>& more) const;
    void append_columns(std::string& data, const tables& of) const;

    bool m_is_comparison;
    std::vector<const named_profile*> m_runs;
    tables m_all;
    std::unordered_map<std::string, uint32> m_text_numbers;
    std::map<function_entry, uint32> m_function_numbers;
    pairs m_frame_numbers;
    pairs m_node_numbers;
    pairs m_place_numbers;
};

} // namespace qor::heap_tool
