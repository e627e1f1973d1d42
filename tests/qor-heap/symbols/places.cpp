// places [OPTION=VALUE...]: reads questions from standard input and prints what class symbols answers.
//
//     M<tab>PATH<tab>BUILD_ID<tab>RECORDED     the next module: hexadecimal, nanoseconds; both may be empty
//     A<tab>ADDRESS                            an address in it, hexadecimal
//
// The answer has a line for each module and each address, in this order, and one for each place of an address:
//
//     m<tab>STATUS<tab>UNVERIFIED<tab>FILE<tab>SERVER<tab>REASON
//     a<tab>ADDRESS
//     p<tab>FUNCTION<tab>FILE<tab>LINE
//
// Standard error has the time of the search, and "fetching SERVERS" for each file that is fetched.
#include "heap/symbols/symbols.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

namespace {

using namespace qor::heap;

const char* const statuses[] = {
    "not_asked", "ok",        "no_debug_information", "no_file", "changed", "refused", "damaged",
    "too_slow",  "no_reader", "interrupted"};

std::string bytes_of(const std::string& digits) {
    std::string result;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        result += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return result;
}

std::string field(std::istringstream& line) {
    std::string result;
    std::getline(line, result, '\t');
    return result;
}

std::string printable(std::string_view text) {
    std::string result(text);
    for (char& c : result)
        if (static_cast<unsigned char>(c) < ' ')
            c = '?';
    return result;
}

} // namespace

int main(int count, char** words) {
    symbol_options options;
    bool is_return = false;
    int ends_after = -1;
    for (int i = 1; i < count; ++i) {
        const std::string word = words[i];
        const std::string name = word.substr(0, word.find('=') + 1);
        const std::string value = word.substr(name.size());
        if (name == "debug=")
            options.debug_folders = {value};
        else if (name == "fetch=")
            options.may_fetch = value != "0";
        else if (name == "processes=")
            options.processes = static_cast<uint32>(std::stoul(value));
        else if (name == "file-time=")
            options.file_time = std::chrono::seconds(std::stoul(value));
        else if (name == "fetch-time=")
            options.fetch_time = std::chrono::seconds(std::stoul(value));
        else if (name == "memory=")
            options.memory = std::stoull(value);
        else if (name == "return=")
            is_return = value != "0";
        else if (name == "ends-after=")
            ends_after = std::stoi(value);
        else
            return 2;
    }
    std::vector<symbols::addresses> modules;
    for (std::string text; std::getline(std::cin, text);) {
        std::istringstream line(text);
        if (field(line) == "M") {
            symbols::addresses& next = modules.emplace_back();
            next.path = field(line);
            next.build_id = bytes_of(field(line));
            const std::string recorded = field(line);
            next.recorded_ns = recorded.empty() ? 0 : std::stoull(recorded);
        } else if (!modules.empty()) {
            modules.back().of.push_back(std::stoull(field(line), nullptr, 16));
        }
    }
    symbols search(options);
    const auto begin = std::chrono::steady_clock::now();
    const auto places = search.resolve(modules, is_return, [&](const symbol_progress* progress) {
        if (progress != nullptr && progress->kind == symbol_progress::what::fetching && progress->all == 0 &&
            progress->done == 0)
            std::fprintf(stderr, "fetching %.*s\n", static_cast<int>(progress->servers.size()),
                         progress->servers.data());
        return progress == nullptr || ends_after < 0 || static_cast<int>(progress->modules) < ends_after;
    });
    std::fprintf(stderr, "%.6f s\n", std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    for (std::size_t module = 0; module < modules.size(); ++module) {
        const module_symbols& about = search.modules()[module];
        std::printf("m\t%s\t%d\t%s\t%s\t%s\n", statuses[static_cast<int>(about.status)], about.is_unverified,
                    about.file.c_str(), about.server.c_str(), about.reason.c_str());
        for (std::size_t i = 0; i < modules[module].of.size(); ++i) {
            std::printf("a\t%llx\n", static_cast<unsigned long long>(modules[module].of[i]));
            for (const source_place& place : places[module][i])
                std::printf("p\t%s\t%s\t%u\n", printable(place.function).c_str(), printable(place.file).c_str(),
                            place.line);
        }
    }
    return 0;
}
