#include "symbols.h"

#include "heap/profile/profile.h"
#include "readers.h"

#include <algorithm>

namespace qor::heap {

symbols::symbols(symbol_options options) : m_options(std::move(options)) {}

std::string_view symbols::keep(std::string_view text) {
    if (text.empty())
        return {};
    if (const auto known = m_known.find(text); known != m_known.end())
        return *known;
    return *m_known.insert(m_texts.emplace_back(text)).first;
}

std::vector<std::vector<std::vector<source_place>>> symbols::resolve(const std::vector<addresses>& modules,
                                                                     bool is_return, const progress& tell) {
    std::vector<std::vector<std::vector<source_place>>> result(modules.size());
    m_modules.assign(modules.size(), {});
    std::vector<module_request> requests;
    std::vector<std::size_t> module_of; // of each request
    for (std::size_t i = 0; i < modules.size(); ++i) {
        result[i].resize(modules[i].of.size());
        if (modules[i].of.empty())
            continue;
        module_request& request = requests.emplace_back();
        request.path = modules[i].path;
        request.build_id = modules[i].build_id;
        request.recorded_ns = modules[i].recorded_ns;
        request.addresses = modules[i].of;
        for (uint64& address : request.addresses)
            address -= is_return;
        std::sort(request.addresses.begin(), request.addresses.end());
        request.addresses.erase(std::unique(request.addresses.begin(), request.addresses.end()),
                                request.addresses.end());
        module_of.push_back(i);
    }
    read_all_symbols(requests, m_options, tell, [&](std::size_t number, module_answer&& answer) {
        const std::size_t module = module_of[number];
        m_modules[module] = std::move(answer.about);
        std::vector<std::string_view> texts;
        texts.reserve(answer.texts.size());
        for (const std::string& text : answer.texts)
            texts.push_back(keep(text));
        const std::vector<uint64>& known = requests[number].addresses;
        for (std::size_t i = 0; i < modules[module].of.size(); ++i) {
            const uint64 address = modules[module].of[i] - is_return;
            const auto at = std::lower_bound(known.begin(), known.end(), address) - known.begin();
            for (const numbered_place& place : answer.places[static_cast<std::size_t>(at)])
                result[module][i].push_back({texts[place.function], texts[place.file], place.line});
        }
    });
    return result;
}

std::vector<std::vector<source_place>> symbols::resolve(const profile& of, const progress& tell) {
    // A file that is newer than the last of the processes is not the one that they ran.
    uint64 recorded_ns = 0;
    for (const profile::process& process : of.processes)
        recorded_ns = std::max(recorded_ns, process.start_ns);
    std::vector<addresses> modules;
    modules.reserve(of.modules.size());
    for (const profile::module& module : of.modules)
        modules.push_back({module.path, module.build_id, {}, recorded_ns});
    for (const profile::frame& frame : of.frames)
        if (frame.module != 0)
            modules[frame.module].of.push_back(frame.address);
    auto found = resolve(modules, true, tell);
    std::vector<std::vector<source_place>> result(of.frames.size());
    std::vector<std::size_t> next(modules.size());
    for (std::size_t i = 0; i < of.frames.size(); ++i)
        if (const uint32 module = of.frames[i].module; module != 0)
            result[i] = std::move(found[module][next[module]++]);
    return result;
}

} // namespace qor::heap
