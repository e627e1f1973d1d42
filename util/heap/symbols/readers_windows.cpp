#include "reader.h"
#include "readers.h"

#include <new>

namespace qor::heap {

// In this process: the reader works on bytes in memory, each of them checked, and within limits of memory and time.
void read_all_symbols(const std::vector<module_request>& modules, const symbol_options& options,
                      const symbols::progress& tell, const std::function<void(std::size_t, module_answer&&)>& done) {
    const uint32 all = static_cast<uint32>(modules.size());
    bool is_ended = false;
    const fetching go_on = [&](std::string_view, uint64, uint64) {
        is_ended = is_ended || (tell && !tell(nullptr));
        return !is_ended;
    };
    for (uint32 i = 0; i < all; ++i) {
        module_answer answer;
        try {
            if (go_on({}, 0, 0))
                answer = read_symbols(modules[i], options, go_on);
        } catch (const std::bad_alloc&) {
            answer = {};
            answer.about.status = symbol_status::damaged;
        }
        if (is_ended)
            answer.about.status = symbol_status::interrupted;
        answer.places.resize(modules[i].addresses.size());
        done(i, std::move(answer));
        if (tell && !is_ended) {
            const symbol_progress progress{symbol_progress::what::module_done, i + 1, all, modules[i].path, {}};
            is_ended = !tell(&progress);
        }
    }
}

} // namespace qor::heap
