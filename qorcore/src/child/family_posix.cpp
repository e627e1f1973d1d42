#include "child/family_posix.h"

#include "platform/own_process.h"

#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

struct left_child {
    pid_t process;
    int pidfd;
};

// Constant from the start and never destroyed: no thread that forks finds it half made, and threads may start children
// while the process ends.
struct family {
    std::mutex lock;
    qor::child::own_descriptors* first = nullptr;
    std::vector<left_child>* left = nullptr;
};
constinit family s_family;

void before_fork() noexcept { s_family.lock.lock(); }
void in_parent() noexcept { s_family.lock.unlock(); }
// The thread that has forked holds the lock.
void in_child() noexcept {
    family& own = s_family;
    for (auto* each = own.first; each != nullptr; each = each->behind) {
        each->is_listed = false;
        for (std::atomic<int>* descriptor : {&each->input, &each->output, &each->errors, &each->pidfd})
            qor::child::no_fork::close(*descriptor);
    }
    own.first = nullptr;
    if (own.left != nullptr) {
        for (const left_child& each : *own.left)
            if (each.pidfd >= 0)
                close(each.pidfd);
        own.left->clear();
    }
    own.lock.unlock();
}

[[maybe_unused]] const bool s_watches_forks = (qor::platform::watch_forks(before_fork, in_parent, in_child), true);

// Children of others are not touched.
void reap_left(std::vector<left_child>& left) {
    std::erase_if(left, [](const left_child& each) {
        siginfo_t info{};
        const auto kind = each.pidfd >= 0 ? P_PIDFD : P_PID;
        const auto id = static_cast<id_t>(each.pidfd >= 0 ? each.pidfd : each.process);
        if (waitid(kind, id, &info, WEXITED | WNOHANG | __WALL) == 0 && info.si_pid == 0)
            return false;
        if (each.pidfd >= 0)
            close(each.pidfd);
        return true;
    });
}

} // namespace

qor::child::no_fork::no_fork() noexcept {
    family& own = s_family;
    own.lock.lock();
    if (own.left != nullptr)
        reap_left(*own.left);
}

qor::child::no_fork::~no_fork() { s_family.lock.unlock(); }

void qor::child::no_fork::add(own_descriptors& of) noexcept {
    family& own = s_family;
    of.behind = own.first;
    if (own.first != nullptr)
        own.first->before = &of;
    own.first = &of;
    of.is_listed = true;
}

void qor::child::no_fork::remove(own_descriptors& of) noexcept {
    if (!of.is_listed)
        return;
    (of.before != nullptr ? of.before->behind : s_family.first) = of.behind;
    if (of.behind != nullptr)
        of.behind->before = of.before;
    of.is_listed = false;
}

void qor::child::no_fork::close(std::atomic<int>& descriptor) noexcept {
    const int open = descriptor.exchange(-1);
    if (open >= 0)
        ::close(open);
}

void qor::child::no_fork::leave(pid_t process, int pidfd) noexcept {
    if (s_family.left == nullptr)
        s_family.left = new std::vector<left_child>;
    s_family.left->push_back({process, pidfd});
}
