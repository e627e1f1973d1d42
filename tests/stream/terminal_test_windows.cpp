// Text for a console and from one. They need a console: see in_terminal.py.
#include "qor/qor.h"
#include "support/last_error.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <io.h>
#include <string>
#include <string_view>
#include <vector>
#include <windows.h>

namespace {

// A code page with few characters, as most consoles have one.
constexpr UINT usual_page = 437;

class windows_console : public testing::Test {
protected:
    windows_console() {
        EXPECT_TRUE(SetConsoleOutputCP(usual_page));
        EXPECT_TRUE(SetConsoleCP(usual_page));
    }
    ~windows_console() override {
        EXPECT_EQ(GetConsoleOutputCP(), usual_page);
        EXPECT_EQ(GetConsoleCP(), usual_page);
    }
};

// A screen that nobody sees, and a C stream that writes on it.
class screen {
public:
    screen() {
        EXPECT_NE(m_console, INVALID_HANDLE_VALUE);
        m_stream = _fdopen(_open_osfhandle(reinterpret_cast<std::intptr_t>(m_console), _O_TEXT), "w");
        EXPECT_NE(m_stream, nullptr);
    }
    screen(const screen&) = delete;
    screen& operator=(const screen&) = delete;
    ~screen() { std::fclose(m_stream); }

    std::FILE* stream() const { return m_stream; }

    // The beginning of a line, without what follows the text.
    std::wstring line(SHORT number) const {
        std::fflush(m_stream);
        wchar_t text[80] = {};
        DWORD count = 0;
        EXPECT_TRUE(ReadConsoleOutputCharacterW(m_console, text, std::size(text), {0, number}, &count));
        std::wstring out(text, count);
        out.erase(out.find_last_not_of(std::wstring(L" \0", 2)) + 1);
        return out;
    }

private:
    HANDLE m_console =
        CreateConsoleScreenBuffer(GENERIC_READ | GENERIC_WRITE, 0, nullptr, CONSOLE_TEXTMODE_BUFFER, nullptr);
    std::FILE* m_stream = nullptr;
};

// What a user types. Lines end with the return key.
void type(std::wstring_view text) {
    std::vector<INPUT_RECORD> events;
    for (const wchar_t unit : text) {
        INPUT_RECORD event{};
        event.EventType = KEY_EVENT;
        event.Event.KeyEvent.bKeyDown = TRUE;
        event.Event.KeyEvent.wRepeatCount = 1;
        event.Event.KeyEvent.uChar.UnicodeChar = unit;
        if (unit == L'\r')
            event.Event.KeyEvent.wVirtualKeyCode = VK_RETURN;
        events.push_back(event);
        event.Event.KeyEvent.bKeyDown = FALSE;
        events.push_back(event);
    }
    DWORD count = 0;
    EXPECT_TRUE(
        WriteConsoleInputW(GetStdHandle(STD_INPUT_HANDLE), events.data(), static_cast<DWORD>(events.size()), &count));
    EXPECT_EQ(count, events.size());
}

std::string typed_line() {
    qorString line("what it held before");
    EXPECT_TRUE(line.GetLine(stdin)) << qor::test::last_error();
    return {line.Text(), line.Length()};
}

} // namespace

TEST_F(windows_console, shows_every_character) {
    const screen shown;
    EXPECT_TRUE(fputtext(shown.stream(), "J\u00fcrgen \u0416 \u03b1\n", 14));
    EXPECT_TRUE(qorString("plain").Put(shown.stream(), true));
    EXPECT_TRUE(qorString("\u00e4\u00f6\u00fc\n\u00df").Put(shown.stream(), true));
    fixed_fprintf(shown.stream(), "%s %d", "\u20ac", 5);
    EXPECT_EQ(shown.line(0), L"J\u00fcrgen \u0416 \u03b1");
    EXPECT_EQ(shown.line(1), L"plain");
    EXPECT_EQ(shown.line(2), L"\u00e4\u00f6\u00fc");
    EXPECT_EQ(shown.line(3), L"\u00df");
    EXPECT_EQ(shown.line(4), L"\u20ac 5");
}

// Plain text goes through the buffer of the stream, and other text does not.
TEST_F(windows_console, keeps_the_order) {
    const screen shown;
    std::setvbuf(shown.stream(), nullptr, _IOFBF, 4096);
    for (const char* const text : {"a", "\u00e9", "b", "\u00ea\u00eb", "c\n"})
        EXPECT_TRUE(fputtext(shown.stream(), text, std::string_view(text).size()));
    EXPECT_EQ(shown.line(0), L"a\u00e9b\u00ea\u00ebc");
}

TEST_F(windows_console, shows_escapes_for_what_would_control_it) {
    const screen shown;
    EXPECT_TRUE(fputtext(shown.stream(), "\x1b[31m \x9b", 7));
    EXPECT_EQ(shown.line(0), L"\\x1b[31m \\x9b");
}

// Longer than one call of the system may be, and cut at every place inside a character.
TEST_F(windows_console, takes_long_texts) {
    for (std::size_t lead = 0; lead < 3; ++lead) {
        const screen shown;
        std::string text(lead, 'x');
        while (text.size() < 20'000)
            text.append("\u20ac");
        text.append("\n\u00fcend\n");
        EXPECT_TRUE(fputtext(shown.stream(), text.data(), text.size()));
        CONSOLE_SCREEN_BUFFER_INFO info{};
        const auto console = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(shown.stream())));
        ASSERT_TRUE(GetConsoleScreenBufferInfo(console, &info));
        const auto width = static_cast<std::size_t>(info.dwSize.X);
        const SHORT last = static_cast<SHORT>(info.dwCursorPosition.Y - 1);
        EXPECT_EQ(shown.line(last), L"\u00fcend");
        for (SHORT line = last > 40 ? static_cast<SHORT>(last - 40) : SHORT{1}; line < last - 1; ++line)
            ASSERT_EQ(shown.line(line), std::wstring(std::min<std::size_t>(width, 80), L'\u20ac')) << line;
    }
}

TEST_F(windows_console, gives_every_character) {
    type(L"J\u00fcrgen \u0416 \u20ac\r");
    EXPECT_EQ(typed_line(), "J\u00fcrgen \u0416 \u20ac");
    type(L"\U0001f600\r");
    EXPECT_EQ(typed_line(), "\U0001f600");
    type(L"\r");
    EXPECT_EQ(typed_line(), "");
    type(L"one\rtwo\r");
    EXPECT_EQ(typed_line(), "one");
    EXPECT_EQ(typed_line(), "two");
}

// A line may be longer than what one call of the system returns, which may end between the two units of a character.
TEST_F(windows_console, gives_long_lines) {
    for (const std::size_t lead : {510u, 511u, 512u, 513u}) {
        type(std::wstring(lead, L'x') + L"\U0001f600\u00fc\r");
        EXPECT_EQ(typed_line(), std::string(lead, 'x') + "\U0001f600\u00fc") << lead;
    }
}

TEST_F(windows_console, ends_at_ctrl_z) {
    qorString line;
    type(L"\x1a\r");
    EXPECT_FALSE(line.GetLine(stdin));
    EXPECT_TRUE(line.IsEmpty());
    type(L"before\x1a behind\r");
    EXPECT_EQ(typed_line(), "before");
    type(L"next\r");
    EXPECT_EQ(typed_line(), "next");
}

TEST_F(windows_console, gives_characters_one_by_one_if_it_is_set_so) {
    const HANDLE console = GetStdHandle(STD_INPUT_HANDLE);
    DWORD before = 0;
    ASSERT_TRUE(GetConsoleMode(console, &before));
    ASSERT_TRUE(SetConsoleMode(console, before & ~DWORD{ENABLE_LINE_INPUT | ENABLE_ECHO_INPUT}));
    type(L"\U0001f600\u00fc\nrest\n");
    EXPECT_EQ(typed_line(), "\U0001f600\u00fc");
    EXPECT_EQ(typed_line(), "rest");
    EXPECT_TRUE(SetConsoleMode(console, before));
}

// Other programs share the console and its code page, and go on when this one ends.
TEST_F(windows_console, keeps_its_code_page) {
    qorStringArray args;
    args.Append("unit_tests");
    ASSERT_TRUE(qorInitProcess("unit_tests", args, 0));
    EXPECT_EQ(GetConsoleOutputCP(), usual_page);
    EXPECT_EQ(GetConsoleCP(), usual_page);
}
