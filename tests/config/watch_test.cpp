#include "qor/qor.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

namespace {

// Counts, and does what a test wants to be done in the call.
class counter final : public qor::object<IQORConfigWatcher> {
public:
    counter() noexcept : object("tests.counter", "IQORConfigWatcher") {}
    void ConfigChanged() noexcept override {
        if (then)
            then();
        ++calls;
    }

    // Waits for a call; fails after a time that no machine needs.
    void wait_for(int count) const {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (calls < count && std::chrono::steady_clock::now() < limit)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        ASSERT_EQ(calls, count);
    }

    std::atomic<int> calls = 0;
    std::function<void()> then;
};

class config_watch : public testing::Test {
protected:
    config_watch() {
        m_watcher.AttachNew(new ("watch_test", __LINE__) counter);
        write("a = 1\n");
        EXPECT_TRUE(qorOpenConfigFileAbsolute(m_path.c_str(), m_file.Out()));
        EXPECT_TRUE(m_file->Watch(*m_watcher));
    }
    ~config_watch() override { EXPECT_TRUE(m_file->Watch(nullptr)); }

    void write(std::string_view text) const { std::ofstream(m_path, std::ios::binary) << text; }
    int value() {
        EXPECT_TRUE(m_file->Reload());
        return qorConfig(*m_file).Get("a", 0);
    }

    // Enough for the thread to look several times.
    static void let_it_look() { std::this_thread::sleep_for(std::chrono::milliseconds(1500)); }

    qor::test::temp_folder m_folder;
    const std::string m_path = std::filesystem::absolute(m_folder / "app.toml").string();
    zetSmartPointer<IQORConfigFile> m_file;
    zetSmartPointer<counter> m_watcher;
};

TEST_F(config_watch, tells_of_each_change) {
    write("a = 22\n");
    m_watcher->wait_for(1);
    EXPECT_EQ(qorConfig(*m_file).Get("a", 0), 1);
    EXPECT_EQ(value(), 22);
    ASSERT_TRUE(qorReplaceFile(m_path.c_str(), "a = 333\n"));
    m_watcher->wait_for(2);
    EXPECT_EQ(value(), 333);
    std::filesystem::create_directory(m_folder / "app.d");
    std::ofstream(m_folder / "app.d/1.toml") << "a = 4444\n";
    m_watcher->wait_for(3);
    EXPECT_EQ(value(), 4444);
}

TEST_F(config_watch, waits_until_a_file_is_whole) {
    write("a = 2\nb = [");
    let_it_look();
    EXPECT_EQ(m_watcher->calls, 0);
    write("a = 2\nb = [1]\n");
    m_watcher->wait_for(1);
}

TEST_F(config_watch, is_silent_about_own_changes) {
    EXPECT_TRUE(qorConfig(*m_file).Set("b", 5));
    EXPECT_TRUE(m_file->Save());
    let_it_look();
    EXPECT_EQ(m_watcher->calls, 0);
    write("a = 7\n");
    m_watcher->wait_for(1);
    let_it_look();
    EXPECT_EQ(m_watcher->calls, 1);
}

TEST_F(config_watch, ends_in_the_call) {
    m_watcher->then = [this] { EXPECT_TRUE(m_file->Watch(nullptr)); };
    write("a = 22\n");
    m_watcher->wait_for(1);
    write("a = 333\n");
    let_it_look();
    EXPECT_EQ(m_watcher->calls, 1);
}

TEST_F(config_watch, no_call_is_under_way_when_it_has_ended) {
    std::atomic<bool> has_begun = false, may_end = false, has_ended = false;
    m_watcher->then = [&] {
        has_begun = true;
        while (!may_end)
            std::this_thread::yield();
        has_ended = true;
    };
    write("a = 22\n");
    while (!has_begun)
        std::this_thread::yield();
    std::thread ending([&] {
        EXPECT_TRUE(m_file->Watch(nullptr));
        EXPECT_TRUE(has_ended);
    });
    may_end = true;
    ending.join();
}

} // namespace
