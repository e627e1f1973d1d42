// A pseudo-terminal as a serial port, because a host need not have a UART.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <termios.h>
#include <unistd.h>
#include <utility>

namespace qor::test {

// Both ends of a pseudo-terminal; the framework opens a third descriptor by its name.
class pseudo_terminal {
public:
    pseudo_terminal() : m_other_end(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        grantpt(m_other_end);
        unlockpt(m_other_end);
        m_name = ptsname(m_other_end);
        m_own = open(m_name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        set([](termios& raw) { cfmakeraw(&raw); });
    }
    pseudo_terminal(const pseudo_terminal&) = delete;
    pseudo_terminal& operator=(const pseudo_terminal&) = delete;
    ~pseudo_terminal() {
        close(m_own);
        unplug();
    }

    void unplug() {
        if (m_other_end >= 0)
            close(std::exchange(m_other_end, -1));
    }

    template <class CHANGE>
    void set(CHANGE change) {
        termios now = settings();
        change(now);
        EXPECT_EQ(tcsetattr(m_own, TCSANOW, &now), 0);
    }
    termios settings() const {
        termios now{};
        EXPECT_EQ(tcgetattr(m_own, &now), 0);
        return now;
    }

    void send(std::string_view text) const {
        EXPECT_EQ(write(m_other_end, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::string receive() const {
        char text[256];
        const ssize_t count = read(m_other_end, text, sizeof text);
        return {text, static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
    }

    const std::string& name() const { return m_name; }
    int own() const { return m_own; }

private:
    int m_other_end;
    int m_own;
    std::string m_name;
};

} // namespace qor::test
