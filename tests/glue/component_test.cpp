#include "support/recording_table.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <stdexcept>
#include <thread>
#include <type_traits>

namespace {

using qor::test::assertion;
using qor::test::recording_table;
using calls = std::vector<std::string>;

constexpr char tag[] = ", qorcore/include/qor/glue/impl_common, ";
const std::string still_referenced =
    assertion("m_data->refcount.Read() == 0", "virtual qorComponent2::~qorComponent2()",
              "qorcore/include/qor/glue/impl_common", 973);

std::string first_entry(const std::string& block) { return "qor_do_malloc(0, 24, true" + (tag + ("1005) = " + block)); }
std::string grown(const std::string& from, int entries, const std::string& block) {
    return "qor_do_realloc(" + from + ", " + std::to_string(24 * entries) + tag + "1007) = " + block;
}
std::string freed(const std::string& block) { return "qor_do_free(" + block + tag + "976)"; }

// Counts what happens to a component in a test.
struct fate {
    int final_releases = 0;
    int ends = 0;
    bool final_release_first = false;
};

class component : public qorComponent2 {
public:
    component(const char* name, fate& told) : qorComponent2(name), m_fate(told) {}
    explicit component(fate& told) : m_fate(told) {}
    ~component() override { ++m_fate.ends; }

    void OnFinalRelease() noexcept override {
        ++m_fate.final_releases;
        m_fate.final_release_first = m_fate.ends == 0;
    }

private:
    fate& m_fate;
};

class plain_component : public qorComponent2 {
public:
    using qorComponent2::qorComponent2;
};

class counting_interface final : public IQORInterface {
public:
    void AddRef() noexcept override { ++references; }
    void Release() noexcept override { --references; }
    int QueryInterface(const char*, void**) noexcept override { return 0; }

    int references = 0;
};

// Reads an object word by word: its virtual table, then its fields.
template <class WORD>
WORD word_of(const void* object, std::size_t index) {
    WORD word;
    std::memcpy(&word, static_cast<const char*>(object) + index * sizeof(void*), sizeof word);
    return word;
}

static_assert(sizeof(qorComponent2) == 2 * sizeof(void*));
static_assert(std::has_virtual_destructor_v<qorComponent2> && !std::is_copy_constructible_v<qorComponent2>);

TEST(component, has_one_field_that_points_to_its_record) {
    const recording_table table;
    auto* const named = new ("test", 1) plain_component("a.name");
    const void* const record = word_of<const void*>(named, 1);
    EXPECT_STREQ(word_of<const char*>(record, 0), "a.name");
    EXPECT_EQ(word_of<int32>(record, 1), 1);
    EXPECT_EQ(word_of<const void*>(record, 2), nullptr);
    EXPECT_EQ(word_of<uint32>(record, 3), 0u);
    named->object_Release();

    auto* const nameless = new ("test", 1) plain_component;
    EXPECT_STREQ(word_of<const char*>(word_of<const void*>(nameless, 1), 0), "**type.not.set**");
    nameless->object_Release();
}

TEST(component, is_born_with_one_reference_and_ended_by_its_release) {
    recording_table table;
    fate told;
    auto* const object = new ("util/test", 55) component("test.component", told);
    EXPECT_EQ(table.take(), (calls{"qor_do_new(" + std::to_string(sizeof(component)) + ", util/test, 55) = #1",
                                   "qorAnnounceObject(test.component)"}));
    object->object_Release();
    EXPECT_EQ(told.ends, 1);
    EXPECT_EQ(told.final_releases, 1);
    EXPECT_TRUE(told.final_release_first);
    EXPECT_EQ(table.take(), calls{"qor_do_delete(#1)"});
}

TEST(component, is_announced_without_a_name_where_it_has_none) {
    recording_table table;
    fate told;
    auto* const object = new ("test", 1) component(told);
    EXPECT_EQ(table.take().at(1), "qorAnnounceObject(null)");
    object->object_Release();
}

TEST(component, is_announced_when_it_is_whole) {
    recording_table table;
    const void* announced = nullptr;
    int32 count = 0;
    table.on_announce = [&](const void* object) {
        announced = object;
        count = word_of<int32>(word_of<const void*>(object, 1), 1);
    };
    auto* const object = new ("test", 1) plain_component("test.component");
    EXPECT_EQ(announced, object);
    EXPECT_EQ(count, 1);
    object->object_Release();
}

TEST(component, ends_with_the_last_reference) {
    const recording_table table;
    fate told;
    auto* const object = new ("test", 1) component("test.component", told);
    object->object_AddRef();
    object->object_AddRef();
    object->object_Release();
    object->object_Release();
    EXPECT_EQ(told.ends, 0);
    EXPECT_EQ(told.final_releases, 0);
    object->object_Release();
    EXPECT_EQ(told.ends, 1);
}

TEST(component, ends_once_when_many_threads_let_go) {
    const recording_table table;
    for (int round = 0; round < 50; ++round) {
        fate told;
        auto* const object = new ("test", 1) component("test.component", told);
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            object->object_AddRef();
            threads.emplace_back([object] {
                for (int n = 0; n < 100; ++n) {
                    object->object_AddRef();
                    object->object_Release();
                }
                object->object_Release();
            });
        }
        object->object_Release();
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(told.ends, 1);
        EXPECT_EQ(told.final_releases, 1);
    }
}

TEST(component, grows_its_interface_table_by_one_entry_each) {
    recording_table table;
    auto* const object = new ("test", 1) plain_component("test.component");
    counting_interface a, b, c;
    table.take();
    object->x_SetInterface("A", &a);
    EXPECT_EQ(table.take(), calls{first_entry("#2")});
    object->x_SetInterface("B", &b);
    EXPECT_EQ(table.take(), calls{grown("#2", 2, "#3")});
    object->x_SetInterface2("C", &c, &a);
    EXPECT_EQ(table.take(), calls{grown("#3", 3, "#4")});
    object->object_Release();
    EXPECT_EQ(table.take(), (calls{freed("#4"), "qor_do_delete(#1)"}));
}

TEST(component, without_interfaces_finds_none) {
    const recording_table table;
    auto* const object = new ("test", 1) plain_component("test.component");
    int untouched = 0;
    void* out = &untouched;
    EXPECT_EQ(object->object_QueryInterface("A", &out), 0);
    EXPECT_EQ(out, &untouched);
    EXPECT_EQ(object->object_TestInterface("A"), 0);
    object->object_Release();
}

TEST(component, finds_interfaces_by_their_exact_names) {
    const recording_table table;
    auto* const object = new ("test", 1) plain_component("test.component");
    counting_interface a, b;
    object->x_SetInterface("IName", &a);
    object->x_SetInterface("INames", &b);
    void* out = nullptr;
    EXPECT_EQ(object->object_QueryInterface("INames", &out), 1);
    EXPECT_EQ(out, &b);
    EXPECT_EQ(object->object_QueryInterface("IName", &out), 1);
    EXPECT_EQ(out, &a);
    for (const char* wrong : {"iname", "INam", "INamess", "", "\xff"}) {
        EXPECT_EQ(object->object_QueryInterface(wrong, &out), 0) << wrong;
        EXPECT_EQ(object->object_TestInterface(wrong), 0) << wrong;
    }
    EXPECT_EQ(out, &a);
    EXPECT_EQ(a.references, 1);
    EXPECT_EQ(b.references, 1);
    object->object_Release();
}

TEST(component, a_query_adds_one_reference_to_the_owner_and_a_test_none) {
    const recording_table table;
    auto* const object = new ("test", 1) plain_component("test.component");
    counting_interface handed_out, owner;
    object->x_SetInterface2("I", &handed_out, &owner);
    EXPECT_EQ(object->object_TestInterface("I"), 1);
    EXPECT_EQ(owner.references, 0);
    void* out = nullptr;
    EXPECT_EQ(object->object_QueryInterface("I", &out), 1);
    EXPECT_EQ(out, &handed_out);
    EXPECT_EQ(owner.references, 1);
    EXPECT_EQ(handed_out.references, 0);
    object->object_Release();
}

TEST(component, of_two_interfaces_under_one_name_the_first_wins) {
    const recording_table table;
    auto* const object = new ("test", 1) plain_component("test.component");
    counting_interface first, second;
    object->x_SetInterface("I", &first);
    object->x_SetInterface("I", &second);
    void* out = nullptr;
    EXPECT_EQ(object->object_QueryInterface("I", &out), 1);
    EXPECT_EQ(out, &first);
    EXPECT_EQ(first.references, 1);
    EXPECT_EQ(second.references, 0);
    object->object_Release();
}

TEST(component, ended_while_referenced_reports_it_and_is_freed) {
    recording_table table;
    auto* const object = new ("test", 1) plain_component("test.component");
    counting_interface a;
    object->x_SetInterface("A", &a);
    table.take();
    delete object;
    EXPECT_EQ(table.take(), (calls{still_referenced, freed("#2"), "qor_do_delete(#1)"}));
}

TEST(component, whose_constructor_throws_is_freed) {
    class refusing : public qorComponent2 {
    public:
        refusing() : qorComponent2("test.refusing") { throw std::runtime_error("refused"); }
    };
    recording_table table;
    EXPECT_THROW(new ("test", 1) refusing, std::runtime_error);
    EXPECT_EQ(table.take(), (calls{"qor_do_new(" + std::to_string(sizeof(refusing)) + ", test, 1) = #1",
                                   "qorAnnounceObject(test.refusing)", still_referenced, "qor_do_delete(#1)"}));
}

TEST(component, without_memory_throws_in_its_client) {
    recording_table table;
    table.exhausted = true;
    EXPECT_THROW(new ("test", 1) plain_component("test.component"), std::bad_alloc);

    table.exhausted = false;
    auto* const object = new ("test", 1) plain_component("test.component");
    counting_interface a, b;
    object->x_SetInterface("A", &a);
    table.exhausted = true;
    EXPECT_THROW(object->x_SetInterface("B", &b), std::bad_alloc);
    table.exhausted = false;
    EXPECT_EQ(object->object_TestInterface("A"), 1);
    EXPECT_EQ(object->object_TestInterface("B"), 0);
    object->object_Release();
}

TEST(component, without_a_table_says_nothing) {
    recording_table table;
    fate told;
    EXPECT_TRUE(table.unbound([&] { const component object("test.component", told); }));
    EXPECT_EQ(told.ends, 1);
    EXPECT_EQ(table.take(), calls{});
}

} // namespace
