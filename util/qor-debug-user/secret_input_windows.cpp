#include "secret_input.h"

#include <windows.h>

namespace {

// While it lives, the console does not show typed text.
class hidden_typing {
public:
    explicit hidden_typing(HANDLE console) : m_console(console) {
        GetConsoleMode(console, &m_before);
        SetConsoleMode(console, (m_before | ENABLE_LINE_INPUT | ENABLE_PROCESSED_INPUT) &
                                    ~static_cast<DWORD>(ENABLE_ECHO_INPUT));
    }
    hidden_typing(const hidden_typing&) = delete;
    hidden_typing& operator=(const hidden_typing&) = delete;
    ~hidden_typing() {
        SetConsoleMode(m_console, m_before);
        std::fputc('\n', stderr);
    }

private:
    HANDLE m_console;
    DWORD m_before = 0;
};

HANDLE console() { return GetStdHandle(STD_INPUT_HANDLE); }

} // namespace

bool input_is_terminal() {
    DWORD mode;
    return GetConsoleMode(console(), &mode) != 0;
}

bool read_secret(const qorString& prompt, qorString& line) {
    if (!input_is_terminal())
        return line.GetLine(stdin);
    // The prompt appears only when typed text is no longer shown.
    const hidden_typing hidden(console());
    prompt.Put(stderr, false);
    return line.GetLine(stdin);
}
