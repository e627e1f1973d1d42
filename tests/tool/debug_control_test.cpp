// The console of debug control with a fake connection that only records requests.
#include "console/debug_control.h"
#include "qortool_app.h"
#include "support/recording_table.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

namespace {

using texts = std::vector<std::string>;

constexpr uint32 s_other_error = qorError_cannot_write_file; // any error except that of refused credentials

// The answers of the connection, and the recorded requests.
struct peer {
    bool connects = true;
    std::deque<uint32> logins; // the error of each attempt, 0 for success; none left: success
    bool takes_sink = true;
    bool works = true; // the commands succeed
    texts codes;
    texts enabled;
    texts calls;
};

peer* s_peer = nullptr;

class control final : public IQORDebugControl {
public:
    void AddRef() noexcept override { ++m_references; }
    void Release() noexcept override {
        if (--m_references == 0) {
            note("ended");
            delete this;
        }
    }
    int QueryInterface(const char*, void**) noexcept override { return 0; }

    bool Connect(const char* host, uint16 port) noexcept override {
        note("Connect " + std::string(host) + " " + std::to_string(port));
        return s_peer->connects || fail(s_other_error, "the connection");
    }
    bool Login(const char* username, const char* password) noexcept override {
        note("Login [" + std::string(username) + "] [" + password + "]");
        uint32 error = 0;
        if (!s_peer->logins.empty()) {
            error = s_peer->logins.front();
            s_peer->logins.pop_front();
        }
        return error == 0 || fail(error, "the login");
    }
    bool SetSink(IQORDebugControlSink* sink) noexcept override {
        note("SetSink " + std::to_string(sink->getver_IQORDebugControlSink()));
        return s_peer->takes_sink || fail(s_other_error, "the sink");
    }
    bool GetCodes(qorStringArray& out) noexcept override { return get("GetCodes", s_peer->codes, out); }
    bool GetEnabledCodes(qorStringArray& out) noexcept override { return get("GetEnabledCodes", s_peer->enabled, out); }
    bool EnableCode(const char* name, bool enable) noexcept override {
        note("EnableCode " + std::string(name) + (enable ? " on" : " off"));
        return s_peer->works || fail(s_other_error, "EnableCode");
    }
    bool DisableAll() noexcept override {
        note("DisableAll");
        return s_peer->works || fail(s_other_error, "DisableAll");
    }

private:
    static void note(std::string call) { s_peer->calls.push_back(std::move(call)); }

    static bool fail(uint32 error, const char* what) {
        qorSetLastError(error, what, "it was told to");
        return false;
    }

    static bool get(const char* op, const texts& from, qorStringArray& out) {
        note(std::string(op) + (out.IsEmpty() ? "" : " into what is not empty"));
        for (const std::string& each : from)
            out.Append(each.c_str());
        return s_peer->works || fail(s_other_error, op);
    }

    int m_references = 1;
};

void create_control(IQORDebugControl** out) noexcept {
    s_peer->calls.push_back(*out == nullptr ? "create" : "create over another");
    *out = new control;
}

std::string message(uint32 number, const char* a1 = nullptr, const char* a2 = nullptr) {
    qorString text;
    EXPECT_TRUE(text.Format("qortool", number, a1, a2)) << number;
    return std::string(text.Text()) + '\n';
}

std::string error_text(uint32 number, const char* what) {
    qorSetLastError(number, what, "it was told to");
    qorString text;
    qorGetLastError(text);
    return std::string(text.Text()) + '\n';
}

class debug_console : public testing::Test {
protected:
    debug_console() {
        s_peer = &m_peer;
        m_table.rows.create_IQORDebugControl = create_control;
        qorClearLastError();
    }

    struct outcome {
        int code;
        std::string out;
        std::string err;
    };

    // Runs the tool with these arguments and this input.
    outcome run(const texts& words, const std::string& input) {
        qorStringArray args;
        for (const std::string& word : words)
            args.Append(word.c_str());
        zetSmartPointer<qortool_app> app;
        app.AttachNew(new ("tests/tool/debug_control_test", __LINE__) qortool_app);
        EXPECT_NE(std::freopen(m_folder.file("input", input).c_str(), "rb", stdin), nullptr);
        m_table.take();
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        outcome result;
        result.code = app->Main(args);
        result.out = testing::internal::GetCapturedStdout();
        result.err = testing::internal::GetCapturedStderr();
        return result;
    }

    // Runs the console and returns its output without the text around the commands; `input` follows the login.
    outcome console(const std::string& input) {
        outcome result = run({"--quiet", "debug-control", "host", "700"}, "user\nsecret\n" + input);
        EXPECT_EQ(result.code, 1);
        const std::string before = "Username: Password: Debug> ";
        EXPECT_EQ(result.out.substr(0, before.size()), before);
        result.out.erase(0, before.size());
        const texts calls{"create", "Connect host 700", "Login [user] [secret]", "SetSink 1"};
        EXPECT_GE(m_peer.calls.size(), 5u);
        EXPECT_TRUE(std::equal(calls.begin(), calls.end(), m_peer.calls.begin()));
        EXPECT_EQ(m_peer.calls.back(), "ended");
        if (m_peer.calls.size() >= 5)
            m_peer.calls = texts(m_peer.calls.begin() + 4, m_peer.calls.end() - 1);
        return result;
    }

    const qor::test::temp_folder m_folder;
    qor::test::recording_table m_table;
    peer m_peer;
    const std::string m_end_of_input = error_text(qorError_end_of_input, nullptr);
};

TEST_F(debug_console, says_what_it_does_unless_it_is_quiet) {
    const outcome loud = run({"debug-control", "host", "700"}, "user\nsecret\n");
    EXPECT_EQ(loud.out,
              message(1) + message(73, "3.35.21") + message(47) + "Username: Password: " + message(48) + "Debug> ");
    EXPECT_EQ(loud.code, 1);
    const outcome quiet = run({"--quiet", "debug-control", "host", "700"}, "user\nsecret\n");
    EXPECT_EQ(quiet.out, "Username: Password: Debug> ");
    EXPECT_EQ(quiet.code, 1);
    EXPECT_EQ(loud.err, m_end_of_input);
    EXPECT_EQ(quiet.err, m_end_of_input);
}

TEST_F(debug_console, is_a_tracked_component_that_ends_with_the_action) {
    run({"--quiet", "debug-control", "host", "700"}, "");
    const texts calls = m_table.take();
    const std::string made = "qor_do_new(" + std::to_string(sizeof(debug_control)) + ", util/qortool/main, 1196) = ";
    const auto begin = std::ranges::find_if(calls, [&made](const std::string& call) { return call.starts_with(made); });
    ASSERT_NE(begin, calls.end());
    const std::string block = begin->substr(made.size());
    EXPECT_EQ(*(begin + 1), "qorAnnounceObject(qorcore.qortool.debug_control)");
    EXPECT_EQ(std::ranges::count(calls, "qor_do_delete(" + block + ")"), 1);
    EXPECT_EQ(m_peer.calls, (texts{"create", "Connect host 700", "ended"}));
}

TEST_F(debug_console, takes_one_option_that_does_nothing) {
    const outcome plain = run({"debug-control", "--xxx", "-xxx=value", "host", "700"}, "");
    EXPECT_EQ(plain.err, m_end_of_input);
    EXPECT_EQ(m_peer.calls, (texts{"create", "Connect host 700", "ended"}));
}

TEST_F(debug_console, refuses_other_options_and_words_before_it_connects) {
    const struct {
        texts words;
        std::string said;
    } cases[] = {
        {{"--xx", "host", "700"}, message(36, "debug-control", "xx")},
        {{"--xxx", "--XXX", "host", "700"}, message(36, "debug-control", "XXX")},
        {{"--port=7", "host"}, message(36, "debug-control", "port")},
        {{}, message(37, "debug-control")},
        {{"host"}, message(37, "debug-control")},
        {{"--xxx", "host"}, message(37, "debug-control")},
        {{"host", "700", "800"}, message(37, "debug-control")},
    };
    for (const auto& one : cases) {
        texts words{"--quiet", "debug-control"};
        words.insert(words.end(), one.words.begin(), one.words.end());
        const outcome result = run(words, "user\nsecret\n");
        EXPECT_EQ(result.code, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, one.said);
    }
    EXPECT_EQ(m_peer.calls, texts{});
}

TEST_F(debug_console, the_port_is_the_lower_sixteen_bits_of_a_number) {
    const std::pair<const char*, const char*> cases[] = {
        {"70000", "4464"}, {"65536", "0"}, {"-1", "65535"}, {"http", "0"}, {"", "0"}, {" 12x", "12"},
    };
    for (const auto& [word, port] : cases) {
        m_peer.calls.clear();
        run({"--quiet", "debug-control", "host", word}, "");
        EXPECT_EQ(m_peer.calls.at(1), std::string("Connect host ") + port) << word;
    }
}

TEST_F(debug_console, a_failed_connection_is_the_end) {
    m_peer.connects = false;
    const outcome result = run({"debug-control", "host", "700"}, "user\nsecret\n");
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.out, message(1) + message(73, "3.35.21") + message(47));
    EXPECT_EQ(result.err, error_text(s_other_error, "the connection"));
    EXPECT_EQ(m_peer.calls, (texts{"create", "Connect host 700", "ended"}));
}

TEST_F(debug_console, refused_credentials_are_asked_for_again_as_often_as_it_takes) {
    m_peer.logins.assign(25, qorError_credentials_refused);
    std::string input;
    std::string prompts;
    std::string said;
    for (int i = 0; i < 26; ++i) {
        input += "user" + std::to_string(i) + "\nsecret\n";
        prompts += "Username: Password: ";
        said += i < 25 ? error_text(qorError_credentials_refused, "the login") : "";
    }
    const outcome result = run({"--quiet", "debug-control", "host", "700"}, input);
    EXPECT_EQ(result.out, prompts + "Debug> ");
    EXPECT_EQ(result.err, said + m_end_of_input);
    EXPECT_EQ(m_peer.calls.size(), 3u + 26u + 1u);
    EXPECT_EQ(m_peer.calls.at(27), "Login [user25] [secret]");
}

TEST_F(debug_console, another_failure_of_the_login_is_the_end) {
    m_peer.logins = {qorError_credentials_refused, s_other_error};
    const outcome result = run({"--quiet", "debug-control", "host", "700"}, "a\nb\nc\nd\ne\nf\n");
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.out, "Username: Password: Username: Password: ");
    EXPECT_EQ(result.err,
              error_text(qorError_credentials_refused, "the login") + error_text(s_other_error, "the login"));
    EXPECT_EQ(m_peer.calls, (texts{"create", "Connect host 700", "Login [a] [b]", "Login [c] [d]", "ended"}));
}

TEST_F(debug_console, credentials_are_passed_as_they_are_read) {
    run({"--quiet", "debug-control", "host", "700"}, " us er\t\n\t \xc3\xa4 % \n");
    EXPECT_EQ(m_peer.calls.at(2), "Login [ us er\t] [\t \xc3\xa4 % ]");
    m_peer.calls.clear();
    run({"--quiet", "debug-control", "host", "700"}, "\n\n");
    EXPECT_EQ(m_peer.calls.at(2), "Login [] []");
}

TEST_F(debug_console, the_input_may_end_at_each_prompt) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "Username: "},
        {"user\n", "Username: Password: "},
        {"user\nsecret", "Username: Password: Debug> "},
        {"user\nsecret\n\n", "Username: Password: Debug> Debug> "},
    };
    for (const auto& [input, prompts] : cases) {
        const outcome result = run({"--quiet", "debug-control", "host", "700"}, input);
        EXPECT_EQ(result.code, 1);
        EXPECT_EQ(result.out, prompts);
        EXPECT_EQ(result.err, m_end_of_input);
    }
}

TEST_F(debug_console, a_sink_that_is_not_taken_is_the_end) {
    m_peer.takes_sink = false;
    const outcome result = run({"debug-control", "host", "700"}, "user\nsecret\nhelp\n");
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.out, message(1) + message(73, "3.35.21") + message(47) + "Username: Password: ");
    EXPECT_EQ(result.err, error_text(s_other_error, "the sink"));
    EXPECT_EQ(m_peer.calls.back(), "ended");
}

TEST_F(debug_console, help_lists_the_commands_in_their_order) {
    const outcome result = console("help\nhelp me please\n");
    const std::string text = "\n" + message(65) + "\n" + message(49) + message(66) + message(67) + message(68) +
                             message(50) + message(69) + "\n";
    EXPECT_EQ(result.out, text + "Debug> " + text + "Debug> ");
    EXPECT_EQ(result.err, m_end_of_input);
    EXPECT_EQ(m_peer.calls, texts{});
}

TEST_F(debug_console, shows_all_codes_sorted) {
    m_peer.codes = {"b.two", "%s", "a.one", "B.two", "b.\xc3\xa4"};
    const outcome result = console("show-all\n");
    EXPECT_EQ(result.out, "\n" + message(70) + "\n%s\nB.two\na.one\nb.two\nb.\xc3\xa4\n\nDebug> ");
    EXPECT_EQ(result.err, m_end_of_input);
    EXPECT_EQ(m_peer.calls, texts{"GetCodes"});
}

TEST_F(debug_console, shows_a_heading_where_there_is_no_code) {
    EXPECT_EQ(console("show-all\n").out, "\n" + message(70) + "\n\nDebug> ");
}

TEST_F(debug_console, shows_enabled_codes_sorted) {
    m_peer.codes = {"a", "b", "c"};
    m_peer.enabled = {"c", "a"};
    const outcome result = console("show-enabled\nshow-enabled\n");
    const std::string list = "\n" + message(72) + "\na\nc\n\nDebug> ";
    EXPECT_EQ(result.out, list + list);
    EXPECT_EQ(m_peer.calls, (texts{"GetEnabledCodes", "GetEnabledCodes"}));
}

TEST_F(debug_console, says_that_no_code_is_on) {
    m_peer.codes = {"a"};
    const outcome result = console("show-enabled\n");
    EXPECT_EQ(result.out, message(71) + "Debug> ");
    EXPECT_EQ(result.err, m_end_of_input);
}

TEST_F(debug_console, switches_codes_without_a_word) {
    const outcome result = console("enable a.one\ndisable b.*\ndisable-all\nenable %s\n");
    EXPECT_EQ(result.out, "Debug> Debug> Debug> Debug> ");
    EXPECT_EQ(result.err, m_end_of_input);
    EXPECT_EQ(m_peer.calls, (texts{"EnableCode a.one on", "EnableCode b.* off", "DisableAll", "EnableCode %s on"}));
}

TEST_F(debug_console, blanks_around_and_between_words_do_not_count) {
    const outcome result = console("   \t enable \t  a.one  \r\n \t \n\n  disable-all  \n");
    EXPECT_EQ(result.out, "Debug> Debug> Debug> Debug> ");
    EXPECT_EQ(result.err, m_end_of_input);
    EXPECT_EQ(m_peer.calls, (texts{"EnableCode a.one on", "DisableAll"}));
}

TEST_F(debug_console, commands_are_exact_words) {
    const texts unknown{"Help", "show_all",   "quit",     "exit",   "helper",
                        "hel",  "enable-all", "SHOW-ALL", "--help", "\"help\""};
    std::string input;
    std::string prompts;
    std::string said;
    for (const std::string& each : unknown) {
        input += each + " a\n";
        prompts += "Debug> ";
        said += message(63);
    }
    const outcome result = console(input);
    EXPECT_EQ(result.out, prompts);
    EXPECT_EQ(result.err, said + m_end_of_input);
    EXPECT_EQ(m_peer.calls, texts{});
}

TEST_F(debug_console, wrong_words_of_a_command_change_nothing) {
    const texts wrong{"show-all a", "show-enabled a", "enable",       "enable a b",
                      "disable",    "disable a b",    "disable-all a"};
    std::string input;
    std::string prompts;
    std::string said;
    for (const std::string& each : wrong) {
        input += each + "\n";
        prompts += "Debug> ";
        said += message(64);
    }
    const outcome result = console(input);
    EXPECT_EQ(result.out, prompts);
    EXPECT_EQ(result.err, said + m_end_of_input);
    EXPECT_EQ(m_peer.calls, texts{});
}

TEST_F(debug_console, a_command_that_fails_does_not_end_the_console) {
    m_peer.works = false;
    m_peer.codes = m_peer.enabled = {"half"};
    const outcome result = console("show-all\nshow-enabled\nenable a\ndisable a\ndisable-all\nhelp\n");
    EXPECT_TRUE(result.out.starts_with("Debug> Debug> Debug> Debug> Debug> \n" + message(65)));
    EXPECT_EQ(result.out.find("half"), std::string::npos);
    std::string said;
    for (const char* const op : {"GetCodes", "GetEnabledCodes", "EnableCode", "EnableCode", "DisableAll"})
        said += error_text(s_other_error, op);
    EXPECT_EQ(result.err.substr(0, said.size()), said);
    EXPECT_EQ(m_peer.calls,
              (texts{"GetCodes", "GetEnabledCodes", "EnableCode a on", "EnableCode a off", "DisableAll"}));
}

TEST_F(debug_console, its_trace_names_what_it_does_and_what_failed) {
    const std::string file = m_folder / "trace";
    const auto traced = [this, &file](const texts& words, const std::string& input) {
        std::filesystem::remove(file);
        EXPECT_TRUE(qorDebugAttachFile(file.c_str()) && qorDebugEnableCode("qortool.debug-control", true));
        run(words, input);
        qorDebugEnableCode("qortool.debug-control", false);
        (void)qorDebugAttachFile(nullptr);
        texts lines;
        std::istringstream all(qor::test::read_file(file));
        for (std::string line; std::getline(all, line);)
            lines.push_back(line.substr(line.find("debug-control ") + 14));
        return lines;
    };
    const std::string enter = ">>ENTER>> Execute()";
    const std::string leave = "<<LEAVE<< Execute()";
    EXPECT_EQ(traced({"debug-control", "--port"}, ""), (texts{enter, "FAIL bad option", leave}));
    EXPECT_EQ(traced({"debug-control", "--xxx", "host"}, ""), (texts{enter, "FAIL wrong number of args", leave}));
    texts expected{enter};
    for (const std::string op : {"help", "show_all", "show_enabled", "enable", "disable", "disable_all"}) {
        expected.push_back(">>ENTER>> cmd_" + op + "()");
        expected.push_back("<<LEAVE<< cmd_" + op + "()");
    }
    expected.push_back(leave);
    EXPECT_EQ(traced({"debug-control", "host", "1"},
                     "user\nsecret\nhelp\nshow-all\nshow-enabled\nenable\ndisable\ndisable-all\n"),
              expected);
    m_peer.connects = false;
    EXPECT_EQ(traced({"debug-control", "host", "1"}, ""), (texts{enter, "FAIL conn->Connect() returned false", leave}));
}

TEST_F(debug_console, lines_may_be_of_any_length) {
    const std::string name(100'000, 'n');
    console("enable " + name + "\n");
    EXPECT_EQ(m_peer.calls, texts{"EnableCode " + name + " on"});
}

// ---- the object as the framework sees it

class console_object {
public:
    explicit console_object(bool quiet = false) : m_object(new ("test", 1) debug_control(quiet)) {}
    ~console_object() { m_object->Release(); }

    debug_control* operator->() const { return m_object; }
    void* primary() const { return static_cast<qorComponent2*>(m_object); }
    void* as_sink() const { return static_cast<IQORDebugControlSink*>(m_object); }

private:
    debug_control* const m_object;
};

template <class FUNCTION>
FUNCTION* entry(void* object, std::size_t slot) {
    void** table;
    std::memcpy(&table, object, sizeof table);
    return reinterpret_cast<FUNCTION*>(table[slot]);
}

template <class VALUE>
VALUE field(const void* object, std::size_t offset) {
    VALUE value;
    std::memcpy(&value, static_cast<const char*>(object) + offset, sizeof value);
    return value;
}

int32 references(const console_object& object) {
    return field<int32>(field<const void*>(object.primary(), sizeof(void*)), sizeof(void*));
}

using plain = void(void*) noexcept;
using query = int(void*, const char*, void**) noexcept;
using version = uint32(void*) noexcept;

// Calls the three operations of the root interface, and the version after them, by their positions in the table.
void expect_operations(const console_object& object, void* view, std::size_t first) {
    entry<plain>(view, first)(view);
    EXPECT_EQ(references(object), 2);
    entry<plain>(view, first + 1)(view);
    EXPECT_EQ(references(object), 1);
    void* out = view;
    EXPECT_EQ(entry<query>(view, first + 2)(view, "IQORDebugControlSink", &out), 0);
    EXPECT_EQ(out, view);
    EXPECT_EQ(entry<version>(view, first + 3)(view), 1u);
}

TEST_F(debug_console, its_tables_have_their_operations_in_order) {
    const console_object object;
    EXPECT_EQ(static_cast<char*>(object.as_sink()) - static_cast<char*>(object.primary()),
              static_cast<std::ptrdiff_t>(sizeof(qorComponent2)));
    expect_operations(object, object.primary(), 3); // after two destructors and OnFinalRelease
    expect_operations(object, object.as_sink(), 0);
}

TEST_F(debug_console, its_fields_follow_the_bases) {
    constexpr std::size_t first = sizeof(qorComponent2) + sizeof(void*);
    for (const bool quiet : {false, true}) {
        const console_object object(quiet);
        EXPECT_EQ(field<uint32>(object.primary(), first), qorDebugAllocateCode("qortool.debug-control"));
        EXPECT_EQ(field<bool>(object.primary(), first + 4), quiet);
        EXPECT_EQ(field<void*>(object.primary(), first + 8), nullptr);
    }
    EXPECT_EQ(sizeof(debug_control), first + 16);
}

TEST_F(debug_console, a_lost_connection_ends_the_process) {
    const console_object object;
    void* const primary = object.primary();
    void* const sink = object.as_sink();
    const auto told = testing::ExitedWithCode(0);
    EXPECT_EXIT(entry<plain>(primary, 7)(primary), told, "^Debug connection lost\n$");
    EXPECT_EXIT(entry<plain>(sink, 4)(sink), told, "^Debug connection lost\n$");
}

} // namespace
