// Shared code of the tests of floods of trace lines.
#pragma once

#include "qor/qor.h"
#include "support/platform.h"
#include "support/scenes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

namespace qor::test::flood {

using qor::test::play;
using qor::test::scene;
using qor::test::words;

inline constexpr int lines = 20'000;

inline uint32 code() {
    static const uint32 of_floods = qorDebugAllocateCode("flood");
    return of_floods;
}

inline void start(const std::string& path) {
    EXPECT_TRUE(qorDebugAttachFile(path.c_str()));
    EXPECT_TRUE(qorDebugEnableCode("flood", true));
}

inline void trace(int count) {
    for (int i = 0; i < count; ++i)
        qorDebug(code(), "line %d", i);
}

inline words expected(int count = lines) {
    words result;
    for (int i = 0; i < count; ++i)
        result.push_back("flood line " + std::to_string(i));
    return result;
}

// Returns the texts after time, process and thread; a line without them fails the test.
inline words bodies(const std::string& text) {
    words result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        std::size_t at = line.find(' ');
        at = at == line.npos ? at : line.find(' ', at + 1);
        if (at == line.npos || line.compare(0, 2, "20") != 0 || line.find("Z ") != 26) {
            ADD_FAILURE() << line.substr(0, 200);
            return result;
        }
        result.push_back(line.substr(at + 1));
    }
    return result;
}

// Returns the files that killed processes have left.
inline words rests(const std::string& folder) {
    words result;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        if (entry.path().string().find(".rest") != std::string::npos)
            result.push_back(entry.path().string());
    return result;
}

// Returns the lines of the file "trace", then those of its rests.
inline words all_bodies(const std::string& folder) {
    std::string text = read_file(folder + "/trace");
    for (const std::string& rest : rests(folder)) {
        std::string bytes = read_file(rest);
        bytes.erase(std::min(bytes.find('\0'), bytes.size()));
        text += bytes;
    }
    return bodies(text);
}

class trace_flood : public testing::Test {
protected:
    const temp_folder m_folder;
    const std::string m_path = m_folder / "trace";
};

} // namespace qor::test::flood
