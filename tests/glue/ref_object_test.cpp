#include "support/recording_table.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <type_traits>

namespace {

using qor::test::assertion;
using qor::test::recording_table;
using calls = std::vector<std::string>;

const std::string still_referenced = assertion("m_refcount.Read() == 0", "virtual qorRefObject::~qorRefObject()",
                                               "qorcore/include/qor/glue/impl_common", 894);

class object : public qorRefObject {
public:
    explicit object(int& ends) : qorRefObject("test.object"), m_ends(ends) {}
    ~object() override { ++m_ends; }

private:
    int& m_ends;
};

int32 count_of(const void* of) {
    int32 count;
    std::memcpy(&count, static_cast<const char*>(of) + 2 * sizeof(void*), sizeof count);
    return count;
}

static_assert(sizeof(qorRefObject) == 3 * sizeof(void*));
static_assert(std::has_virtual_destructor_v<qorRefObject> && !std::is_copy_constructible_v<qorRefObject>);

TEST(ref_object, is_announced_and_then_holds_one_reference) {
    recording_table table;
    const void* announced = nullptr;
    int32 count_then = -1;
    table.on_announce = [&](const void* of) {
        announced = of;
        count_then = count_of(of);
    };
    int ends = 0;
    auto* const made = new ("util/test", 7) object(ends);
    EXPECT_EQ(announced, made);
    EXPECT_EQ(count_then, 0);
    EXPECT_EQ(count_of(made), 1);
    EXPECT_STREQ(made->TypeName(), "test.object");
    EXPECT_EQ(table.take(), (calls{"qor_do_new(" + std::to_string(sizeof(object)) + ", util/test, 7) = #1",
                                   "qorAnnounceObject(test.object)"}));
    made->Release();
    EXPECT_EQ(ends, 1);
    EXPECT_EQ(table.take(), calls{"qor_do_delete(#1)"});
}

TEST(ref_object, ends_with_the_last_reference) {
    const recording_table table;
    int ends = 0;
    auto* const made = new ("test", 1) object(ends);
    made->AddRef();
    made->Release();
    EXPECT_EQ(ends, 0);
    made->Release();
    EXPECT_EQ(ends, 1);
}

TEST(ref_object, ends_once_when_many_threads_let_go) {
    const recording_table table;
    for (int round = 0; round < 50; ++round) {
        int ends = 0;
        auto* const made = new ("test", 1) object(ends);
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            made->AddRef();
            threads.emplace_back([made] {
                for (int n = 0; n < 100; ++n) {
                    made->AddRef();
                    made->Release();
                }
                made->Release();
            });
        }
        made->Release();
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(ends, 1);
    }
}

TEST(ref_object, ended_while_referenced_reports_it_and_is_freed) {
    recording_table table;
    int ends = 0;
    auto* const made = new ("test", 1) object(ends);
    table.take();
    delete made;
    EXPECT_EQ(ends, 1);
    EXPECT_EQ(table.take(), (calls{still_referenced, "qor_do_delete(#1)"}));
}

TEST(ref_object, referenced_again_in_its_final_release_ends_all_the_same) {
    class reviving : public object {
    public:
        using object::object;
        void OnFinalRelease() noexcept override { AddRef(); }
    };
    recording_table table;
    int ends = 0;
    auto* const made = new ("test", 1) reviving(ends);
    table.take();
    made->Release();
    EXPECT_EQ(ends, 1);
    EXPECT_EQ(table.take(), (calls{still_referenced, "qor_do_delete(#1)"}));
}

TEST(ref_object, without_a_table_says_nothing) {
    recording_table table;
    int ends = 0;
    EXPECT_TRUE(table.unbound([&] { const object made(ends); }));
    EXPECT_EQ(ends, 1);
    EXPECT_EQ(table.take(), calls{});
}

} // namespace
