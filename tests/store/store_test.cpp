// Object stores: sets, versions, ranges, walks, transactions, migration. A std::map is the model.
#include "qor/qor.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using store_pointer = zetSmartPointer<IQORObjectStore>;

uint32 last_error() {
    qorString text;
    return qorGetLastError(text);
}

std::string last_text() {
    qorString text;
    qorGetLastError(text);
    return text.Text();
}

qorAttributeSet number(int64 value) {
    qorAttributeSet set;
    set->Set("number", value);
    return set;
}

int64 number_in(const std::optional<qorAttributeSet>& set) {
    return set ? (*set)->Find("number")->AsInt64().value_or(-2) : -1;
}

struct object_stores : testing::Test {
    qor::test::temp_folder folder;
    const std::string path = folder / "a store";

    store_pointer open(const qorObjectStoreOptions& options = {.synced = false}) const {
        store_pointer made;
        EXPECT_TRUE(qorOpenObjectStore(path.c_str(), options, made.Out())) << last_text();
        return made;
    }
    uint32 refusal(const qorObjectStoreOptions& options) const {
        store_pointer made;
        EXPECT_FALSE(qorOpenObjectStore(path.c_str(), options, made.Out()));
        EXPECT_TRUE(made.IsEmpty());
        return last_error();
    }
};

std::vector<std::string> keys(const qorStoreWalk& walk) {
    std::vector<std::string> all;
    for (const qorStoreEntry& each : walk)
        all.emplace_back(std::string_view(each.key));
    EXPECT_FALSE(walk.HasFailed()) << last_text();
    return all;
}

using texts = std::vector<std::string>;

TEST_F(object_stores, keep_sets) {
    qorAttributeSet all;
    ASSERT_TRUE(all->ReadJson(R"({"a": [1, null, {"b": true}], "c": 18446744073709551615, "d": -0.5, "e": "\u00e9"})"));
    all->Set("bytes", qorVariant::Bytes(std::as_bytes(std::span("a\0b", 3))));
    all->Set("time", qorVariant::Time(7));
    {
        const store_pointer store = open();
        ASSERT_TRUE(store->Put("key", all)) << last_text();
        ASSERT_TRUE(store->Put("", number(3)));
        ASSERT_TRUE(store->Put(std::string("with\0nul", 8), number(4)));
    }
    const store_pointer store = open({.mode = qorStoreMode::read_only});
    EXPECT_EQ(store->Find("key"), all);
    EXPECT_EQ(number_in(store->Find("")), 3);
    EXPECT_EQ(number_in(store->Find(std::string("with\0nul", 8))), 4);
    EXPECT_FALSE(store->Find("with"));
    qorString at;
    store->GetPath(at);
    EXPECT_EQ(at, path.c_str());
}

TEST_F(object_stores, tell_of_the_changes_of_others) {
    const store_pointer one = open(), other = open();
    uint64 version = 0;
    ASSERT_TRUE(one->Put("key", number(1), 0, version));
    const uint64 first = version;
    EXPECT_NE(first, 0u);
    uint64 seen = 0;
    ASSERT_TRUE(other->GetVersion("key", seen));
    EXPECT_EQ(seen, first);
    uint64 theirs = seen;
    ASSERT_TRUE(other->PutIf("key", number(2), theirs));
    EXPECT_GT(theirs, first);
    EXPECT_FALSE(one->PutIf("key", number(3), version));
    EXPECT_EQ(last_error(), qorError_store_conflict);
    EXPECT_NE(last_text().find("'key'"), std::string::npos);
    EXPECT_EQ(version, first);
    EXPECT_EQ(number_in(one->Find("key")), 2);
    // A set that was removed and made again is another one.
    bool existed = false;
    EXPECT_FALSE(one->Remove("key", first, existed));
    ASSERT_TRUE(one->Remove("key", theirs, existed));
    EXPECT_TRUE(existed);
    ASSERT_TRUE(one->Put("key", number(4), 0, version));
    EXPECT_NE(version, theirs);
    EXPECT_FALSE(other->PutIf("key", number(5), theirs));
    uint64 none = 0;
    EXPECT_FALSE(other->PutIf("key", number(5), none));
    ASSERT_TRUE(other->Remove("none", qorAnyVersion, existed));
    EXPECT_FALSE(existed);
    EXPECT_FALSE(other->Remove("key", 0, existed));
    EXPECT_TRUE(other->Remove("none", 0, existed));
}

TEST_F(object_stores, give_each_version_once) {
    std::map<uint64, int> given;
    uint64 last_of_key = 0;
    const store_pointer one = open(), other = open();
    std::mt19937 random(1);
    for (int i = 0; i < 3000; ++i) {
        const store_pointer& by = random() % 2 != 0 ? one : other;
        uint64 version = 0;
        if (random() % 10 != 0) {
            ASSERT_TRUE(by->Put("key", number(i), qorAnyVersion, version)) << last_text();
            EXPECT_GT(version, last_of_key);
            last_of_key = version;
            EXPECT_EQ(given[version]++, 0);
        } else { // what was undone is not given out again
            ASSERT_TRUE(by->Begin(qorStoreAccess::write));
            for (int each = 0; each < 300; ++each) {
                ASSERT_TRUE(by->Put("undone", number(i), qorAnyVersion, version));
                EXPECT_EQ(given[version]++, 0);
            }
            ASSERT_TRUE(by->Rollback());
        }
    }
}

TEST_F(object_stores, walk_in_order) {
    const store_pointer store = open();
    std::vector<std::string> all;
    for (const char* key : {"a", "b", "b\x01", "ba", "bb", "b\xff", "b\xff\xff", "c", "\xff", "\xff\xff"})
        all.emplace_back(key);
    all.emplace_back("");
    for (const std::string& each : all)
        ASSERT_TRUE(store->Put(each, number(1)));
    std::sort(all.begin(), all.end()); // std::string compares unsigned bytes, too
    EXPECT_EQ(keys(store->Sets()), all);
    EXPECT_EQ(keys(store->Sets({.prefix = "b"})), (texts{"b", "b\x01", "ba", "bb", "b\xff", "b\xff\xff"}));
    EXPECT_EQ(keys(store->Sets({.prefix = "\xff"})), (texts{"\xff", "\xff\xff"}));
    EXPECT_EQ(keys(store->Sets({.prefix = "b\xff"})), (texts{"b\xff", "b\xff\xff"}));
    EXPECT_EQ(keys(store->Sets({.prefix = "b", .from = "ba", .below = "bb"})), texts{"ba"});
    EXPECT_EQ(keys(store->Sets({.from = "bb", .below = "c"})), (texts{"bb", "b\xff", "b\xff\xff"}));
    EXPECT_EQ(keys(store->Sets({.from = "c", .below = "b"})), texts{});
    std::reverse(all.begin(), all.end());
    EXPECT_EQ(keys(store->Sets({.backward = true})), all);
    EXPECT_EQ(keys(store->Sets({.prefix = "b", .from = "bb", .backward = true})), (texts{"b\xff\xff", "b\xff", "bb"}));
    uint64 count = 0;
    ASSERT_TRUE(store->CountRange({.prefix = "b"}, count));
    EXPECT_EQ(count, 6u);
    ASSERT_TRUE(store->RemoveRange({.prefix = "b", .from = "ba"}, count));
    EXPECT_EQ(count, 4u);
    ASSERT_TRUE(store->CountRange({}, count));
    EXPECT_EQ(count, 7u);
}

TEST_F(object_stores, walk_while_they_change) {
    const store_pointer store = open();
    for (int i = 100; i < 400; ++i)
        ASSERT_TRUE(store->Put(std::to_string(i), number(i)));
    int seen = 0;
    for (const qorStoreEntry& each : store->Sets()) {
        const int key = std::stoi(std::string(std::string_view(each.key)));
        EXPECT_EQ(number_in(each.Value()), key % 4 == 3 ? -key : key);
        EXPECT_EQ(std::strlen(each.key.text), 3u);
        ASSERT_TRUE(store->Remove(each.key));
        if (key % 4 == 0) { // the next one is not there any more, and the one behind it is another
            ASSERT_TRUE(store->Remove(std::to_string(key + 1)));
            ASSERT_TRUE(store->Put(std::to_string(key + 3), number(-key - 3)));
        }
        ++seen;
    }
    EXPECT_EQ(seen, 225); // 401 and 403 are behind the last one
    zetSmartPointer<IQORObjectStoreCursor> walk;
    ASSERT_TRUE(store->Walk({}, walk.Out()));
    EXPECT_FALSE(walk->Next());
    EXPECT_FALSE(walk->HasFailed());
    ASSERT_TRUE(store->Put("new", number(1)));
    EXPECT_TRUE(walk->Next());
}

TEST_F(object_stores, undo_transactions) {
    const store_pointer store = open(), other = open();
    ASSERT_TRUE(store->Put("a", number(1)));
    {
        qorStoreTransaction outer(*store);
        ASSERT_TRUE(outer);
        ASSERT_TRUE(store->Put("a", number(2)));
        {
            qorStoreTransaction inner(*store);
            ASSERT_TRUE(store->Put("a", number(3)) && store->Put("b", number(3)));
        }
        EXPECT_EQ(number_in(store->Find("a")), 2);
        EXPECT_FALSE(store->Find("b"));
        {
            qorStoreTransaction inner(*store);
            ASSERT_TRUE(store->Put("c", number(4)));
            ASSERT_TRUE(inner.Commit());
            EXPECT_FALSE(inner);
            EXPECT_FALSE(inner.Commit());
        }
        EXPECT_EQ(number_in(other->Find("a")), 1); // readers do not wait
        ASSERT_TRUE(outer.Commit());
    }
    EXPECT_EQ(number_in(other->Find("a")), 2);
    EXPECT_EQ(number_in(other->Find("c")), 4);
    EXPECT_FALSE(store->Commit());
    EXPECT_EQ(last_error(), qorError_store_transaction);
    EXPECT_FALSE(store->Rollback());
}

TEST_F(object_stores, read_one_state) {
    const store_pointer store = open(), other = open();
    ASSERT_TRUE(store->Put("a", number(1)));
    ASSERT_TRUE(store->Begin(qorStoreAccess::read));
    ASSERT_TRUE(other->Put("a", number(2)));
    EXPECT_EQ(number_in(store->Find("a")), 1);
    EXPECT_FALSE(store->Put("a", number(3)));
    EXPECT_EQ(last_error(), qorError_store_transaction);
    EXPECT_FALSE(store->Begin(qorStoreAccess::write));
    ASSERT_TRUE(store->Begin(qorStoreAccess::read));
    ASSERT_TRUE(store->Commit());
    ASSERT_TRUE(store->Commit());
    EXPECT_EQ(number_in(store->Find("a")), 2);
    // In a transaction that writes, a part that only reads.
    ASSERT_TRUE(store->Begin(qorStoreAccess::write));
    ASSERT_TRUE(store->Begin(qorStoreAccess::read));
    EXPECT_FALSE(store->Put("a", number(3)));
    ASSERT_TRUE(store->Commit());
    ASSERT_TRUE(store->Put("a", number(3)));
    ASSERT_TRUE(store->Commit());
}

TEST_F(object_stores, give_up_waiting) {
    const store_pointer store = open(), other = open({.synced = false, .wait = 50});
    ASSERT_TRUE(store->Begin(qorStoreAccess::write));
    EXPECT_FALSE(other->Put("a", number(1)));
    EXPECT_EQ(last_error(), qorError_store_busy);
    EXPECT_NE(last_text().find(path), std::string::npos);
    EXPECT_FALSE(other->Begin(qorStoreAccess::write));
    EXPECT_EQ(last_error(), qorError_store_busy);
    EXPECT_FALSE(other->Find("a"));
    ASSERT_TRUE(store->Commit());
    ASSERT_TRUE(other->Put("a", number(1)));
}

TEST_F(object_stores, serve_threads) {
    { const store_pointer made = open(); }
    constexpr int times = 100;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([&] {
            const store_pointer store = open({.synced = false, .wait = 0});
            for (int i = 0; i < times; ++i) {
                qorStoreTransaction add(*store);
                const auto before = store->Find("sum");
                ASSERT_TRUE(add && store->Put("sum", number(before ? number_in(before) + 1 : 1)) && add.Commit())
                    << last_text();
            }
        });
    for (std::thread& each : threads)
        each.join();
    EXPECT_EQ(number_in(open()->Find("sum")), 4 * times);
}

TEST_F(object_stores, agree_with_a_map) {
    std::mt19937 random(7);
    std::map<std::string, std::pair<int64, uint64>> model, before;
    std::vector<store_pointer> stores = {open(), open(), open()};
    std::size_t writer = 0; // the one with a transaction, or none
    bool is_open = false;
    for (int i = 0; i < 6000; ++i) {
        if (!is_open)
            writer = random() % stores.size();
        IQORObjectStore* const store = *stores[writer];
        const std::string key(random() % 4, static_cast<char>("ab\xff"[random() % 3]));
        const auto found = model.find(key);
        const uint64 has = found != model.end() ? found->second.second : 0;
        uint64 version = 0;
        bool existed = false;
        switch (random() % 8) {
        case 0:
        case 1:
            ASSERT_TRUE(store->Put(key, number(i), qorAnyVersion, version)) << last_text();
            model[key] = {i, version};
            break;
        case 2: {
            const uint64 expected = random() % 3 == 0 ? random() % 5000 : has;
            if (store->Put(key, number(i), expected, version)) {
                ASSERT_EQ(expected, has);
                model[key] = {i, version};
            } else {
                ASSERT_EQ(last_error(), qorError_store_conflict) << last_text();
                ASSERT_NE(expected, has);
            }
            break;
        }
        case 3:
            ASSERT_TRUE(store->Remove(key, qorAnyVersion, existed));
            ASSERT_EQ(existed, model.erase(key) != 0);
            break;
        case 4: {
            qorAttributeSet set;
            ASSERT_TRUE(store->Get(key, set, version));
            ASSERT_EQ(version, has);
            ASSERT_EQ(set->GetCount(), has != 0 ? 1u : 0u);
            if (has != 0) {
                ASSERT_EQ(set->Find("number")->AsInt64(), found->second.first);
            }
            break;
        }
        case 5: {
            const std::string from(random() % 3, 'a'), below(random() % 3, 'b');
            std::vector<std::string> expected;
            for (const auto& [each, value] : model)
                if (each >= from && (below.empty() || each < below))
                    expected.push_back(each);
            const bool backward = random() % 2 != 0;
            if (backward)
                std::reverse(expected.begin(), expected.end());
            ASSERT_EQ(keys(store->Sets({.from = from, .below = below, .backward = backward})), expected);
            break;
        }
        default:
            if (!is_open) {
                ASSERT_TRUE(store->Begin(qorStoreAccess::write));
                before = model;
                is_open = true;
            } else if (random() % 4 == 0) {
                const bool keeps = random() % 2 != 0;
                ASSERT_TRUE(keeps ? store->Commit() : store->Rollback());
                if (!keeps)
                    model = before;
                is_open = false;
            }
        }
        if (random() % 500 == 0 && !is_open)
            stores[writer] = open();
    }
    if (is_open) {
        ASSERT_TRUE(stores[writer]->Commit());
    }
    qorStringArray findings;
    EXPECT_TRUE(stores[0]->Check(findings)) << last_text();
}

// ---- schemas

bool add_mark(IQORObjectStore* store, uint32 from, void* context) noexcept {
    auto& steps = *static_cast<std::vector<uint32>*>(context);
    steps.push_back(from);
    EXPECT_FALSE(store->Commit()); // that of the migration
    return store->Put("mark " + std::to_string(from), number(from));
}

TEST_F(object_stores, migrate) {
    std::vector<uint32> steps;
    const qorObjectStoreOptions second{.synced = false, .schema = 2, .migrate = &add_mark, .context = &steps};
    EXPECT_EQ(open(second)->GetSchema(), 2u); // a new one has nothing to migrate
    EXPECT_EQ(steps, std::vector<uint32>{});
    EXPECT_EQ(open()->GetSchema(), 2u); // any
    qorObjectStoreOptions fourth = second;
    fourth.schema = 4;
    fourth.migrate = nullptr;
    EXPECT_EQ(refusal(fourth), qorError_store_older);
    fourth.migrate = [](IQORObjectStore* store, uint32 from, void* context) noexcept {
        return add_mark(store, from, context) && from != 3;
    };
    EXPECT_EQ(refusal(fourth), qorError_store_not_migrated);
    EXPECT_NE(last_text().find("from schema 2 to 4"), std::string::npos);
    EXPECT_EQ(steps, (std::vector<uint32>{2, 3}));
    EXPECT_FALSE(open()->Find("mark 2")); // all steps, or none
    fourth.migrate = &add_mark;
    steps.clear();
    const store_pointer store = open(fourth);
    EXPECT_EQ(store->GetSchema(), 4u);
    EXPECT_EQ(steps, (std::vector<uint32>{2, 3}));
    EXPECT_EQ(number_in(store->Find("mark 3")), 3);
    EXPECT_EQ(open(fourth)->GetSchema(), 4u);
    EXPECT_EQ(refusal(second), qorError_store_newer);
    EXPECT_NE(last_text().find(path), std::string::npos);
}

// ---- refusals

TEST_F(object_stores, that_are_none_are_refused) {
    EXPECT_EQ(refusal({.mode = qorStoreMode::open}), qorError_store_missing);
    EXPECT_EQ(refusal({.mode = qorStoreMode::read_only}), qorError_store_missing);
    EXPECT_FALSE(std::filesystem::exists(path));
    folder.file("a store",
                "This is a text, and one that is longer than the head of a database: " + std::string(200, '.'));
    EXPECT_EQ(refusal({}), qorError_store_not_ours);
    EXPECT_NE(last_text().find(path), std::string::npos);
    EXPECT_EQ(qor::test::read_file(path).substr(0, 14), "This is a text");
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_EQ(refusal({}), qorError_no_disk_file);
    store_pointer made;
    EXPECT_FALSE(qorOpenObjectStore("", made.Out()));
    EXPECT_FALSE(qorOpenObjectStore((path + "/no folder/x").c_str(), made.Out()));
    EXPECT_EQ(last_error(), qorError_store_failed);
}

TEST_F(object_stores, have_limits) {
    const store_pointer store = open();
    EXPECT_TRUE(store->Put(std::string(qorMaxStoreKey, 'k'), number(1)));
    EXPECT_FALSE(store->Put(std::string(qorMaxStoreKey + 1, 'k'), number(1)));
    EXPECT_EQ(last_error(), qorError_store_too_large);
    const store_pointer reader = open({.mode = qorStoreMode::read_only});
    EXPECT_FALSE(reader->Put("a", number(1)));
    EXPECT_EQ(last_error(), qorError_store_read_only);
    EXPECT_FALSE(reader->Begin(qorStoreAccess::write));
    EXPECT_EQ(number_in(reader->Find(std::string(qorMaxStoreKey, 'k'))), 1);
}

TEST_F(object_stores, keep_large_sets) {
    qorAttributeSet large;
    large->Set("text", std::string(5'000'000, 't'));
    const store_pointer store = open();
    ASSERT_TRUE(store->Put("large", large));
    EXPECT_EQ(store->Find("large"), large);
}

// ---- damage

std::string damaged(std::string bytes, std::size_t from, std::size_t count) {
    for (std::size_t i = from; i < from + count && i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(bytes[i] ^ 0x5a);
    return bytes;
}

TEST_F(object_stores, save_what_can_be_saved) {
    std::map<std::string, int64> model;
    {
        const store_pointer store = open({.synced = false, .schema = 9});
        qorStoreTransaction all(*store);
        for (int i = 0; i < 2000; ++i) {
            qorAttributeSet set = number(i);
            set->Set("text", std::string(static_cast<std::size_t>(i % 100 == 0 ? 30000 : i % 90), 'x'));
            const std::string key = "key " + std::to_string(i * 7919 % 10007);
            ASSERT_TRUE(store->Put(key, set));
            model[key] = i;
        }
        ASSERT_TRUE(all.Commit());
    }
    const std::string whole = qor::test::read_file(path);
    const std::size_t pages = whole.size() / 4096;
    std::mt19937 random(3);
    for (int round = 0; round < 12; ++round) {
        const std::size_t page = round == 0 ? 0 : 1 + random() % (pages - 1);
        folder.file("a store", damaged(whole, page * 4096, round == 1 ? 16 : 4096));
        const std::string saved = folder / ("saved " + std::to_string(round));
        const store_pointer broken = open({.mode = qorStoreMode::damaged});
        qorStringArray findings;
        EXPECT_FALSE(broken->Check(findings)) << page;
        EXPECT_EQ(last_error(), qorError_store_damaged) << last_text();
        EXPECT_NE(findings.GetCount(), 0u);
        qorStoreRescue report;
        ASSERT_TRUE(broken->Rescue(saved.c_str(), report)) << last_text();
        EXPECT_FALSE(broken->Rescue(saved.c_str(), report));
        EXPECT_EQ(last_error(), qorError_store_exists);
        store_pointer store;
        ASSERT_TRUE(qorOpenObjectStore(saved.c_str(), {.synced = false}, store.Out())) << last_text();
        EXPECT_TRUE(store->Check(findings)) << last_text();
        uint64 count = 0;
        ASSERT_TRUE(store->CountRange({}, count));
        EXPECT_EQ(count, report.sets);
        EXPECT_EQ(report.pages, pages);
        // A page holds at most so many sets, and one set lies on at most so many pages.
        EXPECT_GT(count + 100, model.size()) << page;
        if (page == 0) {
            EXPECT_EQ(count, model.size());
        }
        for (const qorStoreEntry& each : store->Sets())
            EXPECT_EQ(number_in(each.Value()), model.at(std::string(std::string_view(each.key))));
        EXPECT_TRUE(store->Put("new", number(1))) << last_text();
        EXPECT_EQ(qor::test::read_file(path).size(), whole.size()); // the old one is kept
    }
}

TEST_F(object_stores, check_themselves) {
    const store_pointer store = open();
    for (int i = 0; i < 1000; ++i)
        ASSERT_TRUE(store->Put(std::to_string(i), number(i)));
    qorStringArray findings;
    EXPECT_TRUE(store->Check(findings));
    EXPECT_EQ(findings.GetCount(), 0u);
    const std::string copy = folder / "copy";
    ASSERT_TRUE(store->CopyTo(copy.c_str())) << last_text();
    EXPECT_FALSE(store->CopyTo(copy.c_str()));
    EXPECT_EQ(last_error(), qorError_store_exists);
    store_pointer other;
    ASSERT_TRUE(qorOpenObjectStore(copy.c_str(), other.Out())) << last_text();
    EXPECT_EQ(keys(other->Sets()), keys(store->Sets()));
    EXPECT_TRUE(other->Check(findings));
}

} // namespace
