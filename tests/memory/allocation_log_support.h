// Shared code of the tests of the allocation log: the reader of a log, and the frame around a scene that writes one.
#pragma once

#include "qor/qor.h"
#include "support/scenes.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <sstream>

namespace qor::test::log {

// The source name of the blocks of the scenes; the library's own blocks in the log have others.
inline constexpr char here[] = "here";

using events = std::vector<std::string>;

inline constexpr uint64 too_much = uint64{1} << 62;

struct record {
    char letter = 0;
    std::string address;
    std::string size;
    std::string type;
    std::string file;
    std::string line;
    std::string type_name;
};

inline bool is_number(const std::string& text, const char* digits) {
    return !text.empty() && text.find_first_not_of(digits) == std::string::npos;
}

// Accepts exactly the grammar: single blanks, no missing and no extra fields.
inline record parse(const std::string& text) {
    record result;
    std::istringstream fields(text);
    std::string again;
    fields >> result.letter >> result.address;
    if (result.letter == 'A') {
        fields >> result.size >> result.type >> result.file >> result.line;
        again = "A " + result.address + ' ' + result.size + ' ' + result.type;
        if (!result.file.empty())
            again += ' ' + result.file + ' ' + result.line;
        EXPECT_TRUE(is_number(result.size, "0123456789")) << text;
    } else if (result.letter == 'F') {
        fields >> result.type;
        again = "F " + result.address + ' ' + result.type;
    } else if (result.letter == 'T') {
        fields >> result.type_name;
        again = "T " + result.address + ' ' + result.type_name;
        EXPECT_FALSE(result.type_name.empty()) << text;
    }
    EXPECT_EQ(again, text);
    EXPECT_TRUE(is_number(result.address, "0123456789abcdef")) << text;
    EXPECT_TRUE(result.letter == 'T' || is_number(result.type, "013")) << text;
    return result;
}

// The events of the blocks from `here`, each block identified by its line: "A 7 48 0", "T 7 name", "F 7 0"; a free of
// an address that is not alive is "F ? 0". tell() also checks each line of the log, and that no live block is allocated
// again.
struct story {
    std::vector<std::string> events;
    std::vector<std::string> leaks; // of any source, "file:line"
};

inline story tell(const std::string& log) {
    story result;
    EXPECT_TRUE(log.starts_with("# ")) << log.substr(0, 100);
    EXPECT_TRUE(log.ends_with('\n'));
    std::map<std::string, record> live;
    std::istringstream lines(log.substr(log.find('\n') + 1));
    for (std::string line; std::getline(lines, line);) {
        const record now = parse(line);
        if (now.letter == 'A') {
            EXPECT_FALSE(live.contains(now.address)) << line;
            live[now.address] = now;
        }
        const auto block = live.find(now.address);
        const bool known = block != live.end();
        const bool ours = known && block->second.file.starts_with(here);
        const std::string subject = ours ? block->second.line : "?";
        if (now.letter == 'A' && ours)
            result.events.push_back("A " + subject + ' ' + now.size + ' ' + now.type);
        if (now.letter == 'T' && (ours || !known))
            result.events.push_back("T " + subject + ' ' + now.type_name);
        if (now.letter == 'F') {
            if (ours || !known)
                result.events.push_back("F " + subject + ' ' + now.type);
            if (known)
                live.erase(block);
        }
    }
    for (const auto& [address, block] : live)
        result.leaks.push_back(block.file + ':' + block.line);
    return result;
}

// Returns the process that the beginning of a log names as its writer.
inline std::string process_of(const std::string& log) {
    constexpr std::string_view begin = "# allocation log of process ";
    EXPECT_TRUE(log.starts_with(begin)) << log.substr(0, 100);
    return log.substr(begin.size(), log.find(';') - begin.size());
}

// Returns the other files in the folder of a log.
inline words logs_of_children(const std::string& path) {
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    words result;
    for (const auto& each : std::filesystem::directory_iterator(folder))
        if (const std::string found = folder + each.path().filename().string(); found != path)
            result.push_back(found);
    return result;
}

inline void start(const std::string& path) {
    qorStringArray args;
    args.Append("program");
    args.Append(("--qor-memcheck=" + path).c_str());
    EXPECT_TRUE(qorInitProcess("program", args, 0));
    EXPECT_EQ(args.GetCount(), 0u);
}

class thing : public qorRefObject {
public:
    explicit thing(const char* name = "thing") : qorRefObject(name) {}
};

class allocation_log : public testing::Test {
protected:
    // Plays a scene whose only argument is the path of the log.
    ending play_scene(const scene& which) { return play(which, {m_path}); }

    story story_of(const scene& which) {
        const ending ended = play_scene(which);
        EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
        EXPECT_EQ(ended.err, "");
        return tell(read_file(m_path));
    }

    // Returns the tool's report on a log, without its last line.
    std::string replay(const std::string& path) {
        const ending ended = qor::test::run({QOR_TOOL, "--quiet", "memcheck", path});
        EXPECT_EQ(ended.code, 0) << ended.err;
        EXPECT_EQ(ended.err.find("WARNING"), std::string::npos) << ended.err;
        EXPECT_TRUE(ended.out.ends_with("Done\n")) << ended.out;
        return ended.out.substr(0, ended.out.rfind("Done\n"));
    }

    const temp_folder m_folder;
    const std::string m_path = m_folder / "log";
};

// Objects that live until the handlers of exit() run.
inline void* s_late;
inline thing* s_object;

inline void allocate_late() {
    s_late = qor_do_malloc(0, 10, true, here, 1);
    s_object = new (here, 2) thing;
}

inline void free_late() {
    qor_do_free(s_late, here, 99);
    s_object->Release();
}

inline const events late_events{"A 1 10 0", "A 2 " + std::to_string(sizeof(thing)) + " 1", "T 2 thing", "F 1 0",
                                "F 2 1"};

inline void work(unsigned seed, int rounds) {
    std::mt19937 random(seed);
    std::vector<void*> blocks;
    for (int round = 0; round < rounds; ++round) {
        blocks.push_back(qor_do_malloc(0, random() % 300, true, "threads", static_cast<int>(seed)));
        void*& chosen = blocks[random() % blocks.size()];
        std::swap(chosen, blocks.back());
        if (round % 3 == 0)
            blocks.back() = qor_do_realloc(blocks.back(), random() % 600, "threads", 7);
        if (round % 7 == 0)
            (new ("threads", 8) thing)->Release();
        if (round % 50 == 0)
            qor_do_huge_free(qor_do_huge_alloc(10, "threads", 9), here, 99);
        if (round % 2 == 0) {
            qor_do_free(blocks.back(), here, 99);
            blocks.pop_back();
        }
    }
    for (void* const block : blocks)
        qor_do_free(block, here, 99);
}

// Allocates enough for many writes of the log.
extern const scene much_work;

} // namespace qor::test::log
