// The file of known hosts, and files that are replaced while others use them.
#include "login/known_hosts.h"

#include "private_file_of.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace qor::test;
using qor::control::known_hosts;

// Each console has read the file before the others changed it; no line may be lost.
TEST(known_hosts, consoles_that_remember_at_once) {
    const temp_folder folder;
    const std::string path = folder / "known-hosts";
    const qor::control::key_fingerprint key{1, 2, 3};
    constexpr int consoles = 6, hosts = 20;
    std::vector<std::thread> threads;
    for (int console = 0; console < consoles; ++console)
        threads.emplace_back([&, console] {
            for (int host = 0; host < hosts; ++host)
                EXPECT_TRUE(
                    known_hosts(path).remember("host" + std::to_string(host), static_cast<uint16>(1 + console), key));
        });
    for (std::thread& each : threads)
        each.join();
    const std::string text = read_file(path);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), consoles * hosts);
    for (int console = 0; console < consoles; ++console)
        for (int host = 0; host < hosts; ++host) {
            const std::string line = "host" + std::to_string(host) + ' ' + std::to_string(1 + console) +
                                     " sha256 010203" + std::string(58, '0') + '\n';
            EXPECT_NE(text.find(line), text.npos) << line;
        }
}

// A reader sees one of the two texts in full, and reader and writer never fail because of each other.
TEST(private_file, is_read_while_it_is_replaced) {
    const temp_folder folder;
    const std::string texts[] = {std::string(3, 'a'), std::string(20'000, 'b')};
    const std::string path = private_file(folder, "file", texts[0]);
    std::atomic<bool> done = false;
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i)
        readers.emplace_back([&] {
            while (!done) {
                std::string text, reason;
                bool is_missing = true;
                ASSERT_TRUE(qor::control::read_private_file(path, text, reason, is_missing)) << reason;
                ASSERT_FALSE(is_missing);
                ASSERT_TRUE(text == texts[0] || text == texts[1]) << text.size();
                // Windows cannot replace a file that is being read, so the readers pause.
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    for (int i = 0; i < 300; ++i)
        private_file(folder, "file", texts[i % 2]);
    done = true;
    for (std::thread& each : readers)
        each.join();
}

} // namespace
