#include "catalog/catalog.h"
#include "qor/qor.h"
#include "support/platform.h"
#include "support/scenes.h"

#include <gtest/gtest.h>

#include <map>
#include <thread>

namespace {

using qor::test::words;

struct definition {
    uint32 number;
    qorErrorClass error_class;
    const char* text;
};

const definition definitions[] = {
#define QOR_ERROR(number, name, error_class, text) {number, qorErrorClass::error_class, text},
#include "qor/system/errors.def"
#undef QOR_ERROR
};

using message_pointer = zetSmartPointer<IQORErrorMessage>;

message_pointer last_error() {
    message_pointer message;
    qorGetLastError(message.Out());
    return message;
}

std::string text_of(IQORErrorMessage* message) {
    qorString text;
    message->GetMessage(text);
    return {text.Text(), text.Length()};
}

std::string last_text() { return text_of(*last_error()); }

// Sets English and clears the error of the previous test.
class error : public testing::Test {
protected:
    error() {
        std::string why;
        qor::catalog::set_languages("en", why);
        qorClearLastError();
    }
};

} // namespace

TEST_F(error, without_one_there_is_an_object_all_the_same) {
    const message_pointer message = last_error();
    ASSERT_FALSE(message.IsEmpty());
    EXPECT_EQ(message->GetErrorNumber(), 0u);
    EXPECT_FALSE(message->IsError());
    EXPECT_EQ(message->GetErrorClass(), qorErrorClass::none);
    EXPECT_EQ(text_of(*message), "There is no error to report.");
}

TEST_F(error, every_number_has_its_class_and_text) {
    for (const definition& each : definitions) {
        qorSetLastError(each.number, "{1}", "{2}", "{3}", "{4}", "{5}", "{6}", "{7}", "{8}", "{9}", "{10}");
        const message_pointer message = last_error();
        EXPECT_EQ(message->GetErrorNumber(), each.number);
        EXPECT_EQ(message->IsError(), each.number != 0) << each.number;
        EXPECT_EQ(message->GetErrorClass(), each.error_class) << each.number;
        EXPECT_EQ(text_of(*message), each.text);
    }
}

TEST_F(error, numbers_are_a_contract) {
    EXPECT_EQ(qorError_none, 0u);
    EXPECT_EQ(qorError_unknown, 1u);
    EXPECT_EQ(qorError_out_of_memory, 2u);
    EXPECT_EQ(qorError_invalid_argument, 3u);
    EXPECT_EQ(qorError_credentials_refused, 4u);
    EXPECT_EQ(qorError_cannot_open_file, 10u);
    EXPECT_EQ(qorError_unknown_framework_option, 20u);
}

TEST_F(error, an_unknown_number_becomes_the_unknown_error) {
    std::map<uint32, bool> known;
    for (const definition& each : definitions)
        known[each.number] = true;
    for (uint32 number = 0; number < 5000; ++number) {
        qorSetLastError(number);
        ASSERT_EQ(last_error()->GetErrorNumber(), known[number] ? number : 1) << number;
    }
    qorSetLastError(0xffffffff, "its inserts");
    EXPECT_EQ(last_error()->GetErrorNumber(), 1u);
    EXPECT_TRUE(last_error()->IsError());
    EXPECT_EQ(last_text(), "An operation failed without giving a reason.");
}

TEST_F(error, inserts_are_copied) {
    std::string path = "/a/path/that/is/too/long/for/any/small/buffer/in/a/string";
    qorSetLastError(qorError_cannot_open_file, path.c_str(), "Reason");
    const std::string before = path;
    std::fill(path.begin(), path.end(), 'x');
    EXPECT_EQ(last_text(), "Cannot open '" + before + "': Reason.");
}

TEST_F(error, inserts_can_be_had_by_themselves) {
    qorSetLastError(qorError_cannot_open_file, "/a/path", "Reason");
    qorString insert("before");
    EXPECT_TRUE(qorGetLastErrorInsert(1, insert));
    EXPECT_STREQ(insert, "/a/path");
    EXPECT_TRUE(qorGetLastErrorInsert(2, insert));
    EXPECT_STREQ(insert, "Reason");
    for (const uint32 index : {0u, 3u, 10u, 11u, 0xffffffffu}) {
        insert = "before";
        EXPECT_FALSE(qorGetLastErrorInsert(index, insert)) << index;
        EXPECT_STREQ(insert, "");
    }
    EXPECT_EQ(last_text(), "Cannot open '/a/path': Reason.");
}

TEST_F(error, inserts_not_given_are_empty) {
    qorSetLastError(qorError_cannot_open_file);
    EXPECT_EQ(last_text(), "Cannot open '': .");
    qorSetLastError(qorError_cannot_open_file, nullptr, "Reason");
    EXPECT_EQ(last_text(), "Cannot open '': Reason.");
}

TEST_F(error, an_insert_is_text_and_not_expanded_again) {
    qorSetLastError(qorError_cannot_open_file, "{2}", "%s {1}");
    EXPECT_EQ(last_text(), "Cannot open '{2}': %s {1}.");
}

TEST_F(error, the_text_form_gives_number_and_text) {
    qorString text("what was there before");
    EXPECT_EQ(qorGetLastError(text), 0u);
    EXPECT_STREQ(text, "There is no error to report.");
    qorSetLastError(qorError_invalid_argument, "f", "x");
    EXPECT_EQ(qorGetLastError(text), 3u);
    EXPECT_STREQ(text, "f was called with an invalid argument: x.");
}

TEST_F(error, clearing_leaves_objects_alone) {
    qorSetLastError(qorError_out_of_memory);
    const message_pointer message = last_error();
    qorClearLastError();
    EXPECT_FALSE(last_error()->IsError());
    EXPECT_EQ(message->GetErrorNumber(), 2u);
    EXPECT_EQ(text_of(*message), "There is not enough memory.");
}

TEST_F(error, each_thread_has_its_own) {
    qorSetLastError(qorError_out_of_memory);
    std::vector<std::thread> threads;
    std::vector<std::string> found(8);
    for (std::size_t i = 0; i < found.size(); ++i)
        threads.emplace_back([&found, i] {
            if (last_error()->IsError())
                return;
            for (int round = 0; round < 200; ++round)
                qorSetLastError(qorError_cannot_open_file, std::to_string(i).c_str(), "r");
            found[i] = last_text();
        });
    for (std::thread& each : threads)
        each.join();
    for (std::size_t i = 0; i < found.size(); ++i)
        EXPECT_EQ(found[i], "Cannot open '" + std::to_string(i) + "': r.");
    EXPECT_EQ(last_error()->GetErrorNumber(), 2u);
}

TEST_F(error, an_object_may_be_used_on_other_threads) {
    qorSetLastError(qorError_cannot_open_file, "f", "r");
    const message_pointer message = last_error();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([message] {
            for (int round = 0; round < 200; ++round) {
                const message_pointer copy = message;
                EXPECT_EQ(text_of(*copy), "Cannot open 'f': r.");
            }
        });
    for (std::thread& each : threads)
        each.join();
}

// Programs are compiled against the order of the interface's operations, so each is called by its position here.
TEST_F(error, the_operations_stand_in_their_order) {
    qorSetLastError(qorError_cannot_open_file, "f", "r");
    IQORErrorMessage* message = nullptr;
    qorGetLastError(&message);
    void** const operations = *reinterpret_cast<void***>(message);
    using object = IQORErrorMessage*;

    reinterpret_cast<void (*)(object)>(operations[0])(message); // AddRef
    reinterpret_cast<void (*)(object)>(operations[1])(message); // Release
    void* out = nullptr;
    EXPECT_EQ(reinterpret_cast<int (*)(object, const char*, void**)>(operations[2])(message, "IQORErrorMessage", &out),
              1);
    EXPECT_EQ(out, message);
    message->Release();
    EXPECT_EQ(reinterpret_cast<uint32 (*)(object)>(operations[3])(message), 10u);
    EXPECT_TRUE(reinterpret_cast<bool (*)(object)>(operations[4])(message)); // IsError, the fifth
    EXPECT_EQ(reinterpret_cast<qorErrorClass (*)(object)>(operations[5])(message), qorErrorClass::file);
    qorString text;
    reinterpret_cast<void (*)(object, qorString&)>(operations[6])(message, text);
    EXPECT_STREQ(text, "Cannot open 'f': r.");
    testing::internal::CaptureStderr();
    EXPECT_TRUE(reinterpret_cast<bool (*)(object, std::FILE*, bool)>(operations[7])(message, stderr, false));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Cannot open 'f': r.");
    testing::internal::CaptureStderr();
    reinterpret_cast<void (*)(object)>(operations[8])(message); // Report, the ninth
    const std::string report = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(report.ends_with(": Cannot open 'f': r.\n")) << report;

    qorClearLastError();
    IQORErrorMessage* nothing = nullptr;
    qorGetLastError(&nothing);
    EXPECT_FALSE(reinterpret_cast<bool (*)(object)>(operations[4])(nothing));
    nothing->Release();
    message->Release();
}

TEST_F(error, a_query_knows_two_names) {
    const message_pointer message = last_error();
    void* out = &out;
    EXPECT_EQ(message->QueryInterface("IQORErrorMessage2", &out), 0);
    EXPECT_EQ(message->QueryInterface("iqorerrormessage", &out), 0);
    EXPECT_EQ(out, &out);
    EXPECT_EQ(message->QueryInterface("IQORInterface", &out), 1);
    static_cast<IQORInterface*>(out)->Release();
}

namespace {

const qor::test::scene report{"error_report", [](const words& arguments) {
                                  qorStringArray args;
                                  args.Append("program");
                                  if (arguments[0] == "started") {
                                      EXPECT_TRUE(qorInitProcess("watcher", args, 0));
                                  }
                                  qorSetLastError(qorError_cannot_open_file, "f", "r");
                                  last_error()->Report();
                                  EXPECT_EQ(last_error()->GetErrorNumber(), 10u);
                                  return 0;
                              }};

} // namespace

TEST_F(error, a_report_names_the_process) {
    const qor::test::ending ended = qor::test::play(report, {"started"});
    EXPECT_EQ(ended.code, 0) << ended.out;
    EXPECT_EQ(ended.err, "watcher: Cannot open 'f': r.\n");
}

TEST_F(error, before_the_process_has_started_a_report_names_the_executable) {
    const qor::test::ending ended = qor::test::play(report, {"not"});
    EXPECT_EQ(ended.code, 0) << ended.out;
    EXPECT_EQ(ended.err, qor::test::program_name() + ": Cannot open 'f': r.\n");
}

TEST_F(error, messages_are_made_from_number_and_inserts) {
    const char* const inserts[10] = {"f", "r"};
    message_pointer message;
    create_IQORErrorMessage(qorError_cannot_read_file, inserts, message.Out());
    EXPECT_EQ(text_of(*message), "Cannot read 'f': r.");
    EXPECT_FALSE(last_error()->IsError());
    create_IQORErrorMessage(qorError_out_of_memory, nullptr, message.Out());
    EXPECT_EQ(text_of(*message), "There is not enough memory.");
    create_IQORErrorMessage(777, nullptr, message.Out());
    EXPECT_EQ(message->GetErrorNumber(), 1u);
    create_IQORErrorMessage(0, nullptr, message.Out());
    EXPECT_FALSE(message->IsError());
}

TEST_F(error, a_builder_goes_step_by_step) {
    zetSmartPointer<IQORErrorBuilder> builder;
    create_IQORErrorBuilder(builder.Out());
    message_pointer first;
    builder->Build(first.Out());
    EXPECT_FALSE(first->IsError());

    builder->SetNumber(qorError_cannot_open_file);
    builder->AddInsert("f");
    message_pointer second;
    builder->Build(second.Out());
    builder->AddInsert(nullptr);
    for (int i = 0; i < 20; ++i)
        builder->AddInsert("too many");
    builder->SetLastError();

    EXPECT_FALSE(first->IsError());
    EXPECT_EQ(text_of(*second), "Cannot open 'f': .");
    EXPECT_EQ(last_text(), "Cannot open 'f': .");
    builder->SetNumber(4711);
    builder->SetLastError();
    EXPECT_EQ(last_error()->GetErrorNumber(), 1u);
}

TEST_F(error, a_saved_error_comes_back) {
    qorSetLastError(qorError_cannot_open_file, "f", "r");
    {
        const qorSaveErrorInfo saved;
        qorSetLastError(qorError_out_of_memory);
        EXPECT_TRUE(saved.IsError());
        EXPECT_EQ(saved.GetErrorClass(), qorErrorClass::file);
        qorString text;
        saved.GetMessage(text);
        EXPECT_STREQ(text, "Cannot open 'f': r.");
        EXPECT_EQ(saved.MessagePtr()->GetErrorNumber(), 10u);
        testing::internal::CaptureStdout();
        EXPECT_TRUE(saved.Put(stdout, true));
        std::fflush(stdout);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "Cannot open 'f': r.\n");
        EXPECT_EQ(last_error()->GetErrorNumber(), 2u);
    }
    EXPECT_EQ(last_text(), "Cannot open 'f': r.");
}

TEST_F(error, saving_none_clears_what_comes_between) {
    {
        const qorSaveErrorInfo saved;
        EXPECT_FALSE(saved.IsError());
        qorSetLastError(qorError_out_of_memory);
    }
    EXPECT_FALSE(last_error()->IsError());
}

TEST_F(error, fputerr_prints_the_last_error_or_that_there_is_none) {
    testing::internal::CaptureStderr();
    fputerr(stderr, true);
    qorSetLastError(qorError_cannot_open_file, "f", "r");
    fputerr(stderr, true);
    fputerr(stderr, false);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "There is no error to report.\nCannot open 'f': r.\nCannot open 'f': r.");
}

TEST_F(error, windows_codes_are_translated) {
    const std::map<uint32, uint32> known = {
        {0, qorError_none},
        {2, qorError_not_found},
        {3, qorError_not_found},
        {5, qorError_access_denied},
        {8, qorError_out_of_memory},
        {14, qorError_out_of_memory},
        {15, qorError_not_found},
        {19, qorError_access_denied},
        {32, qorError_in_use},
        {33, qorError_in_use},
        {39, qorError_disk_full},
        {50, qorError_not_supported},
        {53, qorError_not_found},
        {64, qorError_connection_lost},
        {80, qorError_already_exists},
        {86, qorError_credentials_refused},
        {112, qorError_disk_full},
        {120, qorError_not_supported},
        {121, qorError_timed_out},
        {123, qorError_not_found},
        {183, qorError_already_exists},
        {206, qorError_not_found},
        {267, qorError_not_found},
        {1225, qorError_connection_lost},
        {1236, qorError_connection_lost},
        {1317, qorError_not_found},
        {1326, qorError_credentials_refused},
        {1332, qorError_not_found},
        {1460, qorError_timed_out},
        {10053, qorError_connection_lost},
        {10054, qorError_connection_lost},
        {10060, qorError_timed_out},
        {10061, qorError_connection_lost},
        {11001, qorError_not_found},
    };
    // All codes, so that a misplaced row in a sorted table is found.
    for (uint32 code = 0; code < 20000; ++code) {
        const auto found = known.find(code);
        ASSERT_EQ(qorTranslateMSWindowsError(code), found != known.end() ? found->second : qorError_unknown) << code;
    }
    EXPECT_EQ(qorTranslateMSWindowsError(0xffffffff), qorError_unknown);
    EXPECT_FALSE(last_error()->IsError());
    // A code brings no names along, so no text may have a gap for one.
    for (const auto& [code, number] : known) {
        if (number == qorError_credentials_refused)
            continue; // the insert continues the sentence, and may be missing
        qorSetLastError(number);
        const std::string bare = last_text();
        qorSetLastError(number, "X");
        EXPECT_EQ(last_text(), bare) << code;
    }
}

namespace {

// Destructors of static objects and exit handlers run after the main thread's own objects have been destroyed.
const qor::test::scene late{
    "error_late", [](const words&) {
        std::atexit([] {
            fputerr(stderr, true);
            qorSetLastError(qorError_cannot_open_file, "a/path/that/is/too/long/for/any/small/buffer", "late");
            fputerr(stderr, true);
        });
        qorSetLastError(qorError_cannot_open_file, "another/path/too/long/for/any/small/buffer", "early");
        return 0;
    }};

} // namespace

TEST_F(error, exit_handlers_may_set_and_print_errors) {
    const qor::test::ending ended = qor::test::play(late);
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.err, "Cannot open 'another/path/too/long/for/any/small/buffer': early.\n"
                         "Cannot open 'a/path/that/is/too/long/for/any/small/buffer': late.\n");
}
