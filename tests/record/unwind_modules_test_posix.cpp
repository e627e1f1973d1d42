// Libraries that come and go, and the modules that are reported.
#include "qor-record/preload/unwind.h"
#include "qor-record/preload/unwind_modules.h"
#include "support/scenes.h"
#include "unwind/frames.h"
#include "unwind/walks.h"

#include <gtest/gtest.h>

#include <atomic>
#include <dlfcn.h>
#include <filesystem>
#include <link.h>
#include <thread>

namespace {

using namespace qor::test;
namespace record = qor::record;

thread_local every_stack* watched_loading = nullptr;

class library {
public:
    explicit library(const char* path) {
        record::modules_changing();
        m_handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
        record::modules_changed();
        EXPECT_NE(m_handle, nullptr) << dlerror();
    }
    library(const library&) = delete;
    library& operator=(const library&) = delete;
    ~library() {
        record::modules_changing();
        dlclose(m_handle);
        record::modules_changed();
    }

    using function = void (*)(action, void*);
    function call() const { return reinterpret_cast<function>(dlsym(m_handle, "loaded_call")); }

private:
    void* m_handle;
};

// Each way in which modules are found.
class unwound_libraries : public testing::TestWithParam<bool> {
public:
    unwound_libraries() { switch_to(GetParam()); }
    ~unwound_libraries() override { switch_to(false); }

private:
    static void switch_to(bool without) {
        record::modules_changing();
        record::without_find_object = without;
        record::modules_changed();
    }
};

INSTANTIATE_TEST_SUITE_P(found, unwound_libraries, testing::Bool(),
                         [](const auto& each) { return each.param ? "by_their_list" : "by_the_c_library"; });

std::string build_id_by_readelf(const std::string& path) {
    const std::string text = run({"readelf", "-n", path}).out;
    const std::string label = "Build ID: ";
    const std::size_t at = text.find(label);
    return at == text.npos ? "" : text.substr(at + label.size(), text.find('\n', at) - at - label.size());
}

} // namespace

extern "C" [[gnu::visibility("default"), gnu::noinline]] void library_is_loading() {
    if (watched_loading != nullptr)
        every_stack::add(watched_loading);
}

TEST_P(unwound_libraries, another_at_the_same_address) {
    std::vector<std::uintptr_t> places;
    for (unsigned round = 0; round < 20; ++round) {
        const library loaded(round % 2 == 0 ? LOADED_SMALL : LOADED_LARGE);
        every_stack stacks;
        loaded.call()(&every_stack::add, &stacks);
        loaded.call()(&every_stack::add, &stacks);
        expect_equal(stacks, 2, 8);
        places.push_back(reinterpret_cast<std::uintptr_t>(loaded.call()));
    }
    EXPECT_EQ(places, std::vector<std::uintptr_t>(20, places[0])) << "the test is to see the same address again";
}

TEST_P(unwound_libraries, while_they_are_loading) {
    every_stack stacks;
    watched_loading = &stacks;
    { const library loaded(LOADED_SMALL); }
    watched_loading = nullptr;
    ASSERT_EQ(stacks.found.size(), 1u);
    if (!GetParam()) {
        expect_equal(stacks, 1, 12);
        return;
    }
    // The list does not have it yet.
    const two_stacks& found = stacks.found[0];
    ASSERT_GE(found.ours.size(), 1u);
    EXPECT_EQ(found.ours[0], found.theirs[0]);
}

// No rule of a library is kept while one may take its place, though the change is not over.
TEST_P(unwound_libraries, another_within_one_change) {
    record::modules_changing();
    every_stack stacks;
    std::vector<std::uintptr_t> places;
    for (const char* const path : {LOADED_SMALL, LOADED_LARGE, LOADED_SMALL}) {
        void* const handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
        record::read_later_modules();
        const auto call = reinterpret_cast<library::function>(dlsym(handle, "loaded_call"));
        call(&every_stack::add, &stacks);
        places.push_back(reinterpret_cast<std::uintptr_t>(call));
        dlclose(handle);
    }
    record::modules_changed();
    expect_equal(stacks, 3, 8);
    EXPECT_EQ(places, std::vector<std::uintptr_t>(3, places[0]));
}

TEST_P(unwound_libraries, threads_at_once) {
    // While the list is read anew, others find nothing in it: their stacks are shorter.
    const bool all = !GetParam();
    std::atomic<unsigned> wrong{0};
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 4; ++i)
        threads.emplace_back([&wrong, all, i] {
            for (unsigned round = 0; round < 200; ++round) {
                every_stack stacks;
                if (i % 2 == 0) {
                    const library loaded(round % 2 == 0 ? LOADED_SMALL : LOADED_LARGE);
                    loaded.call()(&every_stack::add, &stacks);
                } else {
                    all_walks[round % std::size(all_walks)]->descend(5, &every_stack::add, &stacks);
                }
                for (const two_stacks& each : stacks.found)
                    wrong += all ? each.ours != each.theirs : !is_part_of(each.ours, each.theirs, 1);
            }
        });
    for (std::thread& each : threads)
        each.join();
    EXPECT_EQ(wrong, 0u);
}

TEST(modules_of_the_process, are_told_with_their_build_ids) {
    struct module {
        std::uintptr_t base, begin, end;
        std::string path, build_id;
    };
    std::vector<module> modules;
    const library loaded(LOADED_SMALL);
    record::visit_modules(
        [](const record::module_info& each, void* argument) {
            std::string id;
            for (unsigned i = 0; i < each.build_id_size; ++i) {
                char digits[3];
                std::snprintf(digits, sizeof digits, "%02x", each.build_id[i]);
                id += digits;
            }
            static_cast<std::vector<module>*>(argument)->push_back({each.base, each.begin, each.end, each.path, id});
        },
        &modules);
    ASSERT_FALSE(modules.empty());
    EXPECT_EQ(modules[0].path, std::filesystem::canonical(this_program()));

    const void* const functions[] = {reinterpret_cast<void*>(&library_is_loading), reinterpret_cast<void*>(&dlopen),
                                     reinterpret_cast<void*>(loaded.call())};
    for (const void* function : functions) {
        Dl_info known;
        ASSERT_NE(dladdr(function, &known), 0);
        const auto address = reinterpret_cast<std::uintptr_t>(function);
        unsigned count = 0;
        for (const module& each : modules)
            if (address >= each.begin && address < each.end) {
                ++count;
                EXPECT_EQ(each.base, reinterpret_cast<std::uintptr_t>(known.dli_fbase));
                EXPECT_EQ(each.build_id, build_id_by_readelf(each.path));
                EXPECT_TRUE(function == functions[0] || each.path == known.dli_fname) << each.path;
            }
        EXPECT_EQ(count, 1u);
    }
}
