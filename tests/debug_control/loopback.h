// A listener in this process with two accounts, and shared code of its tests.
#pragma once

#include "channel/control_client.h"
#include "channel/debug_listener.h"
#include "plain_scram.h"
#include "private_file_of.h"
#include "support/last_error.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace qor::test {

using control_pointer = zetSmartPointer<IQORDebugControl>;

inline uint32 error_number() {
    qorString text;
    return qorGetLastError(text);
}

inline std::vector<std::string> texts(const qorStringArray& array) {
    std::vector<std::string> all;
    for (uint32 i = 0; i < array.GetCount(); ++i)
        all.emplace_back(array[i]);
    return all;
}

inline bool has(const std::vector<std::string>& all, const std::string& text) {
    return std::find(all.begin(), all.end(), text) != all.end();
}

// Counts its calls; lives on the stack.
class counting_sink final : public IQORDebugControlSink {
public:
    void AddRef() noexcept override {}
    void Release() noexcept override {}
    int QueryInterface(const char*, void**) noexcept override { return 0; }
    uint32 getver_IQORDebugControlSink() noexcept override { return 1; }
    void debug_ConnectionLost() noexcept override {
        if (act)
            act();
        const std::lock_guard hold(m_lock);
        ++m_count;
        m_changed.notify_all();
    }

    int count() {
        const std::lock_guard hold(m_lock);
        return m_count;
    }
    void wait_for(int count) {
        std::unique_lock hold(m_lock);
        m_changed.wait(hold, [&] { return m_count == count; });
    }

    std::function<void()> act;

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    int m_count = 0;
};

class loopback_fixture : public testing::Test {
protected:
    loopback_fixture() {
        m_users = private_file(m_folder, "users",
                               plain_scram::account("ada", "secret") + plain_scram::account("bob", "other"));
        listen(0);
    }

    void listen(uint16 at) {
        ASSERT_TRUE(create_debug_listener(listener.Out()));
        ASSERT_TRUE(listener->Listen(std::to_string(at).c_str(), m_users.c_str(), &m_port)) << last_error();
    }

    control_pointer make() {
        control_pointer made;
        EXPECT_TRUE(create_debug_control((m_folder / "known-hosts").c_str(), made.Out())) << last_error();
        return made;
    }

    control_pointer connect() {
        control_pointer made = make();
        EXPECT_TRUE(made->Connect("127.0.0.1", m_port)) << last_error();
        return made;
    }

    static std::vector<std::string> codes(const control_pointer& of) {
        qorStringArray out;
        EXPECT_TRUE(of->GetCodes(out)) << last_error();
        return texts(out);
    }

    static std::vector<std::string> enabled_codes(const control_pointer& of) {
        qorStringArray out;
        EXPECT_TRUE(of->GetEnabledCodes(out)) << last_error();
        return texts(out);
    }

    uint16 port() const { return m_port; }
    const temp_folder& folder() const { return m_folder; }

    zetSmartPointer<IQORDebugListener> listener;

private:
    temp_folder m_folder;
    std::string m_users;
    uint16 m_port = 0;
};

} // namespace qor::test
