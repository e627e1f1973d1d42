#include "numeric_array_support.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <random>

namespace {

using qor::test::recording_table;
using calls = std::vector<std::string>;

template <class ARRAY>
struct numeric_array_model : testing::Test {};
TYPED_TEST_SUITE(numeric_array_model, numeric_arrays, class_names);

// ---- long random runs, compared with a plain model
template <class ELEMENT>
ELEMENT random_element(std::mt19937& random) {
    static const auto values = corners<ELEMENT>();
    if (random() % 2 == 0)
        return static_cast<ELEMENT>(random() % 16);
    return values[random() % values.size()];
}

template <class ELEMENT>
bool same_bytes(const std::vector<ELEMENT>& left, const ELEMENT* right, uint32 count) {
    return left.size() == count && (count == 0 || std::memcmp(left.data(), right, count * sizeof(ELEMENT)) == 0);
}

TYPED_TEST(numeric_array_model, does_what_a_plain_vector_does) {
    using element = element_of<TypeParam>;
    using values = std::vector<element_of<TypeParam>>;
    std::mt19937 random(3);
    recording_table table;
    TypeParam array, other;
    values model;
    const auto run = [&random] {
        values result(random() % 6);
        for (auto& value : result)
            value = random_element<element>(random);
        return result;
    };
    const auto find = [&model](element value) {
        for (std::size_t i = 0; i < model.size(); ++i)
            if (model[i] == value)
                return static_cast<int32>(i);
        return -1;
    };
    for (int step = 0; step < 20000; ++step) {
        const auto size = static_cast<uint32>(model.size());
        const uint32 index = random() % (size + 3);
        const uint32 within = std::min(index, size);
        const uint32 count = random() % 6;
        const values fresh = run();
        const element value = random_element<element>(random);
        const element* added;
        calls reports;
        switch (random() % 16) {
        case 0:
        case 1:
            added = array.Append(value);
            ASSERT_EQ(added, array.GetElementPtr(size));
            model.push_back(value);
            break;
        case 2:
            array.Append(fresh.data(), static_cast<uint32>(fresh.size()));
            model.insert(model.end(), fresh.begin(), fresh.end());
            break;
        case 3:
            added = array.InsertAt(index, value);
            ASSERT_EQ(added, array.GetElementPtr(within));
            model.insert(model.begin() + within, value);
            break;
        case 4:
            array.InsertAt(index, fresh.data(), static_cast<uint32>(fresh.size()));
            model.insert(model.begin() + within, fresh.begin(), fresh.end());
            break;
        case 5:
        case 6:
        case 7:
            if (count != 0 && index + count > size)
                reports = {cut_range<TypeParam>()};
            array.RemoveAt(index, count);
            model.erase(model.begin() + within, model.begin() + within + std::min(count, size - within));
            break;
        case 8: {
            const bool is_new = find(value) < 0;
            ASSERT_EQ(array.AddUnique(value), is_new);
            if (is_new)
                model.push_back(value);
            break;
        }
        case 9: {
            const int32 found = find(value);
            ASSERT_EQ(array.Find(value), found);
            ASSERT_EQ(array.IsPresent(value), found >= 0);
            ASSERT_EQ(array.RemoveUnique(value), found >= 0);
            if (found >= 0)
                model.erase(model.begin() + found);
            break;
        }
        case 10: {
            array.SetCount(index);
            const element* const data = array.GetDataPtr();
            if (index > size) // the new elements are unspecified
                model.insert(model.end(), data + size, data + index);
            else
                model.resize(index);
            break;
        }
        case 11:
            array.SetAlloc(size + count);
            break;
        case 12:
            if (size < 64) {
                array.Append(array);
                const values twice = model;
                model.insert(model.end(), twice.begin(), twice.end());
            }
            break;
        case 13:
            other.Copy(array);
            ASSERT_TRUE(same_bytes(model, other.GetDataPtr(), other.GetCount()));
            ASSERT_TRUE(array.IsIdentical(other));
            other.Append(value);
            ASSERT_FALSE(array.IsIdentical(other));
            break;
        case 14: {
            // Whatever the order, a sort keeps the elements. Elements with equal bytes are equal here.
            array.Sort(random() % 2 == 0);
            const auto by_bytes = [](element left, element right) {
                return std::memcmp(&left, &right, sizeof(element)) < 0;
            };
            values sorted = content(array);
            std::sort(sorted.begin(), sorted.end(), by_bytes);
            std::sort(model.begin(), model.end(), by_bytes);
            ASSERT_TRUE(same_bytes(model, sorted.data(), static_cast<uint32>(sorted.size())));
            model = content(array);
            break;
        }
        default:
            if (random() % 20 == 0) {
                random() % 2 == 0 ? array.Copy(array) : array.Empty();
                model.clear();
            } else {
                array.Append(other);
                model.insert(model.end(), other.GetDataPtr(), other.GetDataPtr() + other.GetCount());
                array.SetCount(static_cast<uint32>(std::min<std::size_t>(model.size(), 100)));
                model.resize(array.GetCount());
            }
        }
        const calls noted = table.take();
        calls assertions;
        std::copy_if(noted.begin(), noted.end(), std::back_inserter(assertions),
                     [](const std::string& call) { return call.starts_with("qorAssertFailed"); });
        ASSERT_EQ(assertions, reports) << "step " << step;
        ASSERT_EQ(array.IsEmpty(), model.empty()) << "step " << step;
        ASSERT_TRUE(same_bytes(model, array.GetDataPtr(), array.GetCount())) << "step " << step;
    }
}

} // namespace
