#include "secret_input.h"

#include <csignal>
#include <iterator>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr int ending_signals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

termios before;

// Restores the echo before the process ends; otherwise the user's shell would not show what is typed.
extern "C" void show_again_and_end(int number) {
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
    raise(number);
}

// While it lives, the terminal shows only the ends of typed lines.
class hidden_typing {
public:
    hidden_typing() {
        tcgetattr(STDIN_FILENO, &before);
        struct sigaction action = {};
        action.sa_handler = show_again_and_end;
        // SA_RESETHAND restores the default action, so the raised signal ends the process.
        action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
        for (std::size_t i = 0; i < std::size(ending_signals); ++i) {
            sigaction(ending_signals[i], nullptr, &m_actions[i]);
            // An ignored signal stays ignored.
            if (m_actions[i].sa_handler != SIG_IGN)
                sigaction(ending_signals[i], &action, nullptr);
        }
        termios hidden = before;
        hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        hidden.c_lflag |= ECHONL;
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
    }
    hidden_typing(const hidden_typing&) = delete;
    hidden_typing& operator=(const hidden_typing&) = delete;
    ~hidden_typing() {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
        for (std::size_t i = 0; i < std::size(ending_signals); ++i)
            sigaction(ending_signals[i], &m_actions[i], nullptr);
    }

private:
    struct sigaction m_actions[std::size(ending_signals)];
};

} // namespace

bool input_is_terminal() { return isatty(STDIN_FILENO) == 1; }

bool read_secret(const qorString& prompt, qorString& line) {
    if (!input_is_terminal())
        return line.GetLine(stdin);
    // The prompt appears only when typed text is no longer shown.
    const hidden_typing hidden;
    prompt.Put(stderr, false);
    return line.GetLine(stdin);
}
