#include "container_support.h"

#include <algorithm>
#include <map>
#include <random>

using qor::test::last_error_number;
using qor::test::last_error_text;
using qor::test::read;
using qor::test::refuses_each_beginning;
using qor::test::written;

namespace {

using plain_set = std::vector<std::pair<std::string, qorVariant>>;

plain_set plain(IQORAttributeSet* set) {
    plain_set all;
    for (const auto& [name, value] : set->Attributes())
        all.emplace_back(std::string_view(name), value);
    return all;
}

auto find(plain_set& all, const std::string& name) {
    return std::find_if(all.begin(), all.end(), [&](const auto& each) { return each.first == name; });
}

qorAttributeSet random_set(std::mt19937& random, uint32 names) {
    qorAttributeSet set;
    for (uint32 i = random() % 20; i != 0; --i) {
        const std::string name = "name " + std::to_string(random() % names);
        if (random() % 4 == 0)
            set->SetSet(name)->Set("inner", random() % 3);
        else
            set->Set(name, random() % 3);
    }
    return set;
}

TEST(attribute_set, keeps_its_order) {
    std::mt19937 random(1);
    for (const uint32 names : {8u, 60u}) { // without and with an index
        qorAttributeSet set;
        plain_set expected;
        for (int step = 0; step < 5000; ++step) {
            const std::string name = "name " + std::to_string(random() % names);
            const auto known = find(expected, name);
            ASSERT_EQ(set->FindIndex(name), known != expected.end() ? known - expected.begin() : -1) << step;
            switch (random() % 6) {
            case 0:
                EXPECT_EQ(set->Remove(name), known != expected.end());
                if (known != expected.end())
                    expected.erase(known);
                break;
            case 1: {
                const uint32 index = random() % (names * 2);
                set->RemoveAt(index, 1);
                if (index < expected.size())
                    expected.erase(expected.begin() + index);
                break;
            }
            default:
                EXPECT_TRUE(set->Set(name, step));
                if (known != expected.end())
                    known->second = step;
                else
                    expected.emplace_back(name, step);
            }
            ASSERT_EQ(plain(set), expected) << step;
        }
        set->Sort(true);
        std::sort(expected.begin(), expected.end(), [](auto& left, auto& right) { return left.first < right.first; });
        EXPECT_EQ(plain(set), expected);
        for (const auto& [name, value] : expected)
            EXPECT_EQ((*set.Interface())[name], value);
        EXPECT_TRUE((*set.Interface())["missing"].IsNull());
        EXPECT_EQ(set->Find("missing"), nullptr);
    }
}

TEST(attribute_set, order_does_not_count_for_equality) {
    qorAttributeSet one, other;
    for (int i = 0; i < 50; ++i) {
        one->Set(std::to_string(i), i);
        other->Set(std::to_string(49 - i), 49 - i);
    }
    EXPECT_TRUE(one == other);
    EXPECT_EQ(one->GetHash(), other->GetHash());
    other->Set("7", "another");
    EXPECT_FALSE(one == other);
    EXPECT_NE(one->GetHash(), other->GetHash());
    EXPECT_LT(one->Compare(other), 0);
    EXPECT_GT(other->Compare(one), 0);
}

TEST(attribute_set, takes_its_own_values) {
    qorAttributeSet set;
    set->Set("a", "a text that has a block of its own");
    for (int i = 0; i < 100; ++i)
        EXPECT_TRUE(set->Set(set->GetAttributes()[0].name, set->GetAttributes()[0].value));
    EXPECT_TRUE(set->Set("b", *set->Find("a")));
    EXPECT_TRUE(set->Set("self", qorVariant::Set(set)));
    EXPECT_EQ((*set.Interface())["self"].AsSet()->GetCount(), 2u);
    EXPECT_TRUE(set->Set("self", *(*set.Interface())["self"].AsSet()->Find("a")));
    EXPECT_EQ((*set.Interface())["self"], (*set.Interface())["a"]);
    EXPECT_TRUE(set->Copy(set));
    EXPECT_EQ(set->GetCount(), 3u);
}

TEST(attribute_set, names_are_bytes) {
    qorAttributeSet set;
    EXPECT_TRUE(set->Set(std::string_view("a\0b", 3), 1));
    EXPECT_TRUE(set->Set("a", 2));
    EXPECT_TRUE(set->Set("", 3));
    EXPECT_TRUE(set->Set("\xff", 4));
    EXPECT_EQ(set->GetCount(), 4u);
    EXPECT_EQ((*set.Interface())[std::string_view("a\0b", 3)], 1);
    qorAttributeSet back;
    EXPECT_TRUE(read(*back.Interface(), written(*set.Interface())));
    EXPECT_TRUE(back == set);
    qorString text;
    EXPECT_FALSE(set->WriteJson(text, 0));
    EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_json_impossible));
}

TEST(attribute_set, survives_its_stream_form_and_json) {
    qorAttributeSet set;
    set->Set("z", 1);
    set->Set("a", ~uint64{0});
    set->SetList("list")->Append("x");
    set->SetSet("set")->Set("b", false);
    refuses_each_beginning(set);
    qorString text;
    ASSERT_TRUE(set->WriteJson(text, 0));
    EXPECT_EQ(text, R"({"z":1,"a":18446744073709551615,"list":["x"],"set":{"b":false}})");
    qorAttributeSet back;
    EXPECT_TRUE(back->ReadJson(text));
    EXPECT_EQ(plain(back), plain(set)); // the order, too
    EXPECT_FALSE(back->ReadJson("[]"));
    EXPECT_FALSE(back->ReadJson("{\"a\":1"));
    EXPECT_EQ(plain(back), plain(set));
}

TEST(attribute_delta, leads_from_one_set_to_the_other) {
    std::mt19937 random(3);
    for (int round = 0; round < 500; ++round) {
        const qorAttributeSet from = random_set(random, 15), to = random_set(random, 15);
        qorAttributeSetDelta delta;
        delta->SetDifference(from, to);
        EXPECT_EQ(delta->GetCount() == 0, from == to);
        qorAttributeSet changed(from);
        ASSERT_TRUE(delta->Apply(changed)) << last_error_text();
        EXPECT_TRUE(changed == to);

        qorAttributeSetDelta back(delta), read_back;
        back->Invert();
        ASSERT_TRUE(back->Apply(changed));
        EXPECT_TRUE(changed == from);
        back->Invert();
        EXPECT_TRUE(back == delta);
        EXPECT_EQ(back->GetHash(), delta->GetHash());
        EXPECT_TRUE(read(*read_back.Interface(), written(*delta.Interface())));
        EXPECT_TRUE(read_back == delta);
        for (const qorAttributeChange& each : delta)
            EXPECT_EQ(delta->Find(each.name), &each);
        EXPECT_EQ(delta->Find("missing"), nullptr);
        if (round < 5)
            refuses_each_beginning(delta);
    }
}

TEST(attribute_delta, keeps_places_and_adds_at_the_end) {
    qorAttributeSet from, to;
    EXPECT_TRUE(from->ReadJson(R"({"a":1,"b":2,"c":3})"));
    EXPECT_TRUE(to->ReadJson(R"({"y":1,"c":4,"a":1,"x":2})"));
    qorAttributeSetDelta delta;
    delta->SetDifference(from, to);
    EXPECT_TRUE(delta->Apply(from));
    qorString text;
    EXPECT_TRUE(from->WriteJson(text, 0));
    EXPECT_EQ(text, R"({"a":1,"c":4,"y":1,"x":2})");
}

TEST(attribute_delta, that_does_not_fit_changes_nothing) {
    qorAttributeSet from, to, other;
    from->Set("kept", 1);
    to->Set("kept", 2);
    to->Set("new", 1);
    qorAttributeSetDelta delta;
    delta->SetDifference(from, to);
    for (const auto& [name, value] : plain_set{{"kept", 3}, {"kept", "1"}, {"new", 1}}) {
        other->Copy(from);
        other->Set(name, value);
        qorAttributeSet before(other);
        EXPECT_FALSE(delta->Apply(other));
        EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_delta_does_not_fit));
        EXPECT_NE(last_error_text().find("'" + name + "'"), std::string::npos);
        EXPECT_TRUE(other == before);
    }
    other->Empty();
    EXPECT_FALSE(delta->Apply(other));
}

TEST(attribute_delta, merges_and_names_the_conflicts) {
    std::mt19937 random(4);
    for (int round = 0; round < 300; ++round) {
        const qorAttributeSet base = random_set(random, 12), left = random_set(random, 12),
                              right = random_set(random, 12);
        qorAttributeSetDelta one, other;
        one->SetDifference(base, left);
        other->SetDifference(base, right);

        // By names: a change of one side counts; the same change of both counts once; others are conflicts.
        std::map<std::string, const qorVariant*> b, l, r;
        std::vector<std::string> names, expected;
        const auto fill = [&](auto& map, const qorAttributeSet& set) {
            for (const auto& [name, value] : set->Attributes()) {
                map[std::string(std::string_view(name))] = &value;
                names.emplace_back(std::string_view(name));
            }
        };
        fill(b, base);
        fill(l, left);
        fill(r, right);
        std::sort(names.begin(), names.end());
        names.erase(std::unique(names.begin(), names.end()), names.end());
        qorAttributeSet merged;
        const auto same = [](const qorVariant* x, const qorVariant* y) {
            return x == nullptr || y == nullptr ? x == y : *x == *y;
        };
        for (const std::string& name : names) {
            const qorVariant *x = b[name], *y = l[name], *z = r[name];
            if (!same(x, y) && !same(x, z) && !same(y, z))
                expected.push_back(name);
            const qorVariant* const result = !same(x, y) ? y : z;
            if (result != nullptr)
                merged->Set(name, *result);
        }
        qorStringArray conflicts;
        EXPECT_EQ(one->Merge(other, conflicts), expected.empty());
        std::vector<std::string> named;
        for (const qorString& each : conflicts)
            named.emplace_back(std::string_view(each));
        std::sort(named.begin(), named.end());
        EXPECT_EQ(named, expected);
        if (!expected.empty()) {
            EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_delta_conflict));
        }
        qorAttributeSet result(base);
        EXPECT_TRUE(one->Apply(result));
        EXPECT_TRUE(result == merged);
        EXPECT_TRUE(one->Merge(one, conflicts));
    }
}

TEST(attribute_set_array, does_what_an_array_does) {
    qorAttributeSetArray array;
    for (const int number : {3, 1, 2, 1}) {
        qorAttributeSet set;
        set->Set("number", number);
        set->Set("place", array->GetCount());
        array->Append(set);
    }
    array->AppendNew()->Set("other", 1);
    EXPECT_EQ(array->Find("number", 1, 2), 3);
    EXPECT_EQ(array->Find("number", 4, 0), -1);
    array->SortBy("number", true);
    std::string order;
    for (IQORAttributeSet* const each : array)
        order += std::to_string((*each)["place"].AsInt64().value_or(-1)) + " ";
    EXPECT_EQ(order, "-1 1 3 2 0 ");
    array->SortBy("number", false);
    EXPECT_EQ((*array->GetElements()[2])["place"], 1);
    EXPECT_EQ((*array->GetElements()[3])["place"], 3);

    qorAttributeSetArray copy(array), back;
    EXPECT_TRUE(copy == array);
    EXPECT_EQ(copy->GetHash(), array->GetHash());
    copy->GetElements()[0]->Set("place", 9); // a copy of its own
    EXPECT_FALSE(copy == array);
    EXPECT_TRUE(read(*back.Interface(), written(*array.Interface())));
    EXPECT_TRUE(back == array);
    refuses_each_beginning(array);
    array->InsertAt(0, array->GetElements()[1]);
    EXPECT_EQ(array->GetCount(), 6u);
    array->RemoveAt(1, 10);
    EXPECT_EQ(array->GetCount(), 1u);
    EXPECT_TRUE(array->Copy(array));
    array->Empty();
    EXPECT_EQ(array->GetCount(), 0u);
}

TEST(attribute_delta_array, is_a_history) {
    std::mt19937 random(5);
    qorAttributeSetDeltaArray history;
    const qorAttributeSet first = random_set(random, 15);
    qorAttributeSet last(first);
    for (int i = 0; i < 20; ++i) {
        const qorAttributeSet next = random_set(random, 15);
        history->AppendNew()->SetDifference(last, next);
        last = next;
    }
    qorAttributeSet set(first);
    EXPECT_TRUE(history->Apply(set));
    EXPECT_TRUE(set == last);
    EXPECT_FALSE(history->Apply(set)) << "it does not begin here";
    EXPECT_TRUE(set == last);
    qorAttributeSetDeltaArray back(history), stored;
    back->Invert();
    EXPECT_TRUE(back->Apply(set));
    EXPECT_TRUE(set == first);
    EXPECT_TRUE(read(*stored.Interface(), written(*history.Interface())));
    EXPECT_TRUE(stored == history);
    EXPECT_EQ(stored->GetHash(), history->GetHash());
    history->RemoveAt(10, 1);
    EXPECT_FALSE(history->Apply(set)) << "a step is missing";
    EXPECT_TRUE(set == first);
    refuses_each_beginning(history);
}

} // namespace
