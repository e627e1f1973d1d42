// Operations on services, as far as they need no manager.
#include "qor/qor.h"
#include "support/last_error.h"

#include <gtest/gtest.h>

#include <iterator>
#include <thread>
#include <vector>

namespace {

using qor::test::last_error;

using operation = bool (*)(const char* name, const qorServiceOptions& options, qorServiceStatus* status) noexcept;

constexpr operation operations[] = {
    [](const char* name, const qorServiceOptions& options, qorServiceStatus* status) noexcept {
        return qorServiceExists(name, options, status);
    },
    [](const char* name, const qorServiceOptions& options, qorServiceStatus* status) noexcept {
        return qorServiceStart(name, options, status);
    },
    [](const char* name, const qorServiceOptions& options, qorServiceStatus* status) noexcept {
        return qorServiceStop(name, options, status);
    }};
constexpr const char* names[] = {"qorServiceExists", "qorServiceStart", "qorServiceStop"};

} // namespace

TEST(service, wrong_arguments) {
    for (std::size_t i = 0; i < std::size(operations); ++i) {
        const std::string begin = std::string(names[i]) + " was called with an invalid argument: ";
        EXPECT_FALSE(operations[i](nullptr, {}, nullptr));
        EXPECT_EQ(last_error(), begin + "name.");
        EXPECT_FALSE(operations[i]("a", {.manager = static_cast<qorServiceManager>(2)}, nullptr));
        EXPECT_EQ(last_error(), begin + "manager.");
        EXPECT_FALSE(operations[i]("a", {.lines = qorMaxServiceLines + 1}, nullptr));
        EXPECT_EQ(last_error(), begin + "lines.");
    }
}

TEST(service, wrong_names) {
    for (const operation each : operations) {
        for (const char* const name : {"", "a/b", "a\\b/", "\xff"}) {
            qorServiceStatus status;
            status.name = "from before";
            EXPECT_FALSE(each(name, {}, &status));
            qorString text;
            EXPECT_EQ(qorGetLastError(text), qorError_service_name) << text.Text();
            EXPECT_EQ(status.name.Length(), 0u);
        }
    }
}

TEST(service, threads_have_their_own_errors) {
    std::vector<std::thread> threads;
    for (const operation each : operations)
        threads.emplace_back([each] {
            for (int i = 0; i < 100; ++i) {
                EXPECT_FALSE(each("a/b", {}, nullptr));
                EXPECT_NE(last_error().find("'a/b'"), std::string::npos);
            }
        });
    for (std::thread& each : threads)
        each.join();
}
