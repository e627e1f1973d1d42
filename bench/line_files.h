// Shared by the benchmarks of lines that two threads write into a file at full speed, beside spdlog's file logger.
#pragma once

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace bench {

inline constexpr int threads = 2;

struct contender {
    const char* name;
    void (*run)(const std::string& path, int lines);
    std::vector<double> rounds{}; // lines per second

    double median() {
        std::nth_element(rounds.begin(), rounds.begin() + static_cast<long>(rounds.size() / 2), rounds.end());
        return rounds[rounds.size() / 2];
    }
};

template <class WRITE>
void on_threads(int lines, WRITE write) {
    std::vector<std::thread> all;
    for (int thread = 0; thread < threads; ++thread)
        all.emplace_back([=] {
            for (int line = 0; line < lines; ++line)
                write(thread, line);
        });
    for (std::thread& each : all)
        each.join();
}

// Returns the number after `word`, or -1.
inline int number_behind(std::string_view line, std::string_view word) {
    const std::size_t at = line.find(word);
    int number = -1;
    if (at != line.npos)
        std::from_chars(line.data() + at + word.size(), line.data() + line.size(), number);
    return number;
}

inline bool is_whole(const std::string& path, int lines) {
    std::ifstream file(path);
    int next[threads] = {};
    for (std::string line; std::getline(file, line);) {
        const int thread = number_behind(line, " thread ");
        if (thread < 0 || thread >= threads || number_behind(line, " to line ") != next[thread]++ ||
            !line.ends_with(" of many"))
            return false;
    }
    return std::ranges::count(next, lines) == threads;
}

inline void run_spdlog(const std::string& path, int lines) {
    const auto logger = spdlog::basic_logger_mt("bench", path, true);
    on_threads(lines, [logger = logger.get()](int thread, int line) {
        logger->info("thread {} has come to line {} of {}", thread, line, "many");
    });
    spdlog::drop_all();
}

// `run` is the framework's side. Returns the exit code of the benchmark.
inline int compare(int argc, char** argv, const std::string& name, void (*run)(const std::string& path, int lines)) {
    contender contenders[] = {{"the framework", run}, {"spdlog", run_spdlog}};
    bool brief = false;
    std::string folder = std::filesystem::temp_directory_path();
    for (int i = 1; i < argc; ++i)
        if (std::string_view(argv[i]) == "--brief")
            brief = true;
        else
            folder = argv[i];
    const int lines = brief ? 20'000 : 500'000;
    const int rounds = brief ? 3 : 9;
    const std::string path = folder + "/" + name + "." + std::to_string(std::random_device()());
    bool whole = true;
    for (int round = 0; round < rounds; ++round)
        for (contender& each : contenders) {
            const auto begin = std::chrono::steady_clock::now();
            each.run(path, lines);
            const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
            each.rounds.push_back(threads * lines / taken.count());
            if (!is_whole(path, lines)) {
                std::printf("%s: lines are missing or torn\n", each.name);
                whole = false;
            }
            std::filesystem::remove(path);
        }
    for (contender& each : contenders)
        std::printf("%-14s %9.0f lines a second\n", each.name, each.median());
    const double ratio = contenders[0].median() / contenders[1].median();
    std::printf("ratio %.2f (at least 1.00)\n", ratio);
    return whole && (brief || ratio >= 1) ? 0 : 1;
}

} // namespace bench
