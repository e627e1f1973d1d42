// printf in a thread with its own locale, and lines that are read while signals arrive.
#include "format_support.h"
#include "support/platform.h"

#include <csignal>
#include <locale.h>
#include <thread>
#include <unistd.h>

TEST(string_format, a_width_that_no_number_holds_is_refused) {
    qorString text("before");
    print(text, "%2147483648d", 1);
    EXPECT_TRUE(text.IsEmpty());
}

TEST(string_format, the_threads_locale_does_not_change_the_result) {
    const qor::test::comma_locale comma;
    const locale_t own = duplocale(LC_GLOBAL_LOCALE);
    uselocale(own);
    expect_results_of_the_c_locale();
    EXPECT_EQ(uselocale(LC_GLOBAL_LOCALE), own);
    freelocale(own);
}

TEST(string_format, a_thread_without_a_locale_has_none_afterwards) {
    const qor::test::comma_locale comma;
    expect_results_of_the_c_locale();
    EXPECT_EQ(uselocale(nullptr), LC_GLOBAL_LOCALE);
}

// The system interrupts a read for a signal handler without SA_RESTART.
TEST(string_lines, are_read_to_their_end_whatever_signals_come) {
    struct sigaction action = {};
    struct sigaction before;
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::FILE* const stream = fdopen(ends[0], "r");
    qorString line;
    bool done = false;
    std::string id;
    std::atomic<bool> begun{false};
    std::thread reader([&] {
        id = qor::test::thread_id();
        begun = true;
        done = line.GetLine(stream);
    });
    while (!begun)
        std::this_thread::yield();
    for (const std::string_view part : {"first ", "second ", "third\n"}) {
        for (int i = 0; i < 3; ++i) {
            qor::test::wait_until_asleep({id}, 0);
            pthread_kill(reader.native_handle(), SIGUSR1);
        }
        qor::test::wait_until_asleep({id}, 0);
        ASSERT_EQ(write(ends[1], part.data(), part.size()), static_cast<ssize_t>(part.size()));
    }
    close(ends[1]);
    reader.join();
    EXPECT_TRUE(done);
    EXPECT_EQ(line, "first second third");
    EXPECT_FALSE(line.GetLine(stream));
    std::fclose(stream);
    sigaction(SIGUSR1, &before, nullptr);
}
