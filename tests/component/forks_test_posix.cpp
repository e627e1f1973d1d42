// Forks while another thread makes something: the child can make it itself.
#include "component/scanner.h"
#include "support/last_error.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using qor::test::IQORScanner;
using qor::test::shared_counters;

// Runs `work` in a child and returns whether it returned true there, in bounded time.
template <class WORK>
bool in_child(WORK work) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(60);
        _exit(work() ? 0 : 1);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && status == 0;
}

struct held {
    qorGate begun{false};
    qorGate go_on{false};
    int value = 7;
    static bool run(void* context, qorGlobalValue& made) noexcept {
        auto& self = *static_cast<held*>(context);
        self.begun.Open();
        self.go_on.Wait();
        made.value = &self.value;
        return true;
    }
    static bool run_at_once(void* context, qorGlobalValue& made) noexcept {
        made.value = &static_cast<held*>(context)->value;
        return true;
    }
};

TEST(posix_components, a_child_makes_the_value_that_another_thread_was_making) {
    held one;
    void* here = nullptr;
    std::thread other([&] { EXPECT_TRUE(qorGetGlobalSlot("forked", "int", &held::run, &one, &here)); });
    std::thread waiting([&] {
        one.begun.Wait();
        void* value = nullptr;
        EXPECT_TRUE(qorGetGlobalSlot("forked", "int", &held::run, &one, &value));
        EXPECT_EQ(value, &one.value);
    });
    one.begun.Wait();
    EXPECT_TRUE(in_child([&] {
        void* value = nullptr;
        return qorGetGlobalSlot("forked", "int", &held::run_at_once, &one, &value) && value == &one.value;
    }));
    one.go_on.Open();
    other.join();
    waiting.join();
    EXPECT_EQ(here, &one.value);
    EXPECT_TRUE(in_child([&] {
        void* value = nullptr;
        return qorGetGlobalSlot("forked", "int", nullptr, nullptr, &value) && value == &one.value;
    }));
    qorCleanup();
}

TEST(posix_components, a_child_starts_the_module_that_another_thread_was_starting) {
    zetSmartPointer<IQORModuleManager> manager;
    qorGetModuleManager(manager.Out());
    ASSERT_TRUE(manager->AddFolder((std::filesystem::path(QOR_TEST_MODULES) / "good").c_str()));
    qor::test::counters& shared = shared_counters();
    std::thread other([] {
        zetSmartPointer<IQORScanner> made;
        EXPECT_TRUE(qorCreateComponent("test.slow.x", made.Out())) << qor::test::last_error();
    });
    shared.starting.Wait();
    EXPECT_TRUE(in_child([&] {
        shared.go_on.Open();
        zetSmartPointer<IQORScanner> made;
        return qorCreateComponent("test.slow.x", made.Out()) && made->Scan(1) == 6;
    }));
    shared.go_on.Open();
    other.join();
}

TEST(posix_components, a_child_can_withdraw_what_another_thread_was_calling) {
    zetSmartPointer<IQORModuleHelper> helper;
    ASSERT_TRUE(qorCreateModuleHelper("test-program", "1", nullptr, helper.Out()));
    held one;
    ASSERT_TRUE(helper->RegisterComponent(
        "test.program.held",
        [](void* context, const char*, IQORInterface** out) noexcept {
            auto& self = *static_cast<held*>(context);
            self.begun.Open();
            self.go_on.Wait();
            *out = QOR_NEW qor::test::scanner_of<4>;
            return true;
        },
        &one));
    std::thread other([] {
        zetSmartPointer<IQORScanner> made;
        EXPECT_TRUE(qorCreateComponent("test.program.held", made.Out()));
    });
    one.begun.Wait();
    EXPECT_TRUE(in_child([&] { return helper->UnregisterComponent("test.program.held"); }));
    one.go_on.Open();
    other.join();
    EXPECT_TRUE(helper->UnregisterComponent("test.program.held"));
}

TEST(posix_components, forks_beside_first_uses) {
    zetSmartPointer<IQORModuleManager> manager;
    qorGetModuleManager(manager.Out());
    ASSERT_TRUE(manager->AddFolder((std::filesystem::path(QOR_TEST_MODULES) / "good").c_str()));
    std::atomic<bool> is_over{false};
    std::thread other([&] {
        while (!is_over) {
            zetSmartPointer<IQORScanner> made;
            EXPECT_TRUE(qorCreateComponent("test.nested.x", made.Out()));
            qorStringArray names;
            EXPECT_TRUE(manager->GetComponents(names));
            manager->GetFolders(names);
        }
    });
    for (int i = 0; i < 30; ++i)
        EXPECT_TRUE(in_child([] {
            zetSmartPointer<IQORScanner> made;
            return qorCreateComponent("test.scanner.sheet", made.Out()) && made->Scan(1) == 2;
        }));
    is_over = true;
    other.join();
}

} // namespace
