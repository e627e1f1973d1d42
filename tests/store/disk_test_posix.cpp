// A store loses nothing that was confirmed if the power fails, or if the disk is full or refuses a call.
#include "disk.h"
#include "qor/qor.h"
#include "support/load.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace qor::test {

// ---- the seam

namespace {

struct seam_file {
    sqlite3_file base;
    std::string* name; // null if it is not recorded
    sqlite3_file* real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
};

sqlite3_vfs* system_seam = nullptr;
sqlite3_vfs seam;
sqlite3_io_methods methods;

seam_file& of(sqlite3_file* file) { return *reinterpret_cast<seam_file*>(file); }
sqlite3_file* real(sqlite3_file* file) { return of(file).real(); }

std::string name_of(const char* path) { return std::filesystem::path(path).filename().string(); }

int close_file(sqlite3_file* file) {
    delete of(file).name;
    return real(file)->pMethods->xClose(real(file));
}

int write_file(sqlite3_file* file, const void* bytes, int size, sqlite3_int64 offset) {
    if (of(file).name != nullptr)
        if (const int result =
                disk::get().add({disk::kind::write, *of(file).name, static_cast<uint64_t>(offset),
                                 std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(size))}))
            return result;
    return real(file)->pMethods->xWrite(real(file), bytes, size, offset);
}

int truncate_file(sqlite3_file* file, sqlite3_int64 size) {
    if (of(file).name != nullptr)
        if (const int result = disk::get().add({disk::kind::truncate, *of(file).name, static_cast<uint64_t>(size), {}}))
            return result;
    return real(file)->pMethods->xTruncate(real(file), size);
}

int sync_file(sqlite3_file* file, int flags) {
    if (of(file).name != nullptr)
        if (const int result = disk::get().add({disk::kind::sync, *of(file).name, 0, {}}))
            return result;
    return real(file)->pMethods->xSync(real(file), flags);
}

int open_file(sqlite3_vfs*, const char* path, sqlite3_file* file, int flags, int* out) {
    of(file).name = disk::get().is_recorded(path) ? new std::string(name_of(path)) : nullptr;
    const int result = system_seam->xOpen(system_seam, path, real(file), flags, out);
    file->pMethods = result == SQLITE_OK ? &methods : nullptr;
    if (result != SQLITE_OK)
        delete of(file).name;
    return result;
}

int delete_file(sqlite3_vfs*, const char* path, int sync) {
    if (disk::get().is_recorded(path))
        if (const int result =
                disk::get().add({disk::kind::remove, name_of(path), static_cast<uint64_t>(sync != 0), {}}))
            return result;
    return system_seam->xDelete(system_seam, path, sync);
}

void install() {
    system_seam = sqlite3_vfs_find(nullptr);
    seam = *system_seam;
    seam.zName = "qor test";
    seam.szOsFile = static_cast<int>(sizeof(seam_file)) + system_seam->szOsFile;
    seam.xOpen = &open_file;
    seam.xDelete = &delete_file;
    methods.iVersion = 2; // without mapped files
    methods.xClose = &close_file;
    methods.xRead = [](sqlite3_file* file, void* bytes, int size, sqlite3_int64 offset) {
        return real(file)->pMethods->xRead(real(file), bytes, size, offset);
    };
    methods.xWrite = &write_file;
    methods.xTruncate = &truncate_file;
    methods.xSync = &sync_file;
    methods.xFileSize = [](sqlite3_file* file, sqlite3_int64* size) {
        return real(file)->pMethods->xFileSize(real(file), size);
    };
    methods.xLock = [](sqlite3_file* file, int lock) { return real(file)->pMethods->xLock(real(file), lock); };
    methods.xUnlock = [](sqlite3_file* file, int lock) { return real(file)->pMethods->xUnlock(real(file), lock); };
    methods.xCheckReservedLock = [](sqlite3_file* file, int* out) {
        return real(file)->pMethods->xCheckReservedLock(real(file), out);
    };
    methods.xFileControl = [](sqlite3_file* file, int what, void* argument) {
        return real(file)->pMethods->xFileControl(real(file), what, argument);
    };
    methods.xSectorSize = [](sqlite3_file* file) { return real(file)->pMethods->xSectorSize(real(file)); };
    methods.xDeviceCharacteristics = [](sqlite3_file* file) {
        return real(file)->pMethods->xDeviceCharacteristics(real(file));
    };
    methods.xShmMap = [](sqlite3_file* file, int region, int size, int extends, void volatile** out) {
        return real(file)->pMethods->xShmMap(real(file), region, size, extends, out);
    };
    methods.xShmLock = [](sqlite3_file* file, int offset, int n, int flags) {
        return real(file)->pMethods->xShmLock(real(file), offset, n, flags);
    };
    methods.xShmBarrier = [](sqlite3_file* file) { real(file)->pMethods->xShmBarrier(real(file)); };
    methods.xShmUnmap = [](sqlite3_file* file, int removes) {
        return real(file)->pMethods->xShmUnmap(real(file), removes);
    };
    sqlite3_vfs_register(&seam, 1);
}

// Puts bytes at a place of a file, or only some of their sectors.
void put(std::string& file, uint64_t offset, std::string_view bytes, std::mt19937* torn) {
    constexpr uint64_t sector = 512;
    for (uint64_t at = 0; at < bytes.size();) {
        const uint64_t size = std::min<uint64_t>(bytes.size() - at, sector - (offset + at) % sector);
        if (torn == nullptr || (*torn)() % 2 != 0) {
            if (file.size() < offset + at + size)
                file.resize(offset + at + size);
            std::memcpy(file.data() + offset + at, bytes.data() + at, size);
        }
        at += size;
    }
}

} // namespace

disk& disk::get() {
    static disk only;
    if (system_seam == nullptr)
        install();
    return only;
}

void disk::begin(const std::string& folder) {
    m_folder = std::filesystem::canonical(folder).string() + "/";
    m_calls.clear();
    heal();
}

bool disk::is_recorded(const char* path) const {
    return path != nullptr && !m_folder.empty() && std::string_view(path).starts_with(m_folder);
}

void disk::fail(kind what, int n, int result) {
    m_failing = {what, n, result};
    m_has_failed = false;
}

int disk::add(call next) {
    if (m_failing && m_failing->what == next.what && --m_failing->n < 0) {
        m_has_failed = true;
        return m_failing->result;
    }
    m_calls.push_back(std::move(next));
    return SQLITE_OK;
}

std::map<std::string, std::string> disk::after_failure(std::size_t calls, std::mt19937& random) const {
    std::map<std::string, std::size_t> synced; // the number of each file's last synchronization
    for (std::size_t i = 0; i < calls; ++i)
        if (m_calls[i].what == kind::sync)
            synced[m_calls[i].file] = i + 1;
    std::map<std::string, std::string> files;
    for (std::size_t i = 0; i < calls; ++i) {
        const call& each = m_calls[i];
        const bool is_certain = i < synced[each.file];
        const bool is_torn = !is_certain && random() % 4 == 0;
        if (!is_certain && !is_torn && random() % 2 == 0 && !(each.what == kind::remove && each.offset != 0))
            continue;
        if (each.what == kind::write)
            put(files[each.file], each.offset, each.bytes, is_torn ? &random : nullptr);
        else if (each.what == kind::truncate)
            files[each.file].resize(each.offset);
        else if (each.what == kind::remove)
            files.erase(each.file);
    }
    return files;
}

// ---- the tests

namespace {

using state = std::map<std::string, int64>;

qorAttributeSet make_set(int64 number, std::size_t size) {
    qorAttributeSet set;
    set->Set("number", number);
    set->Set("text", std::string(size, 'x'));
    return set;
}

state read_state(IQORObjectStore* store) {
    state out;
    const qorStoreWalk walk = store->Sets();
    for (const qorStoreEntry& each : walk) {
        const auto value = each.Value();
        EXPECT_TRUE(value.has_value());
        out[std::string(std::string_view(each.key))] = (*value)->Find("number")->AsInt64().value_or(-1);
    }
    EXPECT_FALSE(walk.HasFailed());
    return out;
}

std::string last_text() {
    qorString text;
    qorGetLastError(text);
    return text.Text();
}

// States of a store, in their order, and how many calls the disk had seen when each was confirmed.
struct history {
    std::vector<state> states{{}};
    std::vector<std::size_t> calls{0};
};

// Changes a store at random, with transactions of several sets and with logs that are taken over into the file.
history write_much(const std::string& path, bool is_synced, int transactions) {
    history all;
    zetSmartPointer<IQORObjectStore> store;
    EXPECT_TRUE(qorOpenObjectStore(path.c_str(), {.synced = is_synced}, store.Out())) << last_text();
    std::mt19937 random(11);
    for (int number = 0; number < transactions; ++number) {
        state next = all.states.back();
        qorStoreTransaction change(*store);
        for (auto sets = 1 + random() % 4; sets != 0; --sets) {
            const std::string key = "key " + std::to_string(random() % 60);
            if (random() % 5 == 0) {
                EXPECT_TRUE(store->Remove(key));
                next.erase(key);
            } else {
                EXPECT_TRUE(store->Put(key, make_set(number, random() % 6 == 0 ? random() % 60000 : random() % 300)));
                next[key] = number;
            }
        }
        EXPECT_TRUE(change.Commit()) << last_text();
        all.states.push_back(std::move(next));
        all.calls.push_back(disk::get().count());
    }
    return all;
}

void fail_power(bool is_synced) {
    const temp_folder folder, restored;
    disk::get().begin(folder.path());
    const history all = write_much(folder / "store", is_synced, 400);
    std::mt19937 random(5);
    const std::size_t calls = all.calls.back();
    for (int round = 0; round < load(60, 1000); ++round) {
        const std::size_t failure = random() % (calls + 1);
        const auto files = disk::get().after_failure(failure, random);
        for (const auto& each : std::filesystem::directory_iterator(restored.path()))
            std::filesystem::remove(each);
        for (const auto& [name, bytes] : files)
            restored.file(name, bytes);
        SCOPED_TRACE("the power fails behind call " + std::to_string(failure));
        zetSmartPointer<IQORObjectStore> store;
        ASSERT_TRUE(qorOpenObjectStore((restored / "store").c_str(), {.synced = false}, store.Out())) << last_text();
        qorStringArray findings;
        ASSERT_TRUE(store->Check(findings)) << last_text();
        const auto confirmed = static_cast<std::size_t>(std::upper_bound(all.calls.begin(), all.calls.end(), failure) -
                                                        all.calls.begin() - 1);
        const state found = read_state(*store);
        const std::size_t oldest = is_synced ? confirmed : 0;
        const std::size_t newest = std::min(confirmed + 1, all.states.size() - 1);
        bool is_known = false;
        for (std::size_t i = oldest; i <= newest; ++i)
            is_known = is_known || all.states[i] == found;
        ASSERT_TRUE(is_known) << "confirmed: " << confirmed;
    }
}

TEST(store_disk, loses_nothing_with_the_power) { fail_power(true); }

TEST(store_disk, loses_only_the_last_changes_if_they_are_not_synced) { fail_power(false); }

// Lets each call fail in turn, and all after it. `is_certain`: a change that failed is not there.
void refuse(disk::kind what, int result, uint32 error, bool is_certain) {
    for (int n = 0; n < 1000; n += n < 20 ? 1 : 17) {
        const temp_folder folder;
        const std::string path = folder / "store";
        disk::get().begin(folder.path());
        zetSmartPointer<IQORObjectStore> store;
        ASSERT_TRUE(qorOpenObjectStore(path.c_str(), store.Out()));
        disk::get().fail(what, n, result);
        state confirmed;
        std::vector<state> possible;
        bool is_over = false;
        for (int number = 0; number < 15 && !is_over; ++number) {
            state next = confirmed;
            {
                qorStoreTransaction change(*store);
                bool is_good = static_cast<bool>(change);
                for (int i = 0; i < 3 && is_good; ++i) {
                    const std::string key = std::to_string(number % 7) + "/" + std::to_string(i);
                    is_good = store->Put(key, make_set(number, static_cast<std::size_t>(number) * 300));
                    next[key] = number;
                }
                is_good = is_good && change.Commit();
                if (is_good) {
                    confirmed = next;
                    continue;
                }
                qorString text;
                EXPECT_EQ(qorGetLastError(text), error) << text.Text();
                EXPECT_TRUE(disk::get().has_failed());
            }
            is_over = true;
            if (!is_certain)
                possible.push_back(next);
        }
        const bool was_reached = is_over;
        disk::get().heal();
        possible.push_back(confirmed);
        if (is_certain) { // the store goes on when there is room again
            ASSERT_TRUE(store->Put("behind", make_set(1, 1))) << last_text();
        }
        store.Empty();
        ASSERT_TRUE(qorOpenObjectStore(path.c_str(), store.Out())) << last_text();
        qorStringArray findings;
        ASSERT_TRUE(store->Check(findings)) << last_text();
        if (is_certain) {
            ASSERT_TRUE(store->Remove("behind"));
        }
        const state found = read_state(*store);
        ASSERT_NE(std::find(possible.begin(), possible.end(), found), possible.end()) << "call " << n;
        if (!was_reached)
            return;
    }
    FAIL() << "there was no end";
}

TEST(store_disk, may_be_full) { refuse(disk::kind::write, SQLITE_FULL, qorError_store_full, true); }

TEST(store_disk, may_refuse_to_write) { refuse(disk::kind::write, SQLITE_IOERR_WRITE, qorError_store_failed, true); }

TEST(store_disk, may_refuse_to_synchronize) {
    refuse(disk::kind::sync, SQLITE_IOERR_FSYNC, qorError_store_failed, false);
}

} // namespace

} // namespace qor::test
