#include "heap/symbols/symbols.h"

#include "heap/profile/profile.h"

#include <gtest/gtest.h>

namespace {

using namespace qor::heap;

TEST(symbols, answers_frame_by_frame) {
    profile of;
    of.modules.push_back({"relative/path.so", "", 0, 0, 0});
    of.modules.push_back({"", "", 0, 0, 0});
    of.modules.push_back({"relative/other.so", "", 0, 0, 0});
    for (const uint32 module : {1u, 0u, 2u, 1u})
        of.frames.push_back({module, 0x1000});
    symbols search;
    uint32 done = 0;
    const auto places = search.resolve(of, [&done](const symbol_progress* progress) {
        if (progress != nullptr) {
            EXPECT_EQ(progress->kind, symbol_progress::what::module_done);
            EXPECT_EQ(progress->modules, ++done);
            EXPECT_EQ(progress->all_modules, 2u);
        }
        return true;
    });
    EXPECT_EQ(done, 2u);
    ASSERT_EQ(places.size(), of.frames.size());
    for (const auto& of_frame : places)
        EXPECT_TRUE(of_frame.empty());
    ASSERT_EQ(search.modules().size(), of.modules.size());
    EXPECT_EQ(search.modules()[0].status, symbol_status::not_asked);
    EXPECT_EQ(search.modules()[1].status, symbol_status::refused);
    EXPECT_EQ(search.modules()[2].status, symbol_status::no_file);
    EXPECT_EQ(search.modules()[3].status, symbol_status::not_asked);
}

TEST(symbols, ends_when_the_caller_wants_it) {
    profile of;
    for (uint32 i = 1; i <= 20; ++i) {
        of.modules.push_back({"relative", "", 0, 0, 0});
        of.frames.push_back({i, 1});
    }
    symbols search;
    EXPECT_EQ(search.resolve(of, [](const symbol_progress*) { return false; }).size(), of.frames.size());
    uint32 interrupted = 0;
    for (const module_symbols& module : search.modules())
        interrupted += module.status == symbol_status::interrupted;
    EXPECT_GE(interrupted, 19u);
}

TEST(symbols, of_nothing) {
    EXPECT_EQ(symbols().resolve(profile()).size(), 1u);
    EXPECT_TRUE(symbols().resolve(std::vector<symbols::addresses>{}, true).empty());
}

} // namespace
