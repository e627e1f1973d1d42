// Applies operations of object stores, in the form of line_driver.h. Sets are in JSON.
//
//   store_driver               waits for lines
//   store_driver write PATH SEED     stores sets without end, and says each that was confirmed: "KEY VERSION NUMBER"
//   store_driver count PATH TIMES    adds 1 to the number of the key "count" so many times, by compare and put
#include "support/line_driver.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace line_driver;

zetSmartPointer<IQORObjectStore> store;

uint64 version_of(const std::string& word) { return word == "any" ? qorAnyVersion : std::stoull(word); }

// FROM BELOW PREFIX BACKWARD
qorStoreRange range_of(const words& w, std::size_t at) {
    return {.prefix = w[at + 2], .from = w[at], .below = w[at + 1], .backward = w[at + 3] == "1"};
}

std::string json(IQORAttributeSet* set) {
    qorString text;
    set->WriteJson(text, 0);
    return text.Text();
}

// A step that renames nothing and marks what it has seen; "bad" fails.
bool step(IQORObjectStore* on, uint32 from, void* context) noexcept {
    qorAttributeSet mark;
    mark->Set("from", from);
    const std::string key = "step " + std::to_string(from);
    if (!on->Put(key, mark))
        return false;
    if (static_cast<const char*>(context) == std::string_view("bad") && from == 2) {
        qorSetLastError(qorError_invalid_argument, "step", "2");
        return false;
    }
    return true;
}

const std::map<std::string, operation> operations = {
    {"open", // PATH MODE WAIT SYNCED SCHEMA STEPS
     [](const words& w, std::string&) {
         static std::string steps;
         steps = w[6];
         qorObjectStoreOptions options;
         options.mode = static_cast<qorStoreMode>(std::stoul(w[2]));
         options.wait = static_cast<uint32>(std::stoul(w[3]));
         options.synced = w[4] == "1";
         options.schema = static_cast<uint32>(std::stoul(w[5]));
         if (!steps.empty()) {
             options.migrate = &step;
             options.context = steps.data();
         }
         return qorOpenObjectStore(w[1].c_str(), options, store.Out());
     }},
    {"close",
     [](const words&, std::string&) {
         store.Empty();
         return true;
     }},
    {"schema",
     [](const words&, std::string& out) {
         out = " " + std::to_string(store->GetSchema());
         return true;
     }},
    {"get", // KEY
     [](const words& w, std::string& out) {
         qorAttributeSet set;
         uint64 version = 0;
         if (!store->Get(w[1], set, version))
             return false;
         out = " " + std::to_string(version) + " " + hexadecimal(json(set));
         return true;
     }},
    {"put", // KEY JSON VERSION
     [](const words& w, std::string& out) {
         qorAttributeSet set;
         uint64 version = 0;
         if (!set->ReadJson(w[2]) || !store->Put(w[1], set, version_of(w[3]), version))
             return false;
         out = " " + std::to_string(version);
         return true;
     }},
    {"fill", // FIRST COUNT SIZE, in one transaction
     [](const words& w, std::string&) {
         qorStoreTransaction all(*store);
         if (!all)
             return false;
         qorAttributeSet set;
         set->Set("text", std::string(std::stoul(w[3]), 'x'));
         for (unsigned long i = std::stoul(w[1]), end = i + std::stoul(w[2]); i < end; ++i) {
             char key[40];
             std::snprintf(key, sizeof key, "%010lu", i);
             set->Set("number", static_cast<uint64>(i));
             if (!store->Put(key, set))
                 return false;
         }
         return all.Commit();
     }},
    {"remove", // KEY VERSION
     [](const words& w, std::string& out) {
         bool existed = false;
         if (!store->Remove(w[1], version_of(w[2]), existed))
             return false;
         out = existed ? " 1" : " 0";
         return true;
     }},
    {"remove-range",
     [](const words& w, std::string& out) {
         uint64 count = 0;
         if (!store->RemoveRange(range_of(w, 1), count))
             return false;
         out = " " + std::to_string(count);
         return true;
     }},
    {"count",
     [](const words& w, std::string& out) {
         uint64 count = 0;
         if (!store->CountRange(range_of(w, 1), count))
             return false;
         out = " " + std::to_string(count);
         return true;
     }},
    {"walk",
     [](const words& w, std::string& out) {
         const qorStoreWalk walk = store->Sets(range_of(w, 1));
         for (const qorStoreEntry& each : walk) {
             const auto value = each.Value();
             if (!value)
                 return false;
             out += " " + hexadecimal(std::string_view(each.key)) + " " + std::to_string(each.version) + " " +
                    hexadecimal(json(*value));
         }
         return !walk.HasFailed();
     }},
    {"begin",
     [](const words& w, std::string&) {
         return store->Begin(w[1] == "write" ? qorStoreAccess::write : qorStoreAccess::read);
     }},
    {"commit", [](const words&, std::string&) { return store->Commit(); }},
    {"rollback", [](const words&, std::string&) { return store->Rollback(); }},
    {"check",
     [](const words&, std::string& out) {
         qorStringArray findings;
         const bool is_good = store->Check(findings);
         for (uint32 i = 0; i < findings.GetCount(); ++i)
             out += " " + hexadecimal(findings[i]);
         return is_good;
     }},
    {"rescue", // PATH
     [](const words& w, std::string& out) {
         qorStoreRescue report;
         if (!store->Rescue(w[1].c_str(), report))
             return false;
         out = " " + std::to_string(report.sets) + " " + std::to_string(report.lost) + " " +
               std::to_string(report.pages) + " " + std::to_string(report.damaged);
         return true;
     }},
    {"copy", [](const words& w, std::string&) { return store->CopyTo(w[1].c_str()); }},
};

int fail() {
    fputerr(stdout, true);
    std::fflush(stdout);
    return 1;
}

int write(const char* path, unsigned seed) {
    qorObjectStoreOptions options;
    options.wait = 0;
    if (!qorOpenObjectStore(path, options, store.Out()))
        return fail();
    std::mt19937 random(seed);
    for (uint64 number = 1;; ++number) {
        qorAttributeSet set;
        set->Set("number", number);
        set->Set("text", std::string(random() % 3 == 0 ? random() % 20000 : random() % 200, 'x'));
        const std::string key = std::to_string(seed) + "/" + std::to_string(random() % 50);
        uint64 version = 0;
        if (random() % 4 != 0) {
            if (!store->Put(key, set, qorAnyVersion, version))
                return fail();
        } else {
            qorStoreTransaction both(*store);
            if (!both || !store->Put(key, set, qorAnyVersion, version) || !store->Put(key + "+", set) || !both.Commit())
                return fail();
            std::printf("%s+ 0 %llu\n", key.c_str(), static_cast<unsigned long long>(number));
        }
        std::printf("%s %llu %llu\n", key.c_str(), static_cast<unsigned long long>(version),
                    static_cast<unsigned long long>(number));
        std::fflush(stdout);
    }
}

int count(const char* path, int times) {
    qorObjectStoreOptions options;
    options.wait = 0;
    options.synced = false;
    if (!qorOpenObjectStore(path, options, store.Out()))
        return fail();
    for (int done = 0; done < times;) {
        qorAttributeSet set;
        uint64 version = 0;
        if (!store->Get("count", set, version))
            return fail();
        set->Set("number", set->Find("number") != nullptr ? (*set.Interface())["number"].AsInt64().value_or(0) + 1 : 1);
        if (store->PutIf("count", set, version)) {
            ++done;
            continue;
        }
        qorString text;
        if (qorGetLastError(text) != qorError_store_conflict)
            return fail();
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string_view(argv[1]) == "write")
        return write(argv[2], static_cast<unsigned>(std::atoi(argv[3])));
    if (argc == 4 && std::string_view(argv[1]) == "count")
        return count(argv[2], std::atoi(argv[3]));
    return apply_lines(operations);
}
