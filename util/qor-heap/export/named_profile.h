// A profile with the names under which it is shown: the functions of each frame, and texts that are fit to be shown.
#pragma once

#include "heap/profile/profile.h"
#include "heap/symbols/symbols.h"

#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qor::heap_tool {

// What is summed up of a place.
enum class measure : uint8 { live, at_peak, allocated, temporary };
inline constexpr measure measures[] = {measure::live, measure::at_peak, measure::allocated, measure::temporary};

const heap::profile::counts& counts_of(const heap::profile::place& place, measure what) noexcept;

class named_profile {
public:
    using symbol_names = std::vector<std::vector<heap::source_place>>;

    // A function in a stack. The numbers are for text().
    struct function {
        uint32 name = 0;
        uint32 file = 0;              // the path of its source; 0: unknown
        uint32 line = 0;              // of the call or the allocation in it; 0: unknown
        uint32 module = 0;            // the path of its module; 0: unknown
        bool is_library_code = false; // of the language's own library, such as an allocator that a vector uses

        bool operator==(const function&) const = default;
    };

    // `symbols` are those of the frames of `of`, which has to outlive this object; `symbols` need not.
    // is_anonymous: paths are cut to their last part, because folders may name people, and the log is not named.
    named_profile(const heap::profile& of, const symbol_names& symbols, bool is_anonymous);

    const heap::profile& profile() const noexcept { return m_profile; }
    bool is_anonymous() const noexcept { return m_is_anonymous; }

    const std::string& text(uint32 number) const { return m_texts[number]; }

    // The functions of a frame, the innermost first: one at least. A function without a name is called after its module
    // and address.
    std::span<const function> functions(uint32 frame) const {
        return {m_functions.data() + m_first[frame], m_functions.data() + m_first[frame + 1]};
    }

    // Whether symbols name no function of the frame.
    bool is_nameless(uint32 frame) const { return m_is_nameless[frame]; }

    // The functions of a place, the innermost first; none if nothing is known. The file and the line that the program
    // itself gave for an allocation stand in for those that debug information lacks.
    // `frames`: so many of them at most.
    static constexpr std::size_t all_frames = ~std::size_t{0};
    std::vector<function> stack(const heap::profile::place& place, std::size_t frames = all_frames) const;

    uint32 module_path(uint32 module) const { return m_modules[module]; }
    std::string build_id(uint32 module) const; // hexadecimal
    // The numbers here of the profile's own texts.
    uint32 text_number(uint32 own) const { return m_own_texts[own]; }
    uint32 caller(const heap::profile::place& place) const { return m_own_texts[place.caller]; }
    uint32 type_name(const heap::profile::place& place) const { return m_own_texts[place.type_name]; }
    uint32 file(const heap::profile::place& place) const { return m_own_texts[place.file]; }

    // Of the processes: `program` without a folder if the profile is anonymous, `log` empty.
    std::string program(std::size_t process) const;
    std::string log(std::size_t process) const;

private:
    uint32 add(std::string_view text, bool is_path);
    std::string nameless(const heap::profile::frame& frame, uint32 module) const;
    void add_frame(const heap::profile::frame& frame, std::span<const heap::source_place> places);

    const heap::profile& m_profile;
    bool m_is_anonymous;
    std::deque<std::string> m_texts;
    std::unordered_map<std::string_view, uint32> m_numbers; // of m_texts
    std::unordered_map<std::string_view, uint32> m_raw[2];  // of texts as they came: names, paths; only while building
    std::vector<function> m_functions;
    std::vector<std::size_t> m_first; // by frame, into m_functions
    std::vector<bool> m_is_nameless;  // by frame
    std::vector<uint32> m_modules;
    std::vector<uint32> m_own_texts; // of the profile's texts
};

} // namespace qor::heap_tool
