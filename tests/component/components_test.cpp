// Components of the program and of modules.
#include "component/scanner.h"
#include "support/last_error.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using qor::test::IQORScanner;
using qor::test::last_error;
using qor::test::scanner_of;
using qor::test::shared_counters;
using helper_pointer = zetSmartPointer<IQORModuleHelper>;
using scanner_pointer = zetSmartPointer<IQORScanner>;

helper_pointer make_helper(const char* name = "test-program") {
    helper_pointer helper;
    EXPECT_TRUE(qorCreateModuleHelper(name, "1.0", nullptr, helper.Out())) << last_error();
    return helper;
}

// What a component of this name scans; 0 if it cannot be made.
uint32 scan(const char* name) {
    scanner_pointer made;
    return qorCreateComponent(name, made.Out()) ? made->Scan(1) : 0;
}

IQORModuleManager* manager() {
    IQORModuleManager* out = nullptr;
    qorGetModuleManager(&out);
    return out;
}

// On Windows with the drive, which the path of a build on another system lacks.
std::string path_of(const char* folder) {
    return std::filesystem::absolute(std::filesystem::path(QOR_TEST_MODULES) / folder).string();
}

void add_folder(const char* name) { ASSERT_TRUE(manager()->AddFolder(path_of(name).c_str())) << last_error(); }

// What the manager knows about a module.
struct known {
    qorModuleState state;
    std::string version, framework, reason;
    std::vector<std::string> components;
};
std::optional<known> find(const char* name) {
    zetSmartPointer<IQORModuleList> list;
    EXPECT_TRUE(manager()->GetModules(list.Out())) << last_error();
    for (const qorModuleInfo& each : list->Modules())
        if (std::string_view(each.name) == name) {
            const auto names = each.Components();
            return known{each.state, each.version, each.framework, each.reason, {names.begin(), names.end()}};
        }
    return std::nullopt;
}

// ---- of the program

TEST(components, of_the_program) {
    const helper_pointer helper = make_helper();
    EXPECT_EQ(scan("test.program.x"), 0u);
    EXPECT_EQ(last_error(), "There is no component 'test.program.x': neither the program nor a module offers it.");
    ASSERT_TRUE(helper->Register<scanner_of<4>>("test.program.x")) << last_error();
    EXPECT_EQ(scan("test.program.x"), 4u);
    qorStringArray names;
    ASSERT_TRUE(manager()->GetComponents(names));
    EXPECT_TRUE(names.IsPresent("test.program.x"));
    ASSERT_TRUE(helper->UnregisterComponent("test.program.x"));
    EXPECT_EQ(scan("test.program.x"), 0u);
    EXPECT_FALSE(helper->UnregisterComponent("test.program.x"));
    EXPECT_EQ(last_error(), "'test-program' has not registered the component 'test.program.x'.");
}

TEST(components, end_with_their_helper) {
    {
        const helper_pointer helper = make_helper();
        ASSERT_TRUE(helper->Register<scanner_of<4>>("test.program.y"));
        ASSERT_TRUE(helper->Register<scanner_of<5>>("test.program.z"));
        EXPECT_EQ(scan("test.program.z"), 5u);
    }
    EXPECT_EQ(scan("test.program.y"), 0u);
    EXPECT_EQ(scan("test.program.z"), 0u);
}

TEST(components, belong_to_one_helper) {
    const helper_pointer first = make_helper("first");
    const helper_pointer second = make_helper("second");
    ASSERT_TRUE(first->Register<scanner_of<4>>("test.program.x"));
    EXPECT_FALSE(second->Register<scanner_of<5>>("test.program.x"));
    EXPECT_EQ(last_error(), "The component 'test.program.x' is registered already, by 'first'.");
    EXPECT_FALSE(second->UnregisterComponent("test.program.x"));
    EXPECT_EQ(scan("test.program.x"), 4u);
}

TEST(components, have_dotted_names) {
    const helper_pointer helper = make_helper();
    const std::string longest = "a." + std::string(253, 'b');
    for (const std::string& name : {std::string("a.b"), std::string("A-1.b_2.c"), longest}) {
        EXPECT_TRUE(helper->Register<scanner_of<4>>(name.c_str())) << name;
        EXPECT_EQ(scan(name.c_str()), 4u) << name;
    }
    for (const std::string& name :
         {std::string(), std::string("a"), std::string(".a"), std::string("a."), std::string("a..b"),
          std::string("a.b c"), std::string("a/b.c"), std::string("a.\xc3\xa4"), longest + "b"}) {
        EXPECT_FALSE(helper->Register<scanner_of<4>>(name.c_str())) << name;
        EXPECT_EQ(scan(name.c_str()), 0u) << name;
        EXPECT_EQ(last_error(), "'" + name +
                                    "' cannot be the name of a component: that has at least two parts of letters, "
                                    "digits, '_' and '-', with dots between them.");
    }
    void* made = nullptr;
    EXPECT_FALSE(qorCreateComponent(nullptr, "IQORInterface", &made));
    EXPECT_FALSE(qorCreateComponent("a.b", nullptr, &made));
    EXPECT_FALSE(helper->RegisterComponent("a.c", nullptr, nullptr));
}

TEST(components, helpers_need_a_name_and_a_version) {
    helper_pointer helper;
    EXPECT_FALSE(qorCreateModuleHelper("../x", "1", nullptr, helper.Out()));
    EXPECT_FALSE(qorCreateModuleHelper("x", "one", nullptr, helper.Out()));
    EXPECT_FALSE(qorCreateModuleHelper("x", "1", "relative", helper.Out()));
    EXPECT_EQ(last_error(), "qorCreateModuleHelper was called with an invalid argument: folder.");
    helper = make_helper();
    qorString text;
    helper->GetName(text);
    EXPECT_STREQ(text, "test-program");
    helper->GetVersion(text);
    EXPECT_STREQ(text, "1.0");
    helper->GetFolder(text);
    EXPECT_TRUE(std::filesystem::exists(std::string(text.Text()) + "qor")) << text.Text(); // beside this program
}

TEST(components, offer_interfaces) {
    const helper_pointer helper = make_helper();
    ASSERT_TRUE(helper->Register<scanner_of<4>>("test.program.x"));
    void* made = &made;
    EXPECT_FALSE(qorCreateComponent("test.program.x", "IQORPrinter", &made));
    EXPECT_EQ(last_error(), "The component 'test.program.x' does not offer the interface 'IQORPrinter'.");
    EXPECT_EQ(made, &made);
    EXPECT_EQ(shared_counters().objects, 0);
    zetSmartPointer<IQORInterface> root;
    EXPECT_TRUE(qorCreateComponent("test.program.x", root.Out()));
    EXPECT_EQ(shared_counters().objects, 1);
}

class throwing final : public qor::test::scanner {
public:
    throwing() : scanner(fail()) {}

private:
    [[noreturn]] static uint32 fail() {
        if (shared_counters().fails)
            throw std::bad_alloc();
        throw 7;
    }
};

TEST(components, tell_why_they_cannot_be_made) {
    const helper_pointer helper = make_helper();
    ASSERT_TRUE(helper->Register<throwing>("test.program.throwing"));
    shared_counters().fails = true;
    EXPECT_EQ(scan("test.program.throwing"), 0u);
    EXPECT_EQ(last_error(), "There is not enough memory.");
    shared_counters().fails = false;
    EXPECT_EQ(scan("test.program.throwing"), 0u);
    EXPECT_EQ(last_error(),
              "The function of the component 'test.program.throwing' gave neither an object nor a reason.");
    EXPECT_EQ(shared_counters().objects, 0);

    ASSERT_TRUE(helper->RegisterComponent(
        "test.program.lazy", [](void* result, const char*, IQORInterface**) noexcept { return result != nullptr; },
        nullptr));
    qorSetLastError(qorError_disk_full); // of before
    EXPECT_EQ(scan("test.program.lazy"), 0u);
    EXPECT_EQ(last_error(), "The function of the component 'test.program.lazy' gave neither an object nor a reason.");
}

TEST(components, success_leaves_the_last_error) {
    const helper_pointer helper = make_helper();
    ASSERT_TRUE(helper->Register<scanner_of<4>>("test.program.x"));
    qorSetLastError(qorError_disk_full);
    EXPECT_EQ(scan("test.program.x"), 4u);
    EXPECT_EQ(last_error(), "There is no space left on the disk.");
}

TEST(components, many_leave_nothing) {
    const helper_pointer helper = make_helper();
    ASSERT_TRUE(helper->Register<scanner_of<4>>("test.program.x"));
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(scan("test.program.x"), 4u);
    EXPECT_EQ(shared_counters().objects, 0);
}

// ---- threads

TEST(components, withdrawal_waits_for_calls) {
    // Each round frees what the function uses, as soon as it is withdrawn.
    for (int round = 0; round < 100; ++round) {
        const helper_pointer helper = make_helper();
        auto used = std::make_unique<std::atomic<int>>(0);
        ASSERT_TRUE(helper->RegisterComponent(
            "test.program.x",
            [](void* context, const char*, IQORInterface** out) noexcept {
                auto& calls = *static_cast<std::atomic<int>*>(context);
                ++calls;
                std::this_thread::yield();
                ++calls;
                *out = QOR_NEW scanner_of<4>;
                return true;
            },
            used.get()));
        std::atomic<bool> is_over{false};
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i)
            threads.emplace_back([&] {
                while (!is_over)
                    (void)scan("test.program.x");
            });
        while (*used == 0)
            std::this_thread::yield();
        EXPECT_TRUE(helper->UnregisterComponent("test.program.x"));
        EXPECT_EQ(*used % 2, 0);
        used.reset();
        is_over = true;
        for (std::thread& each : threads)
            each.join();
    }
    EXPECT_EQ(shared_counters().objects, 0);
}

TEST(components, can_be_withdrawn_by_their_own_function) {
    const helper_pointer helper = make_helper();
    ASSERT_TRUE(helper->RegisterComponent(
        "test.program.once",
        [](void* context, const char* name, IQORInterface** out) noexcept {
            *out = QOR_NEW scanner_of<4>;
            return static_cast<IQORModuleHelper*>(context)->UnregisterComponent(name);
        },
        *helper));
    EXPECT_EQ(scan("test.program.once"), 4u);
    EXPECT_EQ(scan("test.program.once"), 0u);
}

TEST(components, can_be_made_of_others) {
    const helper_pointer helper = make_helper();
    ASSERT_TRUE(helper->Register<scanner_of<4>>("test.program.x"));
    ASSERT_TRUE(helper->RegisterComponent(
        "test.program.outer",
        [](void*, const char*, IQORInterface** out) noexcept {
            scanner_pointer inner;
            if (!qorCreateComponent("test.program.x", inner.Out()))
                return false;
            *out = inner.Detach();
            return true;
        },
        nullptr));
    EXPECT_EQ(scan("test.program.outer"), 4u);
}

// ---- modules

TEST(components, load_their_module_when_they_are_wanted) {
    std::filesystem::remove("ran.test-scanner");
    add_folder("good");
    std::optional<known> module = find("test-scanner");
    ASSERT_TRUE(module.has_value());
    EXPECT_EQ(module->state, qorModuleState::available) << module->reason;
    EXPECT_EQ(module->version, "1.2.10");
    EXPECT_EQ(module->framework, "3.35.21");
    EXPECT_EQ(module->components,
              (std::vector<std::string>{"test.scanner.flatbed", "test.scanner.sheet", "test.scanner.broken"}));
    EXPECT_FALSE(std::filesystem::exists("ran.test-scanner")) << "it must not run for this";
    qorStringArray names;
    ASSERT_TRUE(manager()->GetComponents(names));
    EXPECT_TRUE(names.IsPresent("test.scanner.sheet"));
    EXPECT_EQ(shared_counters().starts, 0);

    EXPECT_EQ(scan("test.scanner.sheet"), 2u) << last_error();
    EXPECT_TRUE(std::filesystem::exists("ran.test-scanner"));
    module = find("test-scanner");
    EXPECT_EQ(module->state, qorModuleState::loaded);
    EXPECT_EQ(scan("test.scanner.flatbed"), 1u) << last_error();
    EXPECT_EQ(shared_counters().starts, 1);
    EXPECT_EQ(scan("test.scanner.broken"), 0u);
    EXPECT_EQ(last_error(), "The component 'test.scanner.broken' could not be made: the lamp is missing.");
    EXPECT_EQ(scan("test.scanner.other"), 0u);
    EXPECT_EQ(shared_counters().objects, 0);
}

TEST(components, of_the_program_come_first) {
    add_folder("good");
    const helper_pointer helper = make_helper();
    ASSERT_TRUE(helper->Register<scanner_of<40>>("test.scanner.sheet"));
    EXPECT_EQ(scan("test.scanner.sheet"), 40u);
    EXPECT_EQ(scan("test.scanner.flatbed"), 1u) << last_error();
    EXPECT_EQ(scan("test.scanner.sheet"), 40u);
    ASSERT_TRUE(helper->UnregisterComponent("test.scanner.sheet"));
    EXPECT_EQ(scan("test.scanner.sheet"), 2u) << last_error();
}

TEST(components, bring_their_messages) {
    add_folder("good");
    ASSERT_TRUE(manager()->LoadModule("test-scanner")) << last_error();
    qorString text;
    EXPECT_TRUE(text.Format("test-scanner", 1, "7"));
    EXPECT_STREQ(text, "7 lines");
    const char* const inserts[10] = {"7"};
    EXPECT_TRUE(text.FormatEx("test-scanner", 1, "de", inserts));
    EXPECT_STREQ(text, "7 Zeilen");
    EXPECT_TRUE(text.FormatEx("test-scanner", 7, "fr", nullptr));
    EXPECT_STREQ(text, "No paper.");
    EXPECT_FALSE(text.Format("test-scanner", 2, nullptr));
}

TEST(components, catalogs_of_the_program) {
    const helper_pointer helper = make_helper();
    constexpr qorCatalogMessage messages[] = {{1, "one"}, {2, "two"}};
    constexpr qorCatalogMessage others[] = {{1, "one"}, {2, "three"}};
    ASSERT_TRUE(helper->AddCatalog("test-program", messages));
    EXPECT_TRUE(helper->AddCatalog("test-program", messages));
    EXPECT_FALSE(helper->AddCatalog("test-program", others));
    EXPECT_EQ(last_error(), "There is another message catalog with the name 'test-program'.");
    EXPECT_FALSE(helper->AddCatalog("qorcore", messages));
    qorString text;
    EXPECT_TRUE(text.LoadString("test-program", 2));
    EXPECT_STREQ(text, "two");
    constexpr qorCatalogMessage unsorted[] = {{2, "two"}, {1, "one"}};
    constexpr qorCatalogMessage twice[] = {{2, "two"}, {2, "one"}};
    constexpr qorCatalogMessage empty[] = {{2, ""}};
    constexpr qorCatalogMessage null[] = {{2, nullptr}};
    for (const std::span<const qorCatalogMessage> each :
         {std::span<const qorCatalogMessage>(unsorted), std::span<const qorCatalogMessage>(twice),
          std::span<const qorCatalogMessage>(empty), std::span<const qorCatalogMessage>(null)}) {
        EXPECT_FALSE(helper->AddCatalog("test-bad", each));
        EXPECT_EQ(last_error(), "AddCatalog was called with an invalid argument: messages.");
    }
    EXPECT_FALSE(helper->AddCatalog("../etc/passwd", messages));
    EXPECT_FALSE(helper->AddCatalog(nullptr, messages));
}

TEST(components, a_module_may_want_those_of_others_while_it_starts) {
    add_folder("good");
    EXPECT_EQ(scan("test.nested.x"), 5u) << last_error();
    EXPECT_EQ(find("test-scanner")->state, qorModuleState::loaded);
}

TEST(components, a_module_may_want_its_own_while_it_starts) {
    add_folder("circle");
    EXPECT_EQ(scan("test.own.x"), 9u) << last_error();
}

TEST(components, modules_that_want_each_other_are_refused) {
    add_folder("circle");
    for (int attempt = 0; attempt < 3; ++attempt) {
        EXPECT_EQ(scan("test.circle.a"), 0u);
        EXPECT_EQ(last_error(),
                  "The module 'test-circle-a' could not be started: The module 'test-circle-b' could not be started: "
                  "The module 'test-circle-a' is wanted while it is being loaded, by something that the loading waits "
                  "for.");
    }
    EXPECT_EQ(find("test-circle-a")->state, qorModuleState::refused);
    EXPECT_EQ(find("test-circle-b")->state, qorModuleState::refused);
    EXPECT_EQ(shared_counters().objects, 0);
}

TEST(components, modules_that_want_each_other_on_two_threads_are_refused) {
    add_folder("circle");
    std::vector<std::thread> threads;
    for (const char* const name : {"test.circle.a", "test.circle.b", "test.circle.a", "test.circle.b"})
        threads.emplace_back([name] {
            for (int i = 0; i < 20; ++i)
                EXPECT_EQ(scan(name), 0u);
        });
    for (std::thread& each : threads)
        each.join();
}

TEST(components, of_two_modules_are_no_one_s) {
    add_folder("twins");
    EXPECT_EQ(scan("test.twin.x"), 0u);
    EXPECT_TRUE(last_error().starts_with("The component 'test.twin.x' is offered by two modules: '")) << last_error();
    EXPECT_NE(last_error().find("test-twin-a"), std::string::npos) << last_error();
    EXPECT_NE(last_error().find("test-twin-b"), std::string::npos) << last_error();
}

TEST(components, modules_keep_to_their_descriptions) {
    add_folder("odd");
    EXPECT_EQ(scan("test.odd.others"), 0u);
    EXPECT_EQ(last_error(), "The module 'test-others' could not be started: The module 'test-others' cannot register "
                            "'test.odd.other': its description does not name this component.");
    EXPECT_EQ(scan("test.odd.less"), 0u);
    EXPECT_EQ(last_error(), "The module 'test-less' does not register 'test.odd.less', which its description names.");
    EXPECT_EQ(find("test-less")->reason, last_error());
}

TEST(components, a_module_that_could_not_start_is_tried_again) {
    add_folder("odd");
    shared_counters().fails = true;
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(scan("test.odd.fails"), 0u);
        EXPECT_EQ(last_error(), "The module 'test-fails' could not be started: Cannot open 'the scanner': it is "
                                "switched off.");
        EXPECT_EQ(find("test-fails")->state, qorModuleState::refused);
        EXPECT_EQ(find("test-fails")->reason, last_error());
    }
    EXPECT_FALSE(manager()->LoadModule("test-silent"));
    EXPECT_EQ(last_error(), "The module 'test-silent' could not be started: There is no error to report.");
    shared_counters().fails = false;
    EXPECT_EQ(scan("test.odd.fails"), 3u) << last_error();
    EXPECT_EQ(find("test-fails")->state, qorModuleState::loaded);
    EXPECT_EQ(find("test-fails")->reason, "");
}

TEST(components, modules_that_do_not_fit_never_run) {
    const std::string length = std::to_string(qor::glue::slot_count);
    const std::string more = std::to_string(qor::glue::slot_count + 1);
    const struct {
        const char* module;
        std::string reason;
    } cases[] = {
        {"test-version", "it was compiled for version 4.0.0 of the framework, and this is 3.35.21"},
        {"test-longer", "it was compiled for a table of " + more + " operations, and this one has " + length},
        {"test-missing", "it was compiled for operation 5, which this library does not have"},
        {"test-form", "it was compiled for another form of operation "},
        {"test-layout", "its description is damaged"},
    };
    for (const auto& each : cases) {
        const std::string trace = std::string("ran.") + each.module;
        std::filesystem::remove(trace);
        add_folder(each.module);
        const std::optional<known> module = find(each.module);
        ASSERT_TRUE(module.has_value()) << each.module;
        EXPECT_EQ(module->state, qorModuleState::refused) << each.module;
        EXPECT_TRUE(module->reason.starts_with(each.reason)) << module->reason;
        EXPECT_FALSE(manager()->LoadModule(each.module));
        EXPECT_NE(last_error().find("' is not a module that this library can use: " + each.reason), std::string::npos)
            << last_error();
        EXPECT_FALSE(std::filesystem::exists(trace));
        EXPECT_EQ(scan("test.unfit.x"), 0u);
        EXPECT_FALSE(std::filesystem::exists(trace));
        qorStringArray names;
        ASSERT_TRUE(manager()->GetComponents(names));
        EXPECT_FALSE(names.IsPresent("test.unfit.x"));
    }
}

TEST(components, the_framework_s_own_modules_are_known) {
    const std::optional<known> network = find("qor-network");
    ASSERT_TRUE(network.has_value());
    EXPECT_NE(network->state, qorModuleState::refused) << network->reason;
    EXPECT_EQ(network->version, "3.35.21");
    EXPECT_TRUE(network->components.empty());
}

TEST(components, folders_of_modules) {
    qorStringArray folders;
    manager()->GetFolders(folders);
    const uint32 before = folders.GetCount();
    ASSERT_GE(before, 1u);
    EXPECT_NE(std::string_view(folders[0]).find("qor/"), std::string_view::npos) << folders[0];
    EXPECT_FALSE(manager()->AddFolder("relative"));
    EXPECT_EQ(last_error(), "Modules are not loaded from 'relative': the path is not absolute.");
    EXPECT_FALSE(manager()->AddFolder(nullptr));
    EXPECT_FALSE(manager()->AddFolder(path_of("no such one").c_str()));
    EXPECT_TRUE(last_error().starts_with("Cannot list the folder ")) << last_error();
    EXPECT_FALSE(manager()->AddFolder(std::filesystem::absolute(QOR_LIBRARY).string().c_str())); // a file
    add_folder("good");
    add_folder("good");
    manager()->GetFolders(folders);
    EXPECT_LE(folders.GetCount(), before + 1);
    EXPECT_FALSE(manager()->LoadModule("test-unknown"));
    EXPECT_EQ(last_error(), "There is no module 'test-unknown'.");
}

TEST(components, first_uses_race) {
    add_folder("good");
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 12; ++i)
        threads.emplace_back([&right, i] {
            constexpr const char* names[] = {"test.scanner.flatbed", "test.scanner.sheet", "test.nested.x"};
            constexpr uint32 factors[] = {1, 2, 5};
            if (scan(names[i % 3]) == factors[i % 3])
                ++right;
            if (find("test-scanner")->state != qorModuleState::refused)
                ++right;
        });
    for (std::thread& each : threads)
        each.join();
    EXPECT_EQ(right, 24);
    EXPECT_LE(shared_counters().starts, 1); // 0 where another test of this process has loaded it
    EXPECT_EQ(shared_counters().objects, 0);
}

} // namespace
