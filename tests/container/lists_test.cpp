#include "container_support.h"

#include "qor/system/template/Object.h"

#include <algorithm>
#include <random>

using qor::test::last_error_number;
using qor::test::read;
using qor::test::refuses_each_beginning;
using qor::test::written;

namespace {

std::vector<qorVariant> values(IQORVariantList* list) { return std::vector<qorVariant>(list->begin(), list->end()); }

TEST(variant_list, does_what_a_vector_does) {
    std::mt19937 random(1);
    qorVariantList list;
    std::vector<qorVariant> plain;
    for (int step = 0; step < 2000; ++step) {
        const uint32 index = random() % (plain.size() + 2);
        const qorVariant value =
            step % 3 == 0 ? qorVariant(static_cast<int>(random() % 50)) : qorVariant(std::to_string(random() % 50));
        const auto place = plain.begin() + std::min<std::size_t>(index, plain.size());
        switch (random() % 5) {
        case 0:
            EXPECT_TRUE(list->Append(value));
            plain.push_back(value);
            break;
        case 1:
            EXPECT_TRUE(list->InsertAt(index, value));
            plain.insert(place, value);
            break;
        case 2:
            EXPECT_EQ(list->SetAt(index, value), index < plain.size());
            if (index < plain.size())
                *place = value;
            break;
        case 3:
            list->RemoveAt(index, 2);
            plain.erase(place, place + std::min<std::ptrdiff_t>(2, plain.end() - place));
            break;
        default: {
            const auto found = std::find(plain.begin(), plain.end(), value);
            EXPECT_EQ(list->Find(value, 0), found != plain.end() ? found - plain.begin() : -1);
        }
        }
        ASSERT_EQ(values(list), plain) << step;
    }
    qorVariantList copy(list);
    EXPECT_TRUE(copy == list);
    EXPECT_EQ(copy->GetHash(), list->GetHash());
    list->Sort(true);
    std::stable_sort(plain.begin(), plain.end());
    EXPECT_EQ(values(list), plain);
    list->Sort(false);
    EXPECT_TRUE(std::is_sorted(list->begin(), list->end(), std::greater<>()));
    list->Empty();
    EXPECT_EQ(list->GetCount(), 0u);
    EXPECT_LT(list->Compare(copy), 0);
    EXPECT_GT(copy->Compare(list), 0);
}

TEST(variant_list, takes_its_own_elements) {
    qorVariantList list;
    list->Append("a text that has a block of its own");
    for (int i = 0; i < 100; ++i)
        list->InsertAt(0, list->GetValues()[list->GetCount() - 1]);
    EXPECT_EQ(list->GetCount(), 101u);
    EXPECT_EQ(list->GetValues()[0], list->GetValues()[100]);
    EXPECT_TRUE(list->Copy(list));
    EXPECT_EQ(list->GetCount(), 101u);
    EXPECT_FALSE(list->SetAt(101, 1));
    EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_not_found));
}

TEST(variant_list, survives_its_stream_form_and_json) {
    qorVariantList list;
    list->Append(-1);
    list->Append("text");
    list->AppendList()->Append(1.5);
    list->AppendSet()->Set("name", nullptr);
    qorVariantList back;
    EXPECT_TRUE(read(*back.Interface(), written(*list.Interface())));
    EXPECT_TRUE(back == list);
    refuses_each_beginning(list);
    qorString text;
    EXPECT_TRUE(list->WriteJson(text, 0));
    EXPECT_EQ(text, R"([-1,"text",[1.5],{"name":null}])");
    back->Empty();
    EXPECT_TRUE(back->ReadJson(text));
    EXPECT_TRUE(back == list);
    for (const char* const other : {"{}", "1", "[", "null"})
        EXPECT_FALSE(back->ReadJson(other)) << other;
    EXPECT_TRUE(back == list);
}

TEST(variant_list, elements_outlive_it_with_a_reference) {
    qorVariantList list;
    zetSmartPointer<IQORVariantList> inner;
    *inner.Out() = list->AppendList();
    inner->AddRef();
    inner->Append(7);
    list->Empty();
    EXPECT_EQ(inner->GetValues()[0], 7);
}

TEST(value_list, is_of_one_kind) {
    qorValueList list;
    EXPECT_EQ(list->GetKind(), qorVariantKind::null);
    EXPECT_FALSE(list->Append(nullptr));
    EXPECT_FALSE(list->Append(qorVariant::List()));
    EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_wrong_kind));
    EXPECT_TRUE(list->Append(1));
    EXPECT_TRUE(list->Append(2u)); // the same as 2
    EXPECT_TRUE(list->Append(3.0));
    EXPECT_FALSE(list->Append(3.5));
    EXPECT_FALSE(list->Append("4"));
    EXPECT_FALSE(list->Append(~uint64{0}));
    EXPECT_FALSE(list->SetAt(0, true));
    EXPECT_EQ(list->GetKind(), qorVariantKind::integer);
    const auto numbers = list->Numbers<int64>();
    EXPECT_EQ(std::vector<int64>(numbers.begin(), numbers.end()), (std::vector<int64>{1, 2, 3}));
    EXPECT_TRUE(list->Numbers<double>().empty());
    EXPECT_TRUE(list->Append(std::span<const int64>(numbers))); // its own
    EXPECT_EQ(list->GetCount(), 6u);
    EXPECT_FALSE(list->Append(std::span<const double>(std::vector<double>{1})));
    EXPECT_EQ(list->Find(3u, 3), 5);
    EXPECT_EQ(list->Find(3.0, 0), -1); // 3.0 is no integer
    list->RemoveAt(0, 10);
    EXPECT_EQ(list->GetKind(), qorVariantKind::null);
    EXPECT_TRUE(list->Append("now a text"));
}

TEST(value_list, does_what_a_vector_does) {
    std::mt19937 random(2);
    for (const bool is_text : {false, true}) {
        qorValueList list;
        std::vector<qorVariant> plain;
        for (int step = 0; step < 2000; ++step) {
            const uint32 index = random() % (plain.size() + 2);
            const uint32 number = random() % 100;
            const qorVariant value = is_text ? qorVariant(std::string(number, 'x')) : qorVariant(number / 8.0);
            const auto place = plain.begin() + std::min<std::size_t>(index, plain.size());
            switch (random() % 4) {
            case 0:
            case 1:
                EXPECT_TRUE(list->InsertAt(index, value));
                plain.insert(place, value);
                break;
            case 2:
                EXPECT_EQ(list->SetAt(index, value), index < plain.size());
                if (index < plain.size())
                    *place = value;
                break;
            default:
                list->RemoveAt(index, 2);
                plain.erase(place, place + std::min<std::ptrdiff_t>(2, plain.end() - place));
            }
            if (step % 500 == 499) {
                list->Sort(step % 1000 == 999);
                step % 1000 == 999 ? std::sort(plain.begin(), plain.end())
                                   : std::sort(plain.begin(), plain.end(), std::greater<>());
            }
            ASSERT_EQ(list->GetCount(), plain.size());
            for (uint32 i = 0; i < list->GetCount(); ++i) {
                qorVariant each;
                ASSERT_TRUE(list->GetAt(i, each));
                ASSERT_EQ(each, plain[i]) << step << " " << i;
                if (is_text) {
                    ASSERT_EQ(list->GetText(i), std::string_view(*plain[i].AsText()));
                    ASSERT_EQ(list->GetText(i).text[list->GetText(i).length], '\0');
                }
            }
        }
        qorValueList copy(list), back;
        EXPECT_TRUE(copy == list);
        EXPECT_EQ(copy->GetHash(), list->GetHash());
        EXPECT_TRUE(read(*back.Interface(), written(*list.Interface())));
        EXPECT_TRUE(back == list);
    }
}

TEST(value_list, refuses_broken_streams) {
    qorValueList list;
    list->Append(true);
    list->Append(false);
    refuses_each_beginning(list);
    using namespace std::literals;
    const std::string head = "\x03\x71\x01\x00"s;
    for (const std::string& form :
         {head + "\x00\x00\x01\x00\x00\x00"s, head + "\x08\x00\x01\x00\x00\x00"s, head + "\x02\x00\x00\x00\x00\x00"s,
          head + "\x01\x00\x01\x00\x00\x00\x02\x00\x00\x00\x00\x00\x00\x00"s}) {
        EXPECT_FALSE(read(*list.Interface(), form));
        EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_stream_form));
    }
    EXPECT_EQ(list->GetCount(), 2u);
}

// Counts the objects alive, and may use a list when it ends.
class counted final : public qor::object<IQORInterface> {
public:
    explicit counted(int& alive, IQORObjectList* at_end = nullptr)
        : object("counted", "IQORInterface"), m_alive(alive), m_at_end(at_end) {
        ++m_alive;
    }
    ~counted() override {
        --m_alive;
        if (m_at_end != nullptr)
            m_at_end->Append(nullptr);
    }

private:
    int& m_alive;
    IQORObjectList* m_at_end;
};

TEST(object_list, holds_references) {
    int alive = 0;
    {
        qorObjectList list;
        for (int i = 0; i < 10; ++i) {
            zetSmartPointer<IQORInterface> object;
            object.AttachNew(QOR_NEW counted(alive));
            list->InsertAt(0, *object);
            list->Append(*object);
        }
        EXPECT_EQ(alive, 10);
        EXPECT_EQ(list->GetObjects()[0], list->GetObjects()[19]);
        EXPECT_EQ(list->Find(list->GetObjects()[0], 1), 19);
        void* queried = nullptr;
        EXPECT_EQ(list->QueryAt(0, "IQORInterface", &queried), 1);
        static_cast<IQORInterface*>(queried)->Release();
        EXPECT_EQ(list->QueryAt(0, "IQORNothing", &queried), 0);
        EXPECT_EQ(list->QueryAt(20, "IQORInterface", &queried), 0);
        list->RemoveAt(0, 10);
        EXPECT_EQ(alive, 10);
        qorObjectList copy(list);
        EXPECT_TRUE(copy == list);
        EXPECT_TRUE(list->SetAt(0, nullptr));
        EXPECT_FALSE(copy == list);
        EXPECT_TRUE(copy->Remove(copy->GetObjects()[0]));
        EXPECT_EQ(alive, 9);
        EXPECT_FALSE(list->SetAt(10, nullptr));
        EXPECT_TRUE(list->Copy(list));
        list->Sort(
            [](IQORInterface* left, IQORInterface* right, void*) noexcept { return left < right ? -1 : left > right; },
            nullptr);
        EXPECT_TRUE(std::is_sorted(list->begin(), list->end()));
        list->Empty();
        EXPECT_EQ(alive, 9);
    }
    EXPECT_EQ(alive, 0);
}

TEST(object_list, an_object_may_use_it_at_its_end) {
    int alive = 0;
    qorObjectList list;
    for (int i = 0; i < 3; ++i) {
        zetSmartPointer<IQORInterface> object;
        object.AttachNew(QOR_NEW counted(alive, list));
        list->Append(*object);
    }
    list->SetAt(1, nullptr);
    EXPECT_EQ(list->GetCount(), 4u);
    list->RemoveAt(0, 1);
    EXPECT_EQ(list->GetCount(), 4u);
    list->Empty();
    EXPECT_EQ(list->GetCount(), 1u);
    EXPECT_EQ(alive, 0);
}

} // namespace
