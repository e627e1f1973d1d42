#include "qor/qor.h"
#include "support/scenes.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <map>
#include <random>
#include <sstream>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using qor::test::ending;
using qor::test::play;
using qor::test::read_file;
using qor::test::scene;
using qor::test::temp_folder;
using qor::test::words;

// The blocks of the scenes say that they come from here; the library has blocks of its own in the log.
constexpr char here[] = "here";

constexpr uint64 too_much = uint64{1} << 62;

struct record {
    char letter = 0;
    std::string address;
    std::string size;
    std::string type;
    std::string file;
    std::string line;
    std::string type_name;
};

bool is_number(const std::string& text, const char* digits) {
    return !text.empty() && text.find_first_not_of(digits) == std::string::npos;
}

// Exactly the grammar: single blanks, nothing missing, nothing more.
record parse(const std::string& text) {
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

// What happened to the blocks from here, each called by its line: "A 7 48 0", "T 7 name", "F 7 0"; a free of what was
// not alive is "F ? 0". On the way each line of the log is checked, and that no block is given out twice.
struct story {
    std::vector<std::string> events;
    std::vector<std::string> leaks; // of anybody, "file:line"
};

story tell(const std::string& log) {
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

void start(const std::string& path) {
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

    // What the tool makes of a log, without its closing word.
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

using events = std::vector<std::string>;

} // namespace

// ---------------------------------------------------------------- what is written

namespace {

const scene plain{"log_plain", [](const words& arguments) {
    start(arguments[0]);
    void* const block = qor_do_malloc(0, 48, true, here, 1);
    void* const aligned = qor_do_malloc(256, 0, true, here, 2);
    char* const text = qor_do_strdup("text", here, 3);
    qor_do_free(block, "another/file", 99);
    qor_do_free(aligned, here, 99);
    qor_do_free(nullptr, here, 99);
    qor_do_free(text, here, 99);
    void* const copy = qor_do_memdup("1234567", 7, here, 4);
    char* const part = qor_do_strndup("text", 2, here, -5);
    qor_do_free(copy, here, 99);
    qor_do_free(part, here, 99);
    return 0;
}};

const scene before_the_start{"log_before_the_start", [](const words& arguments) {
    void* const first = qor_do_malloc(0, 10, true, here, 1);
    thing* const object = new (here, 2) thing("before");
    void* const gone = qor_do_malloc(0, 30, true, here, 3);
    void* const huge = qor_do_huge_alloc(40, here, 4);
    void* grown = qor_do_malloc(0, 50, true, here, 5);
    void* const last = qor_do_malloc(0, 60, true, here, 6);
    qor_do_free(gone, here, 99);
    grown = qor_do_realloc(grown, 70, here, 7);
    start(arguments[0]);
    void* const after = qor_do_malloc(0, 80, true, here, 8);
    qor_do_free(last, here, 99);
    qor_do_huge_free(huge, here, 99);
    object->Release();
    qor_do_free(grown, here, 99);
    qor_do_free(first, here, 99);
    qor_do_free(after, here, 99);
    return 0;
}};

const scene objects{"log_objects", [](const words& arguments) {
    start(arguments[0]);
    thing* const object = new (here, 1) thing("a.name");
    object->AddRef();
    object->Release();
    object->Release();
    thing* const nameless = new (here, 2) thing(nullptr);
    nameless->Release();
    // Not at the start of a block, so there is no block to name.
    const int on_the_stack = 0;
    qor::glue::qorAnnounceObject(&on_the_stack, "stack");
    return 0;
}};

const scene odd_names{"log_odd_names", [](const words& arguments) {
    start(arguments[0]);
    (new ("here is\twhite\nspace\x01", 1) thing(" a\v\f\rname "))->Release();
    (new ("here\xc3\xa4", 2) thing("na\xc3\xafve<int, char>"))->Release();
    (new ("here", 3) thing(""))->Release();
    qor_do_free(qor_do_malloc(0, 4, true, nullptr, 4), here, 99);
    qor_do_free(qor_do_malloc(0, 5, true, "", 5), here, 99);
    const std::string longest = here + std::string(200'000, 'x');
    qor_do_free(qor_do_malloc(0, 6, true, longest.c_str(), 6), here, 99);
    return 0;
}};

const scene reallocation{"log_reallocation", [](const words& arguments) {
    start(arguments[0]);
    void* block = qor_do_realloc(nullptr, 10, here, 1);
    block = qor_do_realloc(block, 8, here, 2);
    block = qor_do_realloc(block, 1 << 20, here, 3);
    EXPECT_THROW(qor_do_realloc(block, too_much, here, 4), std::bad_alloc);
    EXPECT_THROW(qor_do_malloc(0, too_much, true, here, 5), std::bad_alloc);
    qor_do_free(block, here, 99);
    return 0;
}};

const scene huge{"log_huge", [](const words& arguments) {
    start(arguments[0]);
    void* const block = qor_do_huge_alloc(100'000, here, 1);
    EXPECT_THROW(qor_do_huge_alloc(too_much, here, 2), std::bad_alloc);
    qor_do_huge_free(block, here, 99);
    qor_do_huge_free(block, here, 99);
    return 0;
}};

const scene bad_frees{"log_bad_frees", [](const words& arguments) {
    start(arguments[0]);
    void* const block = qor_do_malloc(0, 10, true, here, 1);
    qor_do_free(block, here, 99);
    qor_do_free(block, here, 99);
    int stranger = 0;
    qor_do_free(&stranger, here, 99);
    qor_do_huge_free(&stranger, here, 99);
    qor::glue::qor_do_delete(&stranger);
    void* const fresh = qor_do_realloc(&stranger, 20, here, 2);
    std::memset(fresh, 0, 20);
    qor_do_free(fresh, here, 99);
    return 0;
}};

} // namespace

TEST_F(allocation_log, begins_with_a_comment_that_names_the_process) {
    play_scene(plain);
    const std::string log = read_file(m_path);
    int process = 0;
    EXPECT_EQ(std::sscanf(log.c_str(), "# allocation log of process %d;", &process), 1) << log;
    EXPECT_GT(process, 1);
}

TEST_F(allocation_log, plain_blocks) {
    EXPECT_EQ(story_of(plain).events, (events{"A 1 48 0", "A 2 0 0", "A 3 5 0", "F 1 0", "F 2 0", "F 3 0", "A 4 7 0",
                                              "A -5 3 0", "F 4 0", "F -5 0"}));
}

TEST_F(allocation_log, blocks_from_before_the_start_come_first_in_their_order) {
    EXPECT_EQ(story_of(before_the_start).events,
              (events{"A 1 10 0", "A 2 " + std::to_string(sizeof(thing)) + " 1", "T 2 before", "A 4 40 3", "A 6 60 0",
                      "A 7 70 0", "A 8 80 0", "F 6 0", "F 4 3", "F 2 1", "F 7 0", "F 1 0", "F 8 0"}));
}

TEST_F(allocation_log, objects_say_what_they_are) {
    const std::string size = std::to_string(sizeof(thing));
    EXPECT_EQ(story_of(objects).events,
              (events{"A 1 " + size + " 1", "T 1 a.name", "F 1 1", "A 2 " + size + " 1", "F 2 1"}));
}

TEST_F(allocation_log, names_hold_no_white_space) {
    const std::string size = std::to_string(sizeof(thing));
    EXPECT_EQ(story_of(odd_names).events,
              (events{"A 1 " + size + " 1", "T 1 _a___name_", "F 1 1", "A 2 " + size + " 1",
                      "T 2 na\xc3\xafve<int,_char>", "F 2 1", "A 3 " + size + " 1", "F 3 1", "A 6 6 0", "F 6 0"}));
    const std::string log = read_file(m_path);
    EXPECT_NE(log.find(" here_is_white_space_ 1\n"), std::string::npos);
    EXPECT_NE(log.find(" 4 0\n"), std::string::npos);
    EXPECT_NE(log.find(" 5 0\n"), std::string::npos);
    EXPECT_EQ(replay(m_path), "No leaks found\n");
}

TEST_F(allocation_log, a_reallocation_is_an_end_and_a_beginning) {
    const ending ended = play(reallocation, {m_path}, {"ASAN_OPTIONS=allocator_may_return_null=1",
                                                       "TSAN_OPTIONS=allocator_may_return_null=1"});
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    EXPECT_EQ(tell(read_file(m_path)).events, (events{"A 1 10 0", "F 1 0", "A 2 8 0", "F 2 0", "A 3 1048576 0",
                                                      // What could not grow stands as it was.
                                                      "F 3 0", "A 3 1048576 0", "F 3 0"}));
}

TEST_F(allocation_log, huge_blocks_have_a_type_of_their_own) {
    EXPECT_EQ(story_of(huge).events, (events{"A 1 100000 3", "F 1 3", "F ? 3"}));
}

TEST_F(allocation_log, a_bad_free_is_written_and_goes_no_further) {
    EXPECT_EQ(story_of(bad_frees).events, (events{"A 1 10 0", "F 1 0", "F ? 0", "F ? 0", "F ? 3", "F ? 1", "F ? 0",
                                                  "A 2 20 0", "F 2 0"}));
    const std::string report = replay(m_path);
    EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 6) << report;
    EXPECT_EQ(report.find("LEAK"), std::string::npos) << report;
    EXPECT_TRUE(report.ends_with("No leaks found\n")) << report;
}

// ---------------------------------------------------------------- the end of the process

namespace {

void* s_late;
thing* s_object;

void free_late() {
    qor_do_free(s_late, here, 99);
    s_object->Release();
}

// With the way to end as a second argument.
const scene end{"log_end", [](const words& arguments) {
    // Registered before the log's own handler, so it runs after that.
    std::atexit(free_late);
    start(arguments[0]);
    s_late = qor_do_malloc(0, 10, true, here, 1);
    s_object = new (here, 2) thing;
    for (int i = 0; i < 5000; ++i)
        qor_do_free(qor_do_malloc(0, 1, true, "elsewhere", i), here, 99);
    if (arguments[1] == "cleanup")
        qorCleanup();
    if (arguments[1] == "exit")
        std::exit(0);
    return 0;
}};

} // namespace

TEST_F(allocation_log, is_whole_however_the_process_ends) {
    const std::string size = std::to_string(sizeof(thing));
    for (const char* const way : {"return", "exit", "cleanup"}) {
        const ending ended = play(end, {m_path, way});
        EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
        const story told = tell(read_file(m_path));
        EXPECT_EQ(told.events, (events{"A 1 10 0", "A 2 " + size + " 1", "T 2 thing", "F 1 0", "F 2 1"})) << way;
        EXPECT_EQ(told.leaks, events{}) << way;
        EXPECT_EQ(replay(m_path), "No leaks found\n");
    }
}

// ---------------------------------------------------------------- replay

namespace {

const scene leaks{"log_leaks", [](const words& arguments) -> int {
    start(arguments[0]);
    static void* const kept[] = {qor_do_malloc(0, 48, true, "here/there", 120), new ("here/object", 55) thing("a.type")};
    return kept[0] == nullptr;
}};

} // namespace

TEST_F(allocation_log, the_tool_shows_leaks_with_source_and_type) {
    const ending ended = play_scene(leaks);
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    const std::string report = replay(m_path);
    EXPECT_NE(report.find("here/there"), std::string::npos) << report;
    EXPECT_NE(report.find("120"), std::string::npos) << report;
    EXPECT_NE(report.find("here/object"), std::string::npos) << report;
    EXPECT_NE(report.find("a.type"), std::string::npos) << report;
    EXPECT_EQ(report.find("BAD FREE"), std::string::npos) << report;
}

TEST_F(allocation_log, the_tool_itself_is_clean) {
    const ending ended = qor::test::run({QOR_TOOL, "--qor-memcheck=" + m_path, "help"});
    EXPECT_EQ(ended.code, 1);
    EXPECT_EQ(replay(m_path), "No leaks found\n");
    const story told = tell(read_file(m_path));
    EXPECT_EQ(told.events, events{});
    EXPECT_EQ(told.leaks, events{});
}

// ---------------------------------------------------------------- threads

namespace {

void work(unsigned seed, int rounds) {
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

const scene threads{"log_threads", [](const words& arguments) {
    std::vector<std::thread> workers;
    // Some are at work already when the log begins.
    for (unsigned i = 0; i < 4; ++i)
        workers.emplace_back(work, i, 2000);
    start(arguments[0]);
    for (unsigned i = 4; i < 8; ++i)
        workers.emplace_back(work, i, 2000);
    for (std::thread& each : workers)
        each.join();
    return 0;
}};

} // namespace

TEST_F(allocation_log, lines_of_many_threads_are_whole_and_in_order) {
    const story told = story_of(threads);
    EXPECT_EQ(told.events, events{});
    EXPECT_EQ(told.leaks, events{});
    EXPECT_EQ(replay(m_path), "No leaks found\n");
}

// ---------------------------------------------------------------- forks

namespace {

// The exit code of the child, which runs `act` and exits as a program does.
template <class ACT>
int in_child(ACT act, pid_t* process = nullptr) {
    const pid_t child = fork();
    if (child == 0)
        std::exit(act());
    if (process != nullptr)
        *process = child;
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void* s_block;

const scene forks{"log_forks", [](const words& arguments) {
    start(arguments[0]);
    s_block = qor_do_malloc(0, 10, true, here, 1);
    s_object = new (here, 2) thing("of.the.parent");
    qor_do_free(qor_do_malloc(0, 30, true, here, 3), here, 99);
    pid_t child = 0;
    EXPECT_EQ(in_child(
                  [] {
                      qor_do_free(s_block, here, 99);
                      s_object->Release();
                      qor_do_free(qor_do_malloc(0, 40, true, here, 4), here, 99);
                      return 0;
                  },
                  &child),
              0);
    EXPECT_EQ(rename((arguments[0] + '.' + std::to_string(child)).c_str(), (arguments[0] + ".child").c_str()), 0);
    qor_do_free(s_block, here, 99);
    qor_do_free(qor_do_malloc(0, 50, true, here, 5), here, 99);
    s_object->Release();
    return 0;
}};

const scene forks_between_threads{"log_forks_between_threads", [](const words& arguments) {
    start(arguments[0]);
    std::vector<std::thread> workers;
    for (unsigned i = 0; i < 2; ++i)
        workers.emplace_back(work, i, 20'000);
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(in_child([] {
                      alarm(30); // instead of waiting for ever for a lock that nobody will open
                      work(7, 50);
                      return 0;
                  }),
                  0);
    for (std::thread& each : workers)
        each.join();
    return 0;
}};

const scene fork_without_folder{"log_fork_without_folder", [](const words& arguments) {
    start(arguments[0]);
    const std::string folder = arguments[0].substr(0, arguments[0].rfind('/'));
    EXPECT_EQ(rename(folder.c_str(), (folder + ".moved").c_str()), 0);
    pid_t child = 0;
    EXPECT_EQ(in_child(
                  [] {
                      work(7, 50);
                      return 0;
                  },
                  &child),
              0);
    EXPECT_EQ(rename((folder + ".moved").c_str(), folder.c_str()), 0);
    qor_do_free(qor_do_malloc(0, 10, true, here, 1), here, 99);
    std::printf("%d", child);
    return 0;
}};

const scene fork_at_the_end{"log_fork_at_the_end", [](const words& arguments) {
    std::atexit([] {
        if (fork() == 0)
            free_late();
        else
            wait(nullptr);
    });
    start(arguments[0]);
    s_late = qor_do_malloc(0, 10, true, here, 1);
    s_object = new (here, 2) thing;
    return 0;
}};

std::vector<std::string> logs_of_children(const std::string& path) {
    std::vector<std::string> result;
    for (const auto& each : std::filesystem::directory_iterator(std::filesystem::path(path).parent_path()))
        if (each.path() != path)
            result.push_back(each.path());
    return result;
}

} // namespace

TEST_F(allocation_log, a_child_goes_on_in_a_file_of_its_own) {
    const std::string size = std::to_string(sizeof(thing));
    EXPECT_EQ(story_of(forks).events, (events{"A 1 10 0", "A 2 " + size + " 1", "T 2 of.the.parent", "A 3 30 0",
                                              "F 3 0", "F 1 0", "A 5 50 0", "F 5 0", "F 2 1"}));
    const std::string log = read_file(m_path + ".child");
    EXPECT_EQ(tell(log).events, (events{"A 1 10 0", "A 2 " + size + " 1", "T 2 of.the.parent", "F 1 0", "F 2 1",
                                        "A 4 40 0", "F 4 0"}));
    EXPECT_NE(log.substr(0, log.find('\n')), read_file(m_path).substr(0, log.find('\n')));
    EXPECT_EQ(replay(m_path), "No leaks found\n");
}

TEST_F(allocation_log, children_are_forked_while_other_threads_allocate) {
    // A child does not have the threads that would free their blocks, and the sanitizers do not know that.
    const ending ended = play(forks_between_threads, {m_path}, {"ASAN_OPTIONS=detect_leaks=0", "TSAN_OPTIONS=report_thread_leaks=0"});
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    EXPECT_EQ(ended.err, "");
    const story told = tell(read_file(m_path));
    EXPECT_EQ(told.events, events{});
    EXPECT_EQ(told.leaks, events{});
    const std::vector<std::string> children = logs_of_children(m_path);
    EXPECT_EQ(children.size(), 20u);
    for (const std::string& path : children)
        EXPECT_EQ(tell(read_file(path)).events, events{});
}

TEST_F(allocation_log, a_child_that_cannot_write_goes_on_without) {
    std::filesystem::create_directory(m_folder / "sub");
    const std::string path = m_folder / "sub/log";
    const ending ended = play(fork_without_folder, {path});
    EXPECT_EQ(ended.code, 0) << ended.out;
    EXPECT_EQ(ended.err,
              "program: the allocation log '" + path + "." + ended.out + "' ends here: No such file or directory\n");
    EXPECT_EQ(tell(read_file(path)).events, (events{"A 1 10 0", "F 1 0"}));
}

TEST_F(allocation_log, a_child_that_is_forked_at_the_very_end) {
    play_scene(fork_at_the_end);
    const std::vector<std::string> children = logs_of_children(m_path);
    ASSERT_EQ(children.size(), 1u);
    const std::string size = std::to_string(sizeof(thing));
    EXPECT_EQ(tell(read_file(children[0])).events,
              (events{"A 1 10 0", "A 2 " + size + " 1", "T 2 thing", "F 1 0", "F 2 1"}));
}

// ---------------------------------------------------------------- a log that cannot be written

namespace {

const scene much_work{"log_much_work", [](const words& arguments) {
    start(arguments[0]);
    work(1, 20'000);
    return 0;
}};

const scene full_later{"log_full_later", [](const words& arguments) {
    start(arguments[0]);
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{100'000, 100'000};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    work(1, 20'000);
    return 0;
}};

} // namespace

TEST_F(allocation_log, a_full_disk_ends_the_log_and_not_the_process) {
    for (const scene* each : {&much_work, &plain}) {
        const ending ended = play(*each, {"/dev/full"});
        EXPECT_EQ(ended.code, 0) << ended.out;
        EXPECT_EQ(ended.err, "program: the allocation log '/dev/full' ends here: No space left on device\n");
    }
}

TEST_F(allocation_log, a_disk_that_fills_up_leaves_what_was_written) {
    const ending ended = play_scene(full_later);
    EXPECT_EQ(ended.code, 0) << ended.out;
    EXPECT_EQ(ended.err, "program: the allocation log '" + m_path + "' ends here: File too large\n");
    EXPECT_GT(read_file(m_path).size(), 30'000u);
}
