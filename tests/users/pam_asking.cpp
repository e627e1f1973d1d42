// A PAM module that asks the questions of its arguments and records the answers:
//
//     asking.so RECORD [hidden|open|info|error]...
//
// RECORD gets a line for each answer, one with the arguments of the asking process, and one at the end of the
// conversation.
#include <security/pam_modules.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

namespace {

void record(const std::string& file, const std::string& line) {
    if (std::FILE* const out = std::fopen(file.c_str(), "a")) {
        std::fprintf(out, "%s\n", line.c_str());
        std::fclose(out);
    }
}

void record_command_line(const std::string& file) {
    char words[4096];
    std::string line;
    if (std::FILE* const in = std::fopen("/proc/self/cmdline", "r")) {
        line.assign(words, std::fread(words, 1, sizeof words, in));
        std::fclose(in);
    }
    for (char& c : line)
        if (c == '\0')
            c = '|';
    record(file, "words " + line);
}

void note_end(pam_handle_t*, void* data, int) {
    auto* const file = static_cast<std::string*>(data);
    record(*file, "end");
    delete file;
}

int ask(pam_handle_t* handle, const std::string& file, int style, const char* name) {
    const void* item = nullptr;
    if (pam_get_item(handle, PAM_CONV, &item) != PAM_SUCCESS)
        return PAM_CONV_ERR;
    const auto* const conversation = static_cast<const pam_conv*>(item);
    const pam_message message{style, "asking: "};
    const pam_message* messages[] = {&message};
    pam_response* responses = nullptr;
    if (const int result = conversation->conv(1, messages, &responses, conversation->appdata_ptr);
        result != PAM_SUCCESS) {
        record(file, std::string(name) + " refused");
        return result;
    }
    const char* const text = responses[0].resp;
    record(file, std::string(name) + (text != nullptr ? std::string(" ") + text : ""));
    if (text != nullptr)
        std::memset(responses[0].resp, 0, std::strlen(text));
    std::free(responses[0].resp);
    std::free(responses);
    return PAM_SUCCESS;
}

} // namespace

extern "C" int pam_sm_authenticate(pam_handle_t* handle, int, int count, const char** words) {
    const std::map<std::string, int> styles = {{"hidden", PAM_PROMPT_ECHO_OFF},
                                               {"open", PAM_PROMPT_ECHO_ON},
                                               {"info", PAM_TEXT_INFO},
                                               {"error", PAM_ERROR_MSG}};
    const std::string file = words[0];
    if (const int result = pam_set_data(handle, "asking", new std::string(file), &note_end); result != PAM_SUCCESS)
        return result;
    record_command_line(file);
    for (int i = 1; i < count; ++i)
        if (const int result = ask(handle, file, styles.at(words[i]), words[i]); result != PAM_SUCCESS)
            return result;
    return PAM_SUCCESS;
}

extern "C" int pam_sm_setcred(pam_handle_t*, int, int, const char**) { return PAM_SUCCESS; }
