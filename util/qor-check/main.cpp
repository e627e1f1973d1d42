// qor-check: explains which libqor a program finds and whether it can work with it. A failed binding itself prints
// nothing.
#include "messages.h"
#include "search.h"

#include <cstring>
#include <set>

using namespace qor::check;

namespace {

constexpr int binds = 0;
constexpr int does_not_bind = 1; // the program ends with exit code 100
constexpr int wrong_usage = 2;

// The framework's own modules. Each has a package of its own, because each needs what not every host has.
constexpr const char* own_modules[] = {"qor-config", "qor-network", "qor-openssl",
                                       "qor-pam",    "qor-store",   "qor-systemd"};

constexpr const char* operations[] = {
#define QOR_SLOT(number, result, op, parameters, arguments) #op,
#define QOR_RESERVED(number, op)
#define QOR_FREE(first, count)
#include "qor/glue/slots.def"
#undef QOR_SLOT
#undef QOR_RESERVED
#undef QOR_FREE
};
constexpr uint32 numbers[] = {
#define QOR_SLOT(number, result, op, parameters, arguments) number,
#define QOR_RESERVED(number, op)
#define QOR_FREE(first, count)
#include "qor/glue/slots.def"
#undef QOR_SLOT
#undef QOR_RESERVED
#undef QOR_FREE
};

std::string name_of_row(uint32 row) {
    for (std::size_t i = 0; i < std::size(numbers); ++i)
        if (numbers[i] == row)
            return operations[i];
    return "?";
}

// Calls a row of the table if it is there. Rows 0 and 1 are the same in every table.
template <class RESULT>
RESULT call_row(const void* table, uint32 row, RESULT otherwise) {
    qor::glue::unwritten entry;
    std::memcpy(&entry, static_cast<const char*>(table) + row * sizeof entry, sizeof entry);
    return entry != nullptr ? reinterpret_cast<RESULT (*)() noexcept>(entry)() : otherwise;
}

struct facts {
    program examined;
    std::vector<place> places;
    void* library = nullptr;
    const void* table = nullptr;
    bool has_entry = false;
    uint32 table_length = 0;
    std::string version;
    uint32 lacks = qor::glue::no_row; // the first row that the program needs in vain
};

// Does what the binding of the program would do. If this program can use the library, it is bound to it.
void bind_like(facts& known) {
    known.library = find_library(known.examined, known.places);
    if (known.library == nullptr)
        return;
    known.table = table_of(known.library, known.has_entry);
    if (known.table == nullptr)
        return;
    known.table_length = call_row<uint32>(known.table, 0, 0);
    if (known.table_length > 1)
        if (const char* const version = call_row<const char*>(known.table, 1, nullptr))
            known.version = version;
    const program& of = known.examined;
    if (of.is_described)
        known.lacks = qor::glue::missing_row(known.table, of.table_length, of.needed.data());
    const auto* const table = static_cast<const qor::glue::binding_table*>(known.table);
    if (qor::glue::is_sufficient(*table))
        qor::glue::s_funcs.store(table, std::memory_order_release);
}

std::string result_of(const place& at) {
    switch (at.result) {
    case verdict::missing:
        return text_of(message::missing);
    case verdict::no_library:
        return text_of(message::no_library);
    case verdict::refused:
        return at.reason;
    case verdict::loaded:
        break;
    }
    return text_of(message::used);
}

void print_search(const facts& known) {
    const program& of = known.examined;
    print(text_of(message::program, {of.path}));
    print(of.is_described ? text_of(message::needs, {of.version, std::to_string(of.table_length)})
                          : text_of(message::needs_unknown));
    print(text_of(message::places));
    bool by_name = false;
    for (const place& each : known.places) {
        if (each.is_by_name && !by_name)
            print(text_of(message::by_name));
        by_name = each.is_by_name;
        print("    " + each.path + ": " + result_of(each));
    }
}

// Returns the exit code.
int print_library(const facts& known) {
    if (known.library == nullptr) {
        print(text_of(message::nowhere));
        return does_not_bind;
    }
    print(text_of(message::library, {known.places.back().path}));
    if (known.table == nullptr) {
        print(text_of(known.has_entry ? message::no_table : message::no_entry));
        print(text_of(message::refused));
        return does_not_bind;
    }
    const std::string version = known.version.empty() ? text_of(message::unknown_version) : known.version;
    print(text_of(message::table, {version, std::to_string(known.table_length)}));
    const program& of = known.examined;
    if (known.lacks == qor::glue::no_row) {
        if (of.is_described)
            print(text_of(message::sufficient));
        return binds;
    }
    if (known.lacks < of.table_length && known.lacks < known.table_length)
        print(text_of(message::lacks_row, {std::to_string(known.lacks), name_of_row(known.lacks), of.version}));
    else
        print(text_of(message::too_old, {std::to_string(of.table_length - 1), of.version}));
    return does_not_bind;
}

// The reason why one of the framework's own modules cannot be used; empty if it can.
std::string reason_against(IQORModuleManager& manager, const char* module) {
    if (manager.LoadModule(module))
        return {};
    qorString text;
    qorGetLastError(text);
    return text.Text();
}

void print_module(const std::string& name, const std::string& what) { print("    " + name + ": " + what); }

void print_modules() {
    if (!qor::glue::is_bound()) {
        print(text_of(message::modules_unknown));
        return;
    }
    print(text_of(message::modules));
    zetSmartPointer<IQORModuleManager> manager;
    qorGetModuleManager(manager.Out());
    zetSmartPointer<IQORModuleList> list;
    if (!manager->GetModules(list.Out())) {
        qorString text;
        qorGetLastError(text);
        print("    " + std::string(text.Text()));
        return;
    }
    std::set<std::string> present;
    for (const qorModuleInfo& each : list->Modules())
        present.insert(each.name);
    for (const char* const each : own_modules) {
        if (!present.contains(each)) {
            print_module(each, text_of(message::module_missing, {std::string("lib") + each}));
            continue;
        }
        const std::string reason = reason_against(**manager, each);
        print_module(each, reason.empty() ? text_of(message::module_works) : reason);
        present.erase(each);
    }
    // Modules of others are not loaded, because their code would run.
    for (const qorModuleInfo& each : list->Modules())
        if (present.contains(each.name))
            print_module(each.name,
                         each.state == qorModuleState::refused ? each.reason : text_of(message::module_fits));
}

// Starts the framework if it is bound: messages are then in the user's language.
bool start_framework(int argc, char** argv) {
    if (!qor::glue::is_bound())
        return true;
    qorStringArray args;
    args.SetFromArgVec(argc, argv);
    if (qorInitProcess("qor-check", args, 0))
        return true;
    fputerr(stderr, true);
    return false;
}

constexpr const char* itself = "/proc/self/exe";

// For what is said before a program is examined: binds like this program itself.
bool bind_itself(int argc, char** argv) {
    facts own;
    std::string reason;
    if (read_program(itself, own.examined, reason) == read_result::read)
        bind_like(own);
    return start_framework(argc, argv);
}

int show_usage(int argc, char** argv) {
    if (!bind_itself(argc, argv))
        return wrong_usage;
    print(text_of(message::usage));
    return binds;
}

int refuse(int argc, char** argv, uint32 number, std::initializer_list<std::string> inserts = {}) {
    if (bind_itself(argc, argv))
        complain(text_of(number, inserts));
    return wrong_usage;
}

int run(int argc, char** argv) {
    std::string path;
    bool has_options = true;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (has_options && word.size() > 1 && word.front() == '-') {
            if (word == "--help")
                return show_usage(argc, argv);
            if (word == "--")
                has_options = false;
            else if (!word.starts_with("--qor-")) // those of the framework are for qorInitProcess
                return refuse(argc, argv, message::unknown_option, {word});
            continue;
        }
        if (!path.empty())
            return refuse(argc, argv, message::one_program);
        path = word;
    }
    facts known;
    std::string reason;
    switch (read_program(path.empty() ? itself : path, known.examined, reason)) {
    case read_result::unreadable:
        return refuse(argc, argv, message::cannot_read, {path, reason});
    case read_result::no_program:
        return refuse(argc, argv, message::no_program, {path});
    case read_result::read:
        break;
    }
    bind_like(known);
    if (!start_framework(argc, argv))
        return wrong_usage;
    print_search(known);
    const int code = print_library(known);
    if (known.table != nullptr)
        print_modules();
    return code;
}

} // namespace

int main(int argc, char** argv) {
    const int code = run(argc, argv);
    if (qor::glue::is_bound())
        qorCleanup();
    return std::fflush(stdout) == 0 && std::ferror(stdout) == 0 ? code : wrong_usage;
}
