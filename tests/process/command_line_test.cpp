#include "qor/qor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using words = std::vector<std::string>;

struct taken {
    std::string name;
    std::string value;
    bool operator==(const taken&) const = default;
};

struct result {
    std::vector<taken> options;
    words rest;
};

// Returns the options at the front, and the remaining words.
result take_options(const words& command_line) {
    qorStringArray args;
    for (const std::string& word : command_line)
        args.Append(word.c_str());
    result all;
    qorString name("before");
    qorString value("before");
    while (qorNextOption(args, name, value))
        all.options.push_back({name.Text(), value.Text()});
    for (uint32 i = 0; i < args.GetCount(); ++i)
        all.rest.emplace_back(args[i]);
    return all;
}

void expect(const words& command_line, const std::vector<taken>& options, const words& rest) {
    const result got = take_options(command_line);
    std::string what;
    for (const std::string& word : command_line)
        what += " [" + word + "]";
    EXPECT_TRUE(got.options == options) << what;
    EXPECT_EQ(got.rest, rest) << what;
}

} // namespace

TEST(command_line, nothing_holds_no_option) { expect({}, {}, {}); }

TEST(command_line, one_dash_or_two) {
    expect({"--quiet", "word"}, {{"quiet", ""}}, {"word"});
    expect({"-quiet", "word"}, {{"quiet", ""}}, {"word"});
    expect({"-q"}, {{"q", ""}}, {});
}

TEST(command_line, a_third_dash_belongs_to_the_name) { expect({"---x=-y"}, {{"-x", "-y"}}, {}); }

TEST(command_line, values) {
    expect({"--name=value"}, {{"name", "value"}}, {});
    expect({"-name=value"}, {{"name", "value"}}, {});
    expect({"--name="}, {{"name", ""}}, {});
    expect({"--name=a=b"}, {{"name", "a=b"}}, {});
    expect({"--name= "}, {{"name", " "}}, {});
    expect({"--name", "value"}, {{"name", ""}}, {"value"});
}

TEST(command_line, a_name_may_be_missing) {
    expect({"--=value"}, {{"", "value"}}, {});
    expect({"-=value"}, {{"", "value"}}, {});
}

TEST(command_line, the_first_other_word_ends_them) {
    expect({"--a", "word", "--b"}, {{"a", ""}}, {"word", "--b"});
    expect({"", "--b"}, {}, {"", "--b"});
    expect({" --a"}, {}, {" --a"});
    expect({"+a", "--b"}, {}, {"+a", "--b"});
}

TEST(command_line, a_lone_dash_is_a_word) { expect({"--a", "-", "--b"}, {{"a", ""}}, {"-", "--b"}); }

TEST(command_line, two_dashes_end_them_and_are_dropped_once) {
    expect({"--a", "--", "--b"}, {{"a", ""}}, {"--b"});
    expect({"--"}, {}, {});
    qorStringArray args;
    args.Append("--");
    args.Append("--");
    qorString name;
    qorString value;
    EXPECT_FALSE(qorNextOption(args, name, value));
    ASSERT_EQ(args.GetCount(), 1u);
    EXPECT_STREQ(args[0], "--");
}

TEST(command_line, a_later_option_without_value_does_not_keep_the_one_before) {
    expect({"--a=1", "--b"}, {{"a", "1"}, {"b", ""}}, {});
}

TEST(command_line, bytes_pass_through) {
    expect({"--\xff\xc3=\x80\n\t"}, {{"\xff\xc3", "\x80\n\t"}}, {});
    const std::string longest(100000, 'x');
    expect({"--" + longest + "=" + longest}, {{longest, longest}}, {});
}

TEST(command_line, name_and_value_are_untouched_where_there_is_none) {
    qorStringArray args;
    args.Append("word");
    qorString name("name");
    qorString value("value");
    EXPECT_FALSE(qorNextOption(args, name, value));
    EXPECT_STREQ(name, "name");
    EXPECT_STREQ(value, "value");
    EXPECT_EQ(args.GetCount(), 1u);
}
