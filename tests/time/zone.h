// For tests on POSIX: sets the time zone of this process while an object lives.
#pragma once

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace qor::test {

class zone {
public:
    explicit zone(const char* name) {
        if (const char* const held = std::getenv("TZ"))
            m_before = held;
        setenv("TZ", name, 1);
    }
    zone(const zone&) = delete;
    zone& operator=(const zone&) = delete;
    ~zone() {
        if (m_before)
            setenv("TZ", m_before->c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

private:
    std::optional<std::string> m_before;
};

} // namespace qor::test
