#include "heap/symbols/module_answer.h"

#include <gtest/gtest.h>

namespace {

using namespace qor::heap;

module_answer example() {
    module_answer result;
    result.clear(3);
    result.about = {symbol_status::ok, true, "/usr/lib/a.so", "http://127.0.0.1", std::string("a\0b", 3)};
    const uint32 function = result.number_of("f(int)"), file = result.number_of("a.cpp");
    result.places[1] = {{function, file, 7}, {0, file, 0xffffffff}, {function, 0, 0}};
    return result;
}

TEST(module_answer, keeps_each_text_once) {
    module_answer answer;
    EXPECT_EQ(answer.number_of(""), 0u);
    EXPECT_EQ(answer.number_of("f"), 1u);
    EXPECT_EQ(answer.number_of("g"), 2u);
    EXPECT_EQ(answer.number_of("f"), 1u);
    EXPECT_EQ(answer.texts[answer.number_of(std::string(100'000, 'x'))].size(), module_answer::most_text);
}

TEST(module_answer, travels) {
    const module_answer answer = example();
    module_answer other;
    ASSERT_TRUE(decode(encoded(answer), 3, other));
    EXPECT_EQ(other.about.status, answer.about.status);
    EXPECT_EQ(other.about.is_unverified, answer.about.is_unverified);
    EXPECT_EQ(other.about.file, answer.about.file);
    EXPECT_EQ(other.about.server, answer.about.server);
    EXPECT_EQ(other.about.reason, answer.about.reason);
    EXPECT_EQ(other.texts, answer.texts);
    EXPECT_EQ(encoded(other), encoded(answer));
}

TEST(module_answer, is_refused_with_other_bytes) {
    const std::string bytes = encoded(example());
    module_answer other;
    EXPECT_FALSE(decode(bytes, 2, other));
    EXPECT_FALSE(decode(bytes, 4, other));
    EXPECT_FALSE(decode(bytes + "x", 3, other));
    for (std::size_t size = 0; size < bytes.size(); ++size)
        EXPECT_FALSE(decode(bytes.substr(0, size), 3, other)) << size;
    // With other bytes it may be another answer, but no text is missing.
    for (std::size_t i = 0; i < bytes.size(); ++i)
        for (const int bit : {0, 5, 7}) {
            std::string changed = bytes;
            changed[i] = static_cast<char>(changed[i] ^ 1 << bit);
            if (!decode(changed, 3, other))
                continue;
            for (const auto& places : other.places)
                for (const numbered_place& place : places)
                    EXPECT_LT(std::max(place.function, place.file), other.texts.size());
        }
}

} // namespace
