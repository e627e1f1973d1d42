#include "support/recording_table.h"

#include <gtest/gtest.h>

namespace {

using qor::test::assertion;
using qor::test::recording_table;
using calls = std::vector<std::string>;

std::string reported(const std::string& expr, const std::string& signature, const std::string& type, int line) {
    return assertion(expr, signature + " [with TYPE = " + type + "]",
                     "qorcore/include/qor/system/template/SmartPointer", line);
}

struct counted {
    void AddRef() { ++references; }
    void Release() { --references; }
    int references = 1;
};

class object : public qorRefObject {
public:
    explicit object(int& ends) : qorRefObject("test.object"), m_ends(ends) {}
    ~object() override { ++m_ends; }

private:
    int& m_ends;
};

static_assert(sizeof(zetSmartPointer<counted>) == sizeof(void*));

TEST(smart_pointer, adopts_a_new_object_and_ends_it) {
    recording_table table;
    int ends = 0;
    {
        zetSmartPointer<object> pointer;
        pointer.AttachNew(new ("test", 1) object(ends));
        EXPECT_STREQ(pointer->TypeName(), "test.object");
        EXPECT_EQ(ends, 0);
        table.take();
    }
    EXPECT_EQ(ends, 1);
    EXPECT_EQ(table.take(), calls{"qor_do_delete(#1)"});
}

TEST(smart_pointer, attaching_releases_what_was_held) {
    counted first, second;
    {
        zetSmartPointer<counted> pointer;
        pointer.AttachNew(&first);
        EXPECT_EQ(first.references, 1);
        pointer.AttachNew(&second);
        EXPECT_EQ(first.references, 0);
        EXPECT_EQ(second.references, 1);
    }
    EXPECT_EQ(second.references, 0);
}

TEST(smart_pointer, attaching_what_is_held_is_reported) {
    recording_table table;
    IQORErrorMessage* error = nullptr;
    qorGetLastError(&error);
    error->AddRef();
    error->AddRef();
    {
        zetSmartPointer<IQORErrorMessage> pointer;
        pointer.AttachNew(error);
        EXPECT_EQ(table.take(), calls{});
        pointer.AttachNew(error);
        EXPECT_EQ(table.take(), calls{reported("ptr != m_ptr", "void zetSmartPointer<TYPE>::AttachNew(TYPE*)",
                                               "IQORErrorMessage", 180)});
        EXPECT_EQ(*pointer, error);
    }
    error->Release();
}

TEST(smart_pointer, attaching_the_held_object_releases_it_once) {
    const recording_table table;
    counted held{2};
    zetSmartPointer<counted> pointer;
    pointer.AttachNew(&held);
    pointer.AttachNew(&held);
    EXPECT_EQ(held.references, 1);
    EXPECT_EQ(*pointer, &held);
}

TEST(smart_pointer, dereferencing_an_empty_one_is_reported) {
    recording_table table;
    const zetSmartPointer<IQORErrorMessage> pointer;
    EXPECT_TRUE(pointer.IsEmpty());
    EXPECT_EQ(pointer.operator->(), nullptr);
    EXPECT_EQ(table.take(), calls{reported("m_ptr != NULL", "TYPE* zetSmartPointer<TYPE>::operator->() const",
                                           "IQORErrorMessage", 138)});
    EXPECT_EQ(*pointer, nullptr);
    EXPECT_EQ(table.take(), calls{reported("m_ptr != NULL", "TYPE* zetSmartPointer<TYPE>::operator*() const",
                                           "IQORErrorMessage", 130)});
}

TEST(smart_pointer, is_silent_without_a_table) {
    recording_table table;
    EXPECT_TRUE(table.unbound([] {
        counted held{2};
        zetSmartPointer<counted> pointer;
        EXPECT_EQ(*pointer, nullptr);
        EXPECT_EQ(pointer.operator->(), nullptr);
        pointer.AttachNew(&held);
        pointer.AttachNew(&held);
    }));
    EXPECT_EQ(table.take(), calls{});
}

TEST(smart_pointer, is_an_out_parameter) {
    recording_table table;
    counted before;
    const auto factory = [&](counted** out) {
        EXPECT_EQ(before.references, 0);
        static counted made;
        *out = &made;
    };
    zetSmartPointer<counted> pointer;
    pointer.AttachNew(&before);
    factory(pointer.Out());
    EXPECT_EQ(pointer->references, 1);

    zetSmartPointer<IQORErrorMessage> error;
    qorClearLastError();
    qorGetLastError(error.Out());
    EXPECT_FALSE(error->IsError());
    EXPECT_EQ(table.take(), calls{});
}

TEST(smart_pointer, copies_share_the_object) {
    counted held, other;
    {
        zetSmartPointer<counted> pointer;
        pointer.AttachNew(&held);
        const zetSmartPointer<counted> copy(pointer);
        EXPECT_EQ(held.references, 2);
        const auto& itself = pointer;
        pointer = itself;
        EXPECT_EQ(held.references, 2);

        zetSmartPointer<counted> assigned;
        assigned.AttachNew(&other);
        assigned = pointer;
        EXPECT_EQ(other.references, 0);
        EXPECT_EQ(held.references, 3);

        const zetSmartPointer<counted> moved(std::move(assigned));
        EXPECT_TRUE(assigned.IsEmpty());
        EXPECT_EQ(held.references, 3);
    }
    EXPECT_EQ(held.references, 0);
}

TEST(smart_pointer, gives_its_reference_away) {
    counted held;
    {
        zetSmartPointer<counted> pointer;
        pointer.AttachNew(&held);
        EXPECT_EQ(pointer.Detach(), &held);
        EXPECT_TRUE(pointer.IsEmpty());
    }
    EXPECT_EQ(held.references, 1);
}

TEST(smart_pointer, empty_releases_once) {
    counted held;
    {
        zetSmartPointer<counted> pointer;
        pointer.AttachNew(&held);
        pointer.Empty();
        EXPECT_EQ(held.references, 0);
        EXPECT_TRUE(pointer.IsEmpty());
    }
    EXPECT_EQ(held.references, 0);
}

} // namespace
