// A server for tests on Linux, and what they do beside it.
#pragma once

#include "ipc/raw_peer_posix.h"
#include "qor/qor.h"
#include "support/last_error.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <dirent.h>
#include <functional>
#include <mutex>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <vector>

namespace qor::test {

inline constexpr auto long_time = std::chrono::seconds{120}; // only against hanging

inline uint32 last_number() {
    zetSmartPointer<IQORErrorMessage> error;
    qorGetLastError(error.Out());
    return error->GetErrorNumber();
}

class notes final : public qor::object<IQORIpcTarget> {
public:
    notes() : object("notes", "IQORIpcTarget") {}

    bool Accept(IQORIpcConnection*) noexcept override {
        const std::lock_guard hold(lock);
        ++accepted;
        changed.notify_all();
        return true;
    }
    void Received(IQORIpcConnection* from, const void* bytes, uint64 length) noexcept override {
        const std::string_view message(static_cast<const char*>(bytes), length);
        if (echoes)
            (void)from->TrySend(message);
        const std::lock_guard hold(lock);
        ++count;
        last = message;
        changed.notify_all();
    }
    void Ended(IQORIpcConnection* connection) noexcept override {
        const std::lock_guard hold(lock);
        ends.push_back(connection->GetEnd());
        changed.notify_all();
    }
    template <class READY>
    bool wait(READY ready) {
        std::unique_lock hold(lock);
        return changed.wait_for(hold, long_time, ready);
    }

    unsigned accepted_now() {
        const std::lock_guard hold(lock);
        return accepted;
    }

    bool echoes = true;
    std::mutex lock;
    std::condition_variable changed;
    unsigned accepted = 0;
    unsigned count = 0;
    std::string last;
    std::vector<qorIpcEnd> ends;
};

// A server in a folder of the test's own.
struct server {
    explicit server(const qorIpcOptions& options = {}) {
        told.AttachNew(QOR_NEW notes);
        EXPECT_TRUE(qorCreateIpcServer(address.c_str(), options, *told, object.Out())) << last_error();
    }
    zetSmartPointer<IQORIpcConnection> connect(const qorIpcOptions& options = {}) const {
        zetSmartPointer<IQORIpcConnection> made;
        EXPECT_TRUE(qorCreateIpcConnection(address.c_str(), options, static_cast<IQORIpcTarget*>(nullptr), made.Out()))
            << last_error();
        return made;
    }
    bool answers() const {
        const auto one = connect();
        std::string back;
        return one->Send("ping") && one->Receive(back, 60'000) && back == "ping";
    }

    const temp_folder folder;
    const std::string path = folder / "socket";
    const std::string address = "unix:" + path;
    zetSmartPointer<notes> told;
    zetSmartPointer<IQORIpcServer> object;
};

inline std::string greet(raw_peer& peer) {
    EXPECT_TRUE(peer.put(hello()));
    return peer.next();
}

inline unsigned count_of(const char* folder) {
    unsigned count = 0;
    DIR* const all = opendir(folder);
    while (readdir(all) != nullptr)
        ++count;
    closedir(all);
    return count;
}

inline void wait_until(const std::function<bool()>& ready) {
    const auto end = std::chrono::steady_clock::now() + long_time;
    while (!ready() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds{1});
    EXPECT_TRUE(ready());
}

// A socket that listens as a program of somebody else's does.
inline int listen_at(const std::string& path) {
    const int made = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(made, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(made, 10), 0);
    return made;
}

// Runs in a child process; the result is its exit code, or 256 and the signal.
inline int in_child(const std::function<int()>& run) {
    const pid_t child = fork();
    if (child == 0)
        _exit(run());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
}

} // namespace qor::test
