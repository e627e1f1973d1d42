// The shipped texts: every number exists, and every language is complete.
#include "catalog/catalog_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

using numbers = std::vector<uint32>;

// The message numbers of the tool. They are a contract: programs and translations rely on them.
const numbers tool_numbers = {1,  2,  3,  5,  6,  7,  8,  9,  10, 11, 12,  13,  14,  15,  16,  17, 18, 19, 20,
                              21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31,  32,  33,  34,  35,  36, 37, 44, 45,
                              46, 47, 48, 49, 50, 51, 52, 53, 54, 55, 56,  57,  58,  59,  60,  63, 64, 65, 66,
                              67, 68, 69, 70, 71, 72, 73, 78, 79, 80, 81,  82,  83,  84,  85,  86, 87, 88, 89,
                              90, 91, 92, 93, 94, 95, 96, 97, 98, 99, 100, 101, 102, 103, 104, 105};

struct pair {
    uint32 syntax;
    uint32 description;
};

// Help on options and actions, in both catalogs.
const pair tool_help[] = {{2, 3},   {56, 57}, {12, 13}, {23, 24}, {25, 26}, {54, 55}, {27, 28},
                          {29, 30}, {59, 60}, {44, 45}, {51, 52}, {31, 32}, {34, 35}, {78, 79},
                          {83, 84}, {80, 81}, {85, 86}, {87, 88}, {8, 9}};
const pair framework_help[] = {{1001, 1002}, {1003, 1004}, {1005, 1006}, {1007, 1008},
                               {1065, 1066}, {1067, 1068}, {1155, 1156}};

struct expected_inserts {
    uint32 number;
    int count;
};

const expected_inserts tool_inserts[] = {{10, 1}, {11, 1}, {16, 1}, {17, 1}, {18, 1}, {19, 1},
                                         {20, 1}, {21, 1}, {22, 1}, {36, 2}, {37, 1}, {73, 1},
                                         {82, 1}, {92, 2}, {93, 2}, {98, 1}, {105, 1}};

constexpr std::size_t syntax_width = 34;

// The width in characters, as a terminal counts them.
std::size_t width(std::string_view text) {
    return static_cast<std::size_t>(std::ranges::count_if(text, [](char c) { return (c & 0xc0) != 0x80; }));
}

struct shipped_file {
    std::string catalog;
    std::string language;
    std::filesystem::path path;
};

std::vector<shipped_file> shipped_files() {
    std::vector<shipped_file> files;
    for (const auto& entry : std::filesystem::directory_iterator(QOR_MESSAGES_DIR)) {
        const std::filesystem::path& path = entry.path();
        if (path.extension() != ".msg") {
            // Otherwise it is a list from which English and the names are made.
            EXPECT_TRUE(path.extension() == ".def" || path.extension() == ".h") << path;
            continue;
        }
        files.push_back({path.stem().stem().string(), path.stem().extension().string().substr(1), path});
    }
    std::ranges::sort(files, {}, &shipped_file::path);
    return files;
}

std::span<const qor::catalog::message> english(std::string_view name) {
    for (const qor::catalog::built_in& each : qor::catalog::english())
        if (each.name == name)
            return each.messages;
    return {};
}

std::string text_of(std::string_view catalog, uint32 number, std::string_view language) {
    return std::string(qor::catalog::find_in(catalog, number, language));
}

// All languages: English and those that are shipped.
std::vector<std::string> languages() {
    std::vector<std::string> all = {"en"};
    for (const shipped_file& file : shipped_files())
        if (file.language != all.back())
            all.push_back(file.language);
    std::ranges::sort(all);
    all.erase(std::ranges::unique(all).begin(), all.end());
    return all;
}

} // namespace

TEST(messages, the_tool_has_exactly_its_numbers) {
    numbers present;
    for (const qor::catalog::message& each : english("qortool"))
        present.push_back(each.number);
    EXPECT_EQ(present, tool_numbers);
}

TEST(messages, the_tool_has_exactly_its_inserts) {
    for (const qor::catalog::message& each : english("qortool")) {
        const auto expected = std::ranges::find(tool_inserts, each.number, &expected_inserts::number);
        const int count = expected != std::end(tool_inserts) ? expected->count : 0;
        for (int insert = 1; insert <= 10; ++insert) {
            const std::string place = "{" + std::to_string(insert) + "}";
            EXPECT_EQ(each.text.find(place) != std::string_view::npos, insert <= count) << each.number;
        }
    }
}

// Both catalogs of each language, German and French among them.
TEST(messages, languages_are_shipped_whole) {
    std::vector<std::string> seen;
    for (const shipped_file& file : shipped_files())
        seen.push_back(file.catalog + "." + file.language);
    for (const std::string& language : languages()) {
        if (language == "en")
            continue;
        for (const qor::catalog::built_in& each : qor::catalog::english())
            EXPECT_EQ(std::ranges::count(seen, std::string(each.name) + "." + language), 1) << language;
    }
    EXPECT_EQ(std::ranges::count(seen, "qortool.de"), 1);
    EXPECT_EQ(std::ranges::count(seen, "qortool.fr"), 1);
}

TEST(messages, each_file_has_exactly_the_numbers_of_english_in_order) {
    for (const shipped_file& file : shipped_files()) {
        std::ifstream in(file.path);
        numbers present;
        for (std::string line; std::getline(in, line);) {
            uint32 number = 0;
            if (line.empty() || line[0] == '#')
                continue;
            EXPECT_EQ(std::from_chars(line.data(), line.data() + line.size(), number).ec, std::errc()) << line;
            present.push_back(number);
        }
        numbers wanted;
        for (const qor::catalog::message& each : english(file.catalog))
            wanted.push_back(each.number);
        EXPECT_FALSE(wanted.empty()) << file.path;
        EXPECT_EQ(present, wanted) << file.path;
    }
}

TEST(messages, no_text_of_a_file_falls_back) {
    for (const shipped_file& file : shipped_files()) {
        const auto messages = english(file.catalog);
        const qor::catalog::translation texts = qor::catalog::load_catalog(file.path.string(), messages);
        ASSERT_EQ(texts.size(), messages.size()) << file.path;
        for (std::size_t i = 0; i < texts.size(); ++i)
            EXPECT_NE(texts[i], "") << file.path << ' ' << messages[i].number;
    }
}

TEST(messages, help_fits_its_columns) {
    const auto check = [](const char* catalog, const pair& each, const std::string& language) {
        const std::string syntax = text_of(catalog, each.syntax, language);
        const std::string description = text_of(catalog, each.description, language);
        EXPECT_TRUE(width(syntax) >= 2 && width(syntax) <= syntax_width) << language << ' ' << syntax;
        EXPECT_TRUE(description.ends_with('.')) << language << ' ' << description;
        EXPECT_EQ((syntax + description).find('\n'), std::string::npos) << language << ' ' << syntax;
    };
    for (const std::string& language : languages()) {
        for (const pair& each : tool_help)
            check("qortool", each, language);
        for (const pair& each : framework_help)
            check("qorcore", each, language);
    }
}

// Words that the user types, those before the first argument, are the same in every language.
TEST(messages, help_names_the_same_words_in_every_language) {
    const auto typed = [](const std::string& syntax) { return syntax.substr(0, syntax.find_first_of(" =")); };
    for (const std::string& language : languages()) {
        for (const pair& each : tool_help)
            EXPECT_EQ(typed(text_of("qortool", each.syntax, language)), typed(text_of("qortool", each.syntax, "en")));
        for (const pair& each : framework_help)
            EXPECT_EQ(typed(text_of("qorcore", each.syntax, language)), typed(text_of("qorcore", each.syntax, "en")));
    }
}

TEST(messages, labels_and_commands_stand_in_columns) {
    for (const std::string& language : languages()) {
        const auto value_column = [&](uint32 number) {
            const std::string text = text_of("qortool", number, language);
            return width(std::string_view(text).substr(0, text.find("{1}")));
        };
        for (const uint32 number : {17, 18, 19, 20, 22, 82})
            EXPECT_EQ(value_column(number), value_column(16)) << language << ' ' << number;

        const auto text_column = [&](uint32 number) {
            const std::string text = text_of("qortool", number, language);
            const std::size_t gap = text.find("  ");
            return width(std::string_view(text).substr(0, text.find_first_not_of(' ', gap)));
        };
        for (const uint32 number : {50, 66, 67, 68, 69})
            EXPECT_EQ(text_column(number), text_column(49)) << language << ' ' << number;
    }
}
