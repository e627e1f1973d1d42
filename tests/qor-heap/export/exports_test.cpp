#include "qor-heap/export/exports.h"
#include "qor-heap/export/json_writer.h"
#include "qor-heap/export/protobuf.h"
#include "qor-heap/export/safe_text.h"
#include "qor-heap/support/made_profiles.h"

#include <gtest/gtest.h>

using namespace qor::heap_tool;
using qor::test::made_profile;

namespace {

std::string folded(const made_profile& made, measure what, bool is_anonymous = false) {
    string_sink out;
    export_folded(named_profile(made.profile, made.symbols, is_anonymous), what, out);
    return out.text;
}

std::string csv(const made_profile& made) {
    string_sink out;
    export_csv(named_profile(made.profile, made.symbols, false), out);
    return out.text;
}

} // namespace

TEST(safe_text, leaves_text_alone) {
    for (const char* text :
         {"", "main", "std::vector<int>", "gr\xc3\xbc\xc3\x9f", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "~ <>&\"'"})
        EXPECT_EQ(safe_text(text), text);
}

TEST(safe_text, replaces_what_controls_a_terminal) {
    const std::string bad = "\xef\xbf\xbd";
    EXPECT_EQ(safe_text("a\x1b[2Jb\n\r\t\x7f"), "a" + bad + "[2Jb" + bad + bad + bad + bad);
    EXPECT_EQ(safe_text("\xc2\x9b"
                        "31m"),
              bad + "31m"); // the 8-bit form of ESC [
    EXPECT_EQ(safe_text("\xe2\x80\xae"
                        "fdp"),
              bad + "fdp"); // right to left
    EXPECT_EQ(safe_text("\xe2\x81\xa6\xe2\x80\xa8"), bad + bad);
    EXPECT_EQ(safe_text(std::string_view("a\0b", 3)), "a" + bad + "b");
}

TEST(safe_text, replaces_each_byte_of_no_character) {
    const std::string bad = "\xef\xbf\xbd";
    EXPECT_EQ(safe_text("\xff\xfe"), bad + bad);
    EXPECT_EQ(safe_text("\xc3"), bad);
    EXPECT_EQ(safe_text("\xe2\x82"), bad + bad);
    EXPECT_EQ(safe_text("\xc0\xaf"), bad + bad); // too long
    EXPECT_EQ(safe_text("\xe0\x80\xaf"), bad + bad + bad);
    EXPECT_EQ(safe_text("\xed\xa0\x80"), bad + bad + bad);           // half of a pair
    EXPECT_EQ(safe_text("\xf4\x90\x80\x80"), bad + bad + bad + bad); // beyond the last
    EXPECT_EQ(safe_text("\xf5\x80\x80\x80"), bad + bad + bad + bad);
}

TEST(shortened, cuts_between_characters) {
    EXPECT_EQ(shortened("abcdef", 6), "abcdef");
    EXPECT_EQ(shortened("abcdefg", 6), "abc\xe2\x80\xa6");
    EXPECT_EQ(shortened("ab\xe2\x82\xac\xe2\x82\xac", 7), "ab\xe2\x80\xa6");
    EXPECT_EQ(shortened("ab\xe2\x82\xac\xe2\x82\xac", 8), "ab\xe2\x82\xac\xe2\x82\xac");
    EXPECT_EQ(shortened("\xe2\x82\xac\xe2\x82\xac", 1), "\xe2\x80\xa6");
}

TEST(file_name, is_the_last_part) {
    EXPECT_EQ(file_name("/usr/lib/libc.so.6"), "libc.so.6");
    EXPECT_EQ(file_name("C:\\Users\\Ann\\app.exe:[0x12]"), "app.exe:[0x12]");
    EXPECT_EQ(file_name("main.c"), "main.c");
    EXPECT_EQ(file_name("folder/"), "");
}

TEST(json_writer, separates_and_quotes) {
    json_writer json;
    json.begin('{').key("a\"b").text("\\ \x01").key("list").begin('[').number(1).begin('{').end('}').flag(true).end(
        ']');
    json.key("most").number(18446744073709551615U).end('}');
    EXPECT_EQ(json.take(), R"({"a\"b":"\\ \u0001","list":[1,{},true],"most":18446744073709551615})");
}

TEST(protobuf, is_that_of_the_encodings_documentation) {
    EXPECT_EQ(protobuf().number(1, 150).data(), "\x08\x96\x01");
    EXPECT_EQ(protobuf().bytes(2, "testing").data(), "\x12\x07testing");
    EXPECT_EQ(protobuf().message(3, protobuf().number(1, 150)).data(), "\x1a\x03\x08\x96\x01");
    const uint64 values[] = {3, 270, 86942};
    EXPECT_EQ(protobuf().packed(6, values).data(), "\x32\x06\x03\x8e\x02\x9e\xa7\x05");
    EXPECT_EQ(protobuf().number(1, 18446744073709551615U).data(), "\x08\xff\xff\xff\xff\xff\xff\xff\xff\xff\x01");
    EXPECT_EQ(protobuf().number(1, 0).packed(2, {}).data(), "");
}

TEST(named_profile, names_frames_without_symbols_after_module_and_address) {
    made_profile made;
    const uint32 module = made.module("/usr/lib/libx.so", "", 0x1000, 0x1000);
    const uint32 unknown = made.frame(module, 0x12ab), outside = made.frame(0, 0xffff);
    const uint32 half = made.frame(module, 0x20, {{"", "/src/x.c", 4}, {"outer", "", 0}});
    const named_profile named(made.profile, made.symbols, false);
    const auto name = [&](uint32 frame, std::size_t i) { return named.text(named.functions(frame)[i].name); };
    EXPECT_EQ(name(unknown, 0), "libx.so+0x12ab");
    EXPECT_EQ(name(outside, 0), "0xffff");
    EXPECT_EQ(name(half, 0), "libx.so+0x20");
    EXPECT_EQ(name(half, 1), "outer");
    EXPECT_TRUE(named.is_nameless(unknown));
    EXPECT_FALSE(named.is_nameless(half));
}

TEST(named_profile, uses_the_line_that_the_program_gave_where_there_is_no_other) {
    made_profile made;
    const uint32 module = made.module("/app", "", 0, 0x1000);
    const uint32 bare = made.node(0, made.frame(module, 1, {{"bare", "", 0}}));
    const uint32 full = made.node(0, made.frame(module, 2, {{"full", "/src/full.c", 9}}));
    for (const uint32 node : {bare, full, 0U}) {
        qor::heap::profile::place& place = made.place(node, {1, 1}, {}, {}, {});
        place.file = made.text("given.cpp");
        place.line = 41;
    }
    const named_profile named(made.profile, made.symbols, false);
    const auto line = [&](std::size_t place) {
        const auto inner = named.stack(made.profile.places[place]).front();
        return named.text(inner.name) + ' ' + named.text(inner.file) + ' ' + std::to_string(inner.line);
    };
    EXPECT_EQ(line(0), "bare given.cpp 41");
    EXPECT_EQ(line(1), "full /src/full.c 9");
    EXPECT_EQ(line(2), "given.cpp given.cpp 41");
}

TEST(named_profile, leaves_folders_out_on_request) {
    made_profile made;
    qor::test::make_shop(made);
    const named_profile named(made.profile, made.symbols, true);
    EXPECT_EQ(named.text(named.module_path(1)), "shop");
    EXPECT_EQ(named.text(named.functions(1)[0].file), "main.cpp");
    EXPECT_EQ(named.text(named.caller(made.profile.places.back())), "shop:[0x4242]");
    EXPECT_EQ(named.program(0), "shop");
    EXPECT_EQ(named.log(0), "");
}

TEST(folded, has_a_line_for_each_stack_with_anything) {
    made_profile made;
    qor::test::make_shop(made);
    EXPECT_EQ(folded(made, measure::live), "main;serve(request const&);parse(char const*);copy_text 1000\n"
                                           "main;serve(request const&);store_put 6000\n"
                                           "main;serve(request const&);store_put;libstore.so+0x900 3000\n"
                                           "/opt/shop/bin/shop:[0x4242] 24\n");
    EXPECT_EQ(folded(made, measure::temporary), "main;serve(request const&);parse(char const*);copy_text 500\n"
                                                "main;serve(request const&);store_put;libstore.so+0x900 5000\n"
                                                "main;0x7f00 100\n");
    EXPECT_NE(folded(made, measure::at_peak).find("store_put 8000\n"), std::string::npos) << "two types of one stack";
    EXPECT_EQ(folded(made, measure::live, true).find('/'), std::string::npos);
}

TEST(folded, has_one_line_for_each_name_whatever_it_is) {
    made_profile made;
    qor::test::make_hostile(made);
    const std::string text = folded(made, measure::live);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), std::ptrdiff_t(made.profile.places.size()));
    EXPECT_EQ(text.find(';'), std::string::npos);
    EXPECT_NE(text.find("\none:two 99\xef\xbf\xbdthree 1000 "), std::string::npos);
}

TEST(csv, quotes_texts_and_leaves_unknown_lines_empty) {
    made_profile made;
    qor::test::make_shop(made);
    const std::string text = csv(made);
    EXPECT_NE(
        text.find("\r\n\"copy_text\",\"/src/shop/text.cpp\",5,\"/opt/shop/bin/"
                  "shop\",\"01abcdef\",\"0x1200\",\"\",\"\",0,\"\","
                  "\"main;serve(request const&);parse(char const*);copy_text\",1000,10,4000,40,9000,90,500,5\r\n"),
        std::string::npos)
        << text;
    EXPECT_NE(text.find("\r\n\"0x7f00\",\"\",,\"\",\"\",\"0x7f00\","), std::string::npos);
}

TEST(csv, has_no_cell_that_is_a_formula) {
    made_profile made;
    qor::test::make_hostile(made);
    const std::string text = csv(made);
    for (const char* cell : {"\"'=cmd", "\"'+1", "\"'-[Text", "\"'@SUM",
                             "\"'\xef\xbc\x9d"
                             "1"})
        EXPECT_NE(text.find(cell), std::string::npos) << cell;
    for (const char* cell : {"\"=", "\"+", "\"-", "\"@", "\"\t", "\"\r", "\"\xef\xbc\x9d"})
        EXPECT_EQ(text.find(std::string(",") + cell), std::string::npos) << cell;
}
