// A folder for the files of one test, which the destructor removes; and functions that read and write whole files.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>

namespace qor::test {

inline std::string read_file(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

class temp_folder {
public:
    temp_folder() {
        std::random_device random;
        do
            m_path = testing::TempDir() + "/qor." + std::to_string(random());
        while (!std::filesystem::create_directory(m_path));
    }
    temp_folder(const temp_folder&) = delete;
    temp_folder& operator=(const temp_folder&) = delete;
    ~temp_folder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    const std::string& path() const { return m_path; }
    std::string operator/(std::string_view name) const { return m_path + '/' + std::string(name); }

    // Writes a new file with these bytes and returns its path.
    std::string file(std::string_view name, std::string_view bytes) const {
        std::ofstream(*this / name, std::ios::binary) << bytes;
        return *this / name;
    }

private:
    std::string m_path;
};

} // namespace qor::test
