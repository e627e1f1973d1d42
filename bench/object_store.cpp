// Compares an object store with bare SQLite: the same table, settings and bytes, with prepared statements that are
// kept.
//
//   object_store_bench [--brief] [FOLDER]
//
// Prints microseconds for an operation: medians of interleaved rounds. Then it opens a store of 1 million sets and one
// of 10, and counts the bytes that opening reads. The exit code is 1 if a get or a put takes more than 1.5 times as
// long as bare SQLite's, or if opening reads more than 256 KiB or takes more than 3 times as long. A brief run uses
// fewer sets and never fails because of a time.
#include "qor/qor.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <sqlite3.h>
#include <string>
#include <vector>

namespace {

constexpr double limit = 1.5;
constexpr double most_to_open = 3;
constexpr uint64 most_read = 256 * 1024;

bool is_brief = false;
bool has_failed = false;

[[noreturn]] void end(const char* text) {
    std::fprintf(stderr, "%s\n", text);
    fputerr(stderr, true);
    std::exit(2);
}

void must(bool is_good, const char* what) {
    if (!is_good)
        end(what);
}

using clock_type = std::chrono::steady_clock;

double microseconds(clock_type::duration time) { return std::chrono::duration<double, std::micro>(time).count(); }

double median(std::vector<double> all) {
    std::nth_element(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(all.size() / 2), all.end());
    return all[all.size() / 2];
}

std::string key_of(uint64 number) {
    char text[24];
    std::snprintf(text, sizeof text, "user/%010llu", static_cast<unsigned long long>(number));
    return text;
}

// A set like those that programs keep: a few texts and numbers.
qorAttributeSet set_of(uint64 number) {
    qorAttributeSet set;
    set->Set("name", "Ann Example");
    set->Set("mail", "ann@example.org");
    set->Set("number", number);
    set->Set("is active", true);
    return set;
}

std::string bytes_of(IQORAttributeSet* set) {
    zetSmartPointer<IQORMemoryDataSink> sink;
    create_IQORMemoryDataSink(sink.Out());
    must(set->Write(*sink), "Write");
    return {static_cast<const char*>(sink->GetData()), sink->GetSize()};
}

// The peer.
class bare {
public:
    bare(const std::string& path, bool is_synced) {
        must(sqlite3_open_v2(path.c_str(), &m_database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) ==
                 SQLITE_OK,
             "sqlite3_open_v2");
        run("PRAGMA journal_mode = WAL; PRAGMA cell_size_check = ON; PRAGMA mmap_size = 0; PRAGMA secure_delete = FAST;"
            "PRAGMA journal_size_limit = 67108864");
        run(is_synced ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
        m_get = prepare("SELECT version, value FROM sets WHERE key = ?1");
        m_put =
            prepare("INSERT INTO sets VALUES (?1, ?2, ?3) ON CONFLICT (key) DO UPDATE SET version = ?2, value = ?3");
    }
    bare(const bare&) = delete;
    bare& operator=(const bare&) = delete;
    ~bare() {
        sqlite3_finalize(m_get);
        sqlite3_finalize(m_put);
        sqlite3_close(m_database);
    }

    void run(const char* sql) { must(sqlite3_exec(m_database, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql); }
    void put(const std::string& key, uint64 version, const std::string& value) {
        bind(m_put, 1, key);
        sqlite3_bind_int64(m_put, 2, static_cast<sqlite3_int64>(version));
        bind(m_put, 3, value);
        must(sqlite3_step(m_put) == SQLITE_DONE, "put");
        sqlite3_reset(m_put);
    }
    void get(const std::string& key, std::string& value) {
        bind(m_get, 1, key);
        must(sqlite3_step(m_get) == SQLITE_ROW, "get");
        value.assign(static_cast<const char*>(sqlite3_column_blob(m_get, 1)),
                     static_cast<std::size_t>(sqlite3_column_bytes(m_get, 1)));
        sqlite3_reset(m_get);
    }

private:
    sqlite3_stmt* prepare(const char* sql) {
        sqlite3_stmt* made = nullptr;
        must(sqlite3_prepare_v3(m_database, sql, -1, SQLITE_PREPARE_PERSISTENT, &made, nullptr) == SQLITE_OK, sql);
        return made;
    }
    static void bind(sqlite3_stmt* statement, int index, const std::string& bytes) {
        sqlite3_bind_blob64(statement, index, bytes.data(), bytes.size(), SQLITE_STATIC);
    }

    sqlite3* m_database = nullptr;
    sqlite3_stmt* m_get = nullptr;
    sqlite3_stmt* m_put = nullptr;
};

zetSmartPointer<IQORObjectStore> open(const std::string& path, bool is_synced = false) {
    zetSmartPointer<IQORObjectStore> store;
    must(qorOpenObjectStore(path.c_str(), {.synced = is_synced}, store.Out()), "qorOpenObjectStore");
    return store;
}

// Fills a store, and a second file with the same content for the peer.
void fill(const std::string& path, uint64 count) {
    {
        const auto store = open(path);
        qorStoreTransaction all(*store);
        for (uint64 i = 0; i < count; ++i)
            must(store->Put(key_of(i), set_of(i)), "Put");
        must(all.Commit(), "Commit");
    }
    must(open(path)->CopyTo((path + ".peer").c_str()), "CopyTo");
}

template <class OURS, class PEER>
void compare(const char* what, int rounds, uint64 operations, OURS ours, PEER peer) {
    std::vector<double> ours_all, peer_all;
    for (int round = 0; round < rounds; ++round) {
        const auto begin = clock_type::now();
        peer();
        const auto middle = clock_type::now();
        ours();
        peer_all.push_back(microseconds(middle - begin) / static_cast<double>(operations));
        ours_all.push_back(microseconds(clock_type::now() - middle) / static_cast<double>(operations));
    }
    const double ratio = median(ours_all) / median(peer_all);
    std::printf("%-34s  SQLite %8.2f  store %8.2f  ratio %.2f\n", what, median(peer_all), median(ours_all), ratio);
    has_failed = has_failed || (!is_brief && ratio > limit);
}

void compare_all(const std::string& path, uint64 count, bool is_synced) {
    const auto store = open(path, is_synced);
    bare peer(path + ".peer", is_synced);
    std::mt19937_64 random(1);
    const uint64 operations = is_brief ? 200 : is_synced ? 300 : 20'000;
    const int rounds = is_brief ? 1 : 7;
    std::vector<std::string> keys(operations);
    for (std::string& each : keys)
        each = key_of(random() % count);
    const qorAttributeSet set = set_of(1);
    const std::string bytes = bytes_of(set);
    uint64 number = uint64{1} << 40;
    const auto put_ours = [&] {
        for (const std::string& key : keys)
            must(store->Put(key, set), "Put");
    };
    const auto put_peer = [&] {
        for (const std::string& key : keys)
            peer.put(key, ++number, bytes);
    };
    if (is_synced) {
        compare("put, each synced", rounds, operations, put_ours, put_peer);
        return;
    }
    qorAttributeSet out;
    std::string value;
    uint64 version = 0;
    const auto get_ours = [&] {
        for (const std::string& key : keys)
            must(store->Get(key, out, version), "Get");
    };
    const auto get_peer = [&] {
        for (const std::string& key : keys)
            peer.get(key, value);
    };
    compare("get", rounds, operations, get_ours, get_peer);
    compare(
        "get, in a transaction", rounds, operations,
        [&] {
            const qorStoreTransaction all(*store, qorStoreAccess::read);
            get_ours();
        },
        [&] {
            peer.run("BEGIN");
            get_peer();
            peer.run("COMMIT");
        });
    compare("put", rounds, operations, put_ours, put_peer);
    compare(
        "put, in a transaction", rounds, operations,
        [&] {
            qorStoreTransaction all(*store);
            put_ours();
            must(all.Commit(), "Commit");
        },
        [&] {
            peer.run("BEGIN IMMEDIATE");
            put_peer();
            peer.run("COMMIT");
        });
}

// The bytes that this process has read by system calls.
uint64 bytes_read() {
    std::ifstream file("/proc/self/io");
    for (std::string word; file >> word;)
        if (uint64 count = 0; word == "rchar:" && file >> count)
            return count;
    end("/proc/self/io");
}

struct opening {
    double time;
    uint64 read;
};

opening measure_opening(const std::string& path) {
    std::vector<double> times;
    uint64 read = 0;
    for (int round = 0; round < (is_brief ? 3 : 21); ++round) {
        const uint64 before = bytes_read();
        const auto begin = clock_type::now();
        const auto store = open(path);
        must(store->Find(key_of(5)).has_value(), "Find");
        times.push_back(microseconds(clock_type::now() - begin));
        read = bytes_read() - before;
    }
    return {median(times), read};
}

} // namespace

int main(int argc, char** argv) {
    std::string folder;
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--brief") == 0)
            is_brief = true;
        else
            folder = argv[i];
    qorTempFolder made;
    must(made.Create("qor-bench", folder.empty() ? nullptr : folder.c_str()), "qorTempFolder");
    const std::string large = std::string(made.Path().Text()) + "/large", small = large + ".small";
    const uint64 count = is_brief ? 2000 : 1'000'000;
    fill(large, count);
    fill(small, 10);

    std::printf("microseconds for an operation, %llu sets\n", static_cast<unsigned long long>(count));
    compare_all(large, count, false);
    compare_all(large, count, true);

    const opening few = measure_opening(small), many = measure_opening(large);
    const double ratio = many.time / few.time;
    std::printf("open and get: 10 sets %.0f us, %llu bytes read; %llu sets %.0f us, %llu bytes read, ratio %.2f\n",
                few.time, static_cast<unsigned long long>(few.read), static_cast<unsigned long long>(count), many.time,
                static_cast<unsigned long long>(many.read), ratio);
    if (many.read > most_read || (!is_brief && ratio > most_to_open))
        has_failed = true;
    return has_failed ? 1 : 0;
}
