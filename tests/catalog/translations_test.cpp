#include "catalog/translations.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

namespace {

using languages = std::vector<std::string>;

const qor::test::temp_folder* folder;
std::atomic<int> searches;

std::string find_file(std::string_view name) {
    ++searches;
    const std::string path = *folder / name;
    return std::filesystem::exists(path) ? path : std::string();
}

class translations : public testing::Test {
protected:
    translations() {
        folder = &files;
        searches = 0;
    }

    static void write(const char* name, const char* content) { folder->file(name, content); }

    const qor::test::temp_folder files;
    qor::catalog::translations texts{&find_file};
};

} // namespace

TEST_F(translations, english_touches_no_file) {
    EXPECT_EQ(texts.find("qortool", 2, {}), "help");
    EXPECT_EQ(texts.find("qortool", 4, {}), "");
    EXPECT_EQ(searches, 0);
}

TEST_F(translations, only_messages_that_english_has_exist) {
    write("qortool.de.msg", "4 vier\n2 hilfe\n");
    write("other.de.msg", "2 hilfe\n");
    EXPECT_EQ(texts.find("qortool", 4, {"de"}), "");
    EXPECT_EQ(texts.find("qortool", 4294967295, {"de"}), "");
    EXPECT_EQ(texts.find("other", 2, {"de"}), "");
    EXPECT_EQ(texts.find("", 2, {"de"}), "");
    EXPECT_EQ(searches, 0);
}

TEST_F(translations, catalogs_are_kept_apart) {
    write("qortool.de.msg", "2 hilfe\n");
    write("qorcore.de.msg", "2 speicher\n");
    EXPECT_EQ(texts.find("qortool", 2, {"de"}), "hilfe");
    EXPECT_EQ(texts.find("qorcore", 2, {"de"}), "speicher");
}

TEST_F(translations, what_one_language_lacks_comes_from_the_next) {
    write("qortool.de.msg", "2 hilfe\n3 \xff\n");
    write("qortool.fr.msg", "2 aide\n3 liste\n5 rien {1}\n");
    const languages wanted = {"it", "de", "fr"};
    EXPECT_EQ(texts.find("qortool", 2, wanted), "hilfe");
    EXPECT_EQ(texts.find("qortool", 3, wanted), "liste");
    EXPECT_EQ(texts.find("qortool", 5, wanted), texts.find("qortool", 5, {}));
}

TEST_F(translations, files_are_looked_for_once) {
    write("qortool.de.msg", "2 hilfe\n");
    for (int i = 0; i < 3; ++i)
        texts.find("qortool", 3, {"it", "de"});
    EXPECT_EQ(searches, 2);
}

TEST_F(translations, texts_stay_where_they_are) {
    write("qortool.de.msg", "2 hilfe\n");
    const std::string_view text = texts.find("qortool", 2, {"de"});
    for (char c = 'a'; c <= 'z'; ++c)
        texts.find("qortool", 2, {std::string(2, c)});
    EXPECT_EQ(texts.find("qortool", 2, {"de"}).data(), text.data());
    EXPECT_EQ(text, "hilfe");
}

TEST_F(translations, a_language_is_there_if_it_has_a_text) {
    write("qorcore.de.msg", "2 speicher\n");
    write("qortool.fr.msg", "nothing of use\n");
    std::filesystem::create_directory(*folder / "qortool.it.msg");
    EXPECT_TRUE(texts.has("de"));
    EXPECT_FALSE(texts.has("fr"));
    EXPECT_FALSE(texts.has("it"));
    EXPECT_FALSE(texts.has("nl"));
}

TEST_F(translations, any_thread_may_ask_first) {
    write("qortool.de.msg", "2 hilfe\n");
    std::atomic<int> ready = 0;
    std::atomic<int> right = 0;
    std::vector<std::thread> threads;
    constexpr int count = 8;
    for (int i = 0; i < count; ++i)
        threads.emplace_back([&] {
            ++ready;
            while (ready != count)
                std::this_thread::yield();
            right += texts.find("qortool", 2, {"it", "de"}) == "hilfe";
        });
    for (std::thread& each : threads)
        each.join();
    EXPECT_EQ(right, count);
    EXPECT_EQ(searches, 2);
}
