// qor_manual: writes the manual pages and the completions of all programs. It is a part of the build and not installed.
//
//     qor_manual VERSION SOURCES MESSAGES OUTPUT
//
// SOURCES is the folder of the hand-written parts, MESSAGES that of the catalogs, whose languages completions offer.
// OUTPUT gets man1, man5, bash, zsh and fish.
#include "completions.h"
#include "page.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;
using namespace qor::manual;

std::string read_file(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    if (!file)
        throw std::runtime_error(path.string() + " cannot be read");
    return text.str();
}

void write_file(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary);
    file << text;
    if (!file.flush())
        throw std::runtime_error(path.string() + " cannot be written");
}

// English, and each language of "qortool.LANGUAGE.msg".
std::vector<std::string> read_languages(const fs::path& messages) {
    std::set<std::string> found = {"en"};
    for (const auto& each : fs::directory_iterator(messages)) {
        const fs::path name = each.path().filename();
        if (name.extension() == ".msg" && name.stem().stem() == "qortool")
            found.insert(name.stem().extension().string().substr(1));
    }
    return {found.begin(), found.end()};
}

// "qortool.1.in" is the page qortool(1).
void write_page(const fs::path& from, const fs::path& to, const std::string& version,
                const std::vector<program>& programs) {
    const fs::path name = from.stem();
    const auto of = std::ranges::find(programs, name.stem().string(), &program::name);
    const bool is_of_program = name.extension() == ".1";
    if (is_of_program && of == programs.end())
        throw std::runtime_error(from.string() + ": there is no such program");
    try {
        write_file(to / ("man" + name.extension().string().substr(1)) / name,
                   fill_in(read_file(from), version, is_of_program ? &*of : nullptr));
    } catch (const std::runtime_error& fault) {
        throw std::runtime_error(from.string() + ": " + fault.what());
    }
}

void write_all(const std::string& version, const fs::path& sources, const fs::path& messages, const fs::path& to) {
    const fs::path pages = sources / "pages";
    const std::string bash = read_file(sources / "shells/bash.in");
    const std::string zsh = read_file(sources / "shells/zsh.in");
    const std::string fish = read_file(sources / "shells/fish.in");
    const std::vector<program> programs = read_tables(read_languages(messages));
    for (const program& each : programs) {
        if (!fs::exists(pages / (each.name + ".1.in")))
            throw std::runtime_error(each.name + " has no page in " + pages.string());
        write_file(to / "bash" / each.name, bash_completion(each, bash));
        write_file(to / "zsh" / ("_" + each.name), zsh_completion(each, zsh));
        write_file(to / "fish" / (each.name + ".fish"), fish_completion(each, fish));
    }
    for (const auto& each : fs::directory_iterator(pages))
        if (each.path().extension() == ".in")
            write_page(each.path(), to, version, programs);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "Usage: qor_manual VERSION SOURCES MESSAGES OUTPUT\n";
        return 2;
    }
    try {
        write_all(argv[1], argv[2], argv[3], argv[4]);
    } catch (const std::exception& fault) {
        std::cerr << "qor_manual: " << fault.what() << '\n';
        return 1;
    }
    return 0;
}
